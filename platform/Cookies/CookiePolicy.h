#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/Base/Date.h"
#include "platform/Base/URL.h"
#include "platform/Cookies/Cookie.h"
#include "platform/Cookies/SetCookieParser.h"

namespace tallow {

// Why a cookie was or was not stored.
enum class CookieDecision {
  Stored,
  Removed,  // its date has passed: whatever was stored in its place is gone
  EmptyNameAndValue,
  TooLarge,  // name plus value over 4,096 bytes, or a default path over 1,024
  ControlCharacter,
  DomainMismatch,  // the host may not set cookies for that domain, or has no name to keep one by
  PublicSuffix,
  PrefixRule,      // __Host- or __Secure- without what they demand
  SameSiteRule,    // SameSite=None without Secure
  InsecureOrigin,  // Secure over plain http, or would overlay a Secure cookie
};

// The rules of RFC 6265bis that need no jar: which cookies a response from a URL may set, and what
// they then look like. Only a URL whose scheme is exactly "https" counts as secure. Stateless;
// callable from any thread.
class CookiePolicy {
 public:
  static constexpr std::size_t kLargestNameAndValue = 4096;
  static constexpr std::size_t kLongestPath = 1024;
  static constexpr std::size_t kLongestDomain = 253;
  static constexpr double kLongestLifetimeSeconds = 400.0 * 24 * 60 * 60;

  struct Judgement {
    CookieDecision decision = CookieDecision::Stored;
    Cookie cookie;  // meaningful only when Stored or Removed
  };
  // Judges a cookie that `url` sent at `now`. Stored and Removed mean that nothing in the cookie
  // itself speaks against it; the jar may still refuse to overlay a Secure cookie.
  static Judgement judge(const ParsedCookie& parsed, const URL& url, Date now);

  static bool isSecure(const URL& url) { return url.scheme() == "https"; }
  // RFC 6265 section 5.1.3, for a name that is no IP address.
  static bool domainMatches(std::string_view host, std::string_view domain);
  // RFC 6265 section 5.1.4.
  static bool pathMatches(std::string_view requestPath, std::string_view cookiePath);
  static std::string_view defaultPath(std::string_view requestPath);
  // A name under which strangers register theirs: on the public suffix list, or a single label.
  static bool isPublicSuffix(const std::string& domain);
  // What every stored cookie fulfils; a file may hold something else.
  static bool isWellFormed(const Cookie& cookie);
};

}  // namespace tallow
