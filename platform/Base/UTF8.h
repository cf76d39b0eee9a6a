#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

// UTF-8 as Unicode defines it: shortest forms only, no surrogates, nothing above U+10FFFF.

namespace tallow {

bool isValidUTF8(std::string_view text);

// `text` with every malformed part replaced by U+FFFD; unchanged when it is valid.
std::string replacingInvalidUTF8(std::string_view text);

// `text` with every character for which `isUnwanted` (of one byte, ASCII) replaced by U+FFFD.
template <class Predicate>
std::string replacingCharacters(std::string text, Predicate isUnwanted) {
  if (std::none_of(text.begin(), text.end(), isUnwanted)) return text;
  std::string result;
  for (const char c : text) {
    if (isUnwanted(c)) {
      result += "\xEF\xBF\xBD";
    } else {
      result += c;
    }
  }
  return result;
}

// The longest beginning of `text` of at most `maxBytes` bytes that does not end inside a character.
std::string_view prefixOnCharacterBoundary(std::string_view text, std::size_t maxBytes);

// The first character of valid text that is not empty.
struct Character {
  char32_t codePoint = 0;
  std::size_t bytes = 0;
};
Character firstCharacter(std::string_view validText);

// Whether people see the character for what it is: not one that a terminal acts on, nor one that
// ends a line, cannot be seen, or turns the direction of text.
bool isSeenAsItself(char32_t codePoint);

}  // namespace tallow
