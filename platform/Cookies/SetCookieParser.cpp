#include "platform/Cookies/SetCookieParser.h"

#include <charconv>
#include <cstddef>
#include <limits>
#include <utility>

#include "platform/Base/ASCII.h"
#include "platform/Cookies/CookieDate.h"

namespace tallow {
namespace {

constexpr std::size_t kLongestAttributeValue = 1024;
constexpr std::string_view kHeaderName = "Set-Cookie";

// Splits at the first `separator`; without one, everything is before it.
std::pair<std::string_view, std::optional<std::string_view>> splitAtFirst(std::string_view text,
                                                                          char separator) {
  const auto at = text.find(separator);
  if (at == std::string_view::npos) return {text, std::nullopt};
  return {text.substr(0, at), text.substr(at + 1)};
}

// An optional minus sign and digits, nothing else. A number too large for 64 bits is the largest of
// its sign.
std::optional<std::int64_t> parseMaxAge(std::string_view text) {
  std::int64_t seconds = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, seconds);
  if (stop != end || error == std::errc::invalid_argument) return std::nullopt;
  if (error == std::errc::result_out_of_range) {
    return text.front() == '-' ? std::numeric_limits<std::int64_t>::min()
                               : std::numeric_limits<std::int64_t>::max();
  }
  return seconds;
}

Cookie::SameSite parseSameSite(std::string_view text) {
  if (ascii::equalIgnoringCase(text, "None")) return Cookie::SameSite::None;
  if (ascii::equalIgnoringCase(text, "Lax")) return Cookie::SameSite::Lax;
  if (ascii::equalIgnoringCase(text, "Strict")) return Cookie::SameSite::Strict;
  return Cookie::SameSite::Unspecified;
}

void applyAttribute(ParsedCookie& cookie, std::string_view name, std::string_view value) {
  if (ascii::equalIgnoringCase(name, "Expires")) {
    if (const auto date = parseCookieDate(value)) cookie.expires = date;
  } else if (ascii::equalIgnoringCase(name, "Max-Age")) {
    if (const auto seconds = parseMaxAge(value)) cookie.maxAgeSeconds = seconds;
  } else if (ascii::equalIgnoringCase(name, "Domain")) {
    if (value.starts_with('.')) value.remove_prefix(1);
    cookie.domain = ascii::lowercased(value);
  } else if (ascii::equalIgnoringCase(name, "Path")) {
    cookie.path = value.starts_with('/') ? value : std::string_view();
  } else if (ascii::equalIgnoringCase(name, "Secure")) {
    cookie.secure = true;
  } else if (ascii::equalIgnoringCase(name, "HttpOnly")) {
    cookie.httpOnly = true;
  } else if (ascii::equalIgnoringCase(name, "SameSite")) {
    cookie.sameSite = parseSameSite(value);
  }
}

// A token character of RFC 9110 section 5.6.2: what a cookie's name is made of.
bool isTokenCharacter(char c) {
  return static_cast<unsigned char>(c) > 0x20 && c != 0x7F &&
         std::string_view("()<>@,;:\\\"/[]?={}").find(c) == std::string_view::npos;
}

// Whether the text after a comma begins another cookie: a name and an equals sign. A date never
// does, since its day is followed by a space or a month.
bool beginsCookie(std::string_view text) {
  std::size_t at = text.find_first_not_of(" \t");
  if (at == std::string_view::npos) return false;
  const std::size_t name = at;
  while (at < text.size() && isTokenCharacter(text[at])) ++at;
  if (at == name) return false;
  at = text.find_first_not_of(" \t", at);
  return at != std::string_view::npos && text[at] == '=';
}

void appendJoinedLines(std::vector<std::string_view>& lines, std::string_view joined,
                       std::size_t most) {
  std::size_t start = 0;
  for (std::size_t comma = joined.find(','); comma != std::string_view::npos && lines.size() < most;
       comma = joined.find(',', comma + 1)) {
    if (!beginsCookie(joined.substr(comma + 1))) continue;
    lines.push_back(ascii::trimmed(joined.substr(start, comma - start)));
    start = comma + 1;
  }
  if (lines.size() < most) lines.push_back(ascii::trimmed(joined.substr(start)));
}

}  // namespace

std::optional<ParsedCookie> parseSetCookie(std::string_view line) {
  if (ascii::hasControl(line)) return std::nullopt;

  auto [pair, attributes] = splitAtFirst(line, ';');
  const auto [beforeEquals, afterEquals] = splitAtFirst(pair, '=');
  ParsedCookie cookie;
  if (afterEquals) cookie.name = ascii::trimmed(beforeEquals);
  cookie.value = ascii::trimmed(afterEquals.value_or(beforeEquals));
  if (cookie.name.empty() && cookie.value.empty()) return std::nullopt;

  while (attributes) {
    const auto [attribute, remaining] = splitAtFirst(*attributes, ';');
    const auto [name, value] = splitAtFirst(attribute, '=');
    const std::string_view trimmedValue = ascii::trimmed(value.value_or(std::string_view()));
    if (trimmedValue.size() <= kLongestAttributeValue) {
      applyAttribute(cookie, ascii::trimmed(name), trimmedValue);
    }
    attributes = remaining;
  }
  return cookie;
}

std::vector<std::string_view> setCookieLines(const Dictionary& responseHeaders, std::size_t most) {
  std::vector<std::string_view> lines;
  for (const auto& [name, value] : responseHeaders) {
    if (!ascii::equalIgnoringCase(name, kHeaderName)) continue;
    if (const std::string* const joined = value.string()) {
      appendJoinedLines(lines, *joined, most);
    } else if (const Array* const list = value.array()) {
      for (const Value& line : *list) {
        if (lines.size() == most) return lines;
        if (const std::string* const text = line.string()) lines.push_back(*text);
      }
    }
  }
  return lines;
}

}  // namespace tallow
