#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Base/Date.h"

namespace tallow {

// One stored cookie (RFC 6265 section 5.3). Immutable once stored; shared between jar and readers,
// and safe to read from any thread.
struct Cookie {
  enum class SameSite : std::uint8_t { Unspecified, None, Lax, Strict };

  std::string name;
  std::string value;
  std::string domain;  // canonical, without leading dot
  std::string path;
  std::optional<Date> expiresDate;  // nullopt: a session cookie
  Date creationDate;
  bool hostOnly = true;
  bool secure = false;
  bool httpOnly = false;
  SameSite sameSite = SameSite::Unspecified;

  // Whether `other` would take this cookie's place in a jar: same name, domain, path and host-only
  // flag.
  bool hasSameIdentity(const Cookie& other) const {
    return name == other.name && path == other.path && hostOnly == other.hostOnly &&
           domain == other.domain;
  }
};
using CookiePointer = std::shared_ptr<const Cookie>;

// "name=value; name=value", empty for no cookies. A cookie without a name is its value alone.
std::string cookieHeaderValue(const std::vector<CookiePointer>& cookies);

}  // namespace tallow
