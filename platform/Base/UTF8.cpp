#include "platform/Base/UTF8.h"

#include <unicode/utf8.h>

#include <cstdint>
#include <cstring>

#include "platform/Base/ICULibrary.h"

namespace tallow {

namespace {

// The number of ASCII bytes at the beginning of `text`, eight at a time.
std::size_t asciiPrefix(std::string_view text) {
  constexpr std::uint64_t kHighBits = 0x8080808080808080u;
  std::size_t index = 0;
  for (; index + sizeof(std::uint64_t) <= text.size(); index += sizeof(std::uint64_t)) {
    std::uint64_t word = 0;
    std::memcpy(&word, text.data() + index, sizeof word);
    if ((word & kHighBits) != 0) break;
  }
  while (index < text.size() && U8_IS_SINGLE(text[index])) ++index;
  return index;
}

}  // namespace

bool isValidUTF8(std::string_view text) {
  const char* bytes = text.data();
  std::size_t index = asciiPrefix(text);
  while (index < text.size()) {
    UChar32 character = 0;
    U8_NEXT(bytes, index, text.size(), character);
    if (character < 0) return false;
    if (character < 0x80) index += asciiPrefix(text.substr(index));
  }
  return true;
}

std::string replacingInvalidUTF8(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  const char* bytes = text.data();
  for (std::size_t index = 0; index < text.size();) {
    const std::size_t start = index;
    UChar32 character = 0;
    U8_NEXT(bytes, index, text.size(), character);
    if (character < 0) {
      result += "\xEF\xBF\xBD";
    } else {
      result += text.substr(start, index - start);
    }
  }
  return result;
}

std::string_view prefixOnCharacterBoundary(std::string_view text, std::size_t maxBytes) {
  if (text.size() <= maxBytes) return text;
  std::size_t end = maxBytes;
  // At most three steps: a longer run of trail bytes is no UTF-8 in the first place.
  for (int steps = 0; steps < 3 && end > 0 && U8_IS_TRAIL(text[end]); ++steps) --end;
  return text.substr(0, end);
}

Character firstCharacter(std::string_view validText) {
  const char* bytes = validText.data();
  std::size_t length = 0;
  UChar32 character = 0;
  U8_NEXT(bytes, length, validText.size(), character);
  return {static_cast<char32_t>(character), length};
}

bool isSeenAsItself(char32_t codePoint) {
  if (codePoint < 0x7F) return codePoint >= 0x20;
  if (codePoint < 0xA0 || codePoint == 0x2028 || codePoint == 0x2029) return false;
  const ICULibrary* const icu = ICULibrary::shared();
  return icu != nullptr && icu->hasBinaryProperty(static_cast<UChar32>(codePoint),
                                                  UCHAR_DEFAULT_IGNORABLE_CODE_POINT) == 0;
}

}  // namespace tallow
