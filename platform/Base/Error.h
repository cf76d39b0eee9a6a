#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/Base/Value.h"

namespace tallow {

// A domain error: something a peer, a server, a disk or a user caused. A value; travels on the bus
// as (sxa{sv}). "No error" is std::nullopt.
struct Error {
  // User-info key of the text meant for people.
  static constexpr const char* kLocalizedDescriptionKey = "localizedDescription";

  std::string domain;
  std::int64_t code = 0;
  Dictionary userInfo;

  // The localized description if there is one, else "DOMAIN error CODE".
  std::string localizedDescription() const;

  friend bool operator==(const Error&, const Error&) = default;
};

// An error with nothing but a localized description in its user info.
Error makeError(std::string domain, std::int64_t code, std::string localizedDescription);

std::string description(const Error& error);

}  // namespace tallow
