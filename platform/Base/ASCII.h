#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

// Characters as the grammars of the Internet see them: single octets, the letters of ASCII and no
// locale.

namespace tallow::ascii {

constexpr bool isLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

constexpr bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// A control character, as the cookie grammar has it: the horizontal tab counts as white space.
constexpr bool isControl(char c) {
  return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7F;
}

constexpr char lowercased(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

inline std::string lowercased(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(),
                 [](char c) { return lowercased(c); });
  return result;
}

constexpr bool equalIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return lowercased(x) == lowercased(y); });
}

constexpr bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
  return equalIgnoringCase(text.substr(0, prefix.size()), prefix);
}

constexpr bool hasControl(std::string_view text) {
  return std::any_of(text.begin(), text.end(), isControl);
}

inline void appendHexadecimal(std::string& text, std::span<const std::uint8_t> bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  for (const std::uint8_t byte : bytes) text += {kDigits[byte >> 4], kDigits[byte & 15]};
}

// What stands for a character in the text of XML and its like; mostly itself.
constexpr std::string_view markupOf(const char& c) {
  switch (c) {
    case '&':
      return "&amp;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    default:
      return {&c, 1};
  }
}

constexpr std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

}  // namespace tallow::ascii
