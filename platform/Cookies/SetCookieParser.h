#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Base/Date.h"
#include "platform/Base/Value.h"
#include "platform/Cookies/Cookie.h"

namespace tallow {

// A cookie as a Set-Cookie line spells it: parsed, not yet judged. Of a repeated attribute the last
// one counts; an attribute value over 1,024 bytes counts as absent.
struct ParsedCookie {
  std::string name, value;
  std::optional<std::string> domain;  // lower case, without leading dot; "" is no domain
  std::optional<std::string> path;    // "" stands for the default path: given, but not with a "/"
  std::optional<Date> expires;
  std::optional<std::int64_t> maxAgeSeconds;  // clamped to 64 bits
  bool secure = false, httpOnly = false;
  Cookie::SameSite sameSite = Cookie::SameSite::Unspecified;
};

// Parses one Set-Cookie line (RFC 6265bis section 5.6). nullopt when it holds no cookie: a control
// character in it, or neither name nor value.
std::optional<ParsedCookie> parseSetCookie(std::string_view line);

// The Set-Cookie lines of a response header dictionary: the name matched without regard to case,
// the value a string, an array of strings, or one string of several cookies joined with commas
// (commas inside Expires are not separators). Anything else is no cookie. The first `most` at most;
// they are views into the dictionary.
std::vector<std::string_view> setCookieLines(const Dictionary& responseHeaders, std::size_t most);

}  // namespace tallow
