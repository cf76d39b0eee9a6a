#include "platform/VendBase/LogText.h"

#include <unicode/utf8.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>

#include "platform/Base/Format.h"

namespace tallow::LogText {

namespace {

bool isPlainASCII(unsigned char byte) {
  return byte >= 0x20 && byte < 0x7f;
}

// Whether a character stays out of a log line: C0 and C1 controls, line and paragraph separators,
// bidirectional embeddings, overrides and isolates.
bool isDangerous(UChar32 character) {
  return character < 0x20 || (character >= 0x7f && character <= 0x9f) || character == 0x2028 ||
         character == 0x2029 || (character >= 0x202a && character <= 0x202e) ||
         (character >= 0x2066 && character <= 0x2069);
}

// \x1f, a byte.
void appendByteEscape(std::string& out, unsigned value) {
  char text[16];
  std::snprintf(text, sizeof text, "\\x%02x", value);
  out += text;
}

// \u{2028}, a code point.
void appendCodePointEscape(std::string& out, unsigned value) {
  char text[16];
  std::snprintf(text, sizeof text, "\\u{%04x}", value);
  out += text;
}

void appendEscape(std::string& out, UChar32 character) {
  switch (character) {
    case '\n':
      out += "\\n";
      break;
    case '\r':
      out += "\\r";
      break;
    case '\t':
      out += "\\t";
      break;
    default:
      if (character < 0x100) {
        appendByteEscape(out, static_cast<unsigned>(character));
      } else {
        appendCodePointEscape(out, static_cast<unsigned>(character));
      }
  }
}

}  // namespace

std::string escaped(std::string_view text) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
  // One line's worth of text is looked at, so an index always fits.
  const auto length = static_cast<std::int32_t>(std::min(text.size(), kMaxLineBytes + 4));
  std::string out;
  out.reserve(static_cast<std::size_t>(length));
  std::int32_t index = 0;
  while (index < length && out.size() < kMaxLineBytes) {
    if (isPlainASCII(bytes[index])) {
      out += static_cast<char>(bytes[index++]);
      continue;
    }
    const std::int32_t start = index;
    UChar32 character;
    U8_NEXT(bytes, index, length, character);
    if (character < 0) {
      for (std::int32_t bad = start; bad < index; ++bad) appendByteEscape(out, bytes[bad]);
    } else if (isDangerous(character)) {
      appendEscape(out, character);
    } else {
      out.append(
          text.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(index - start)));
    }
  }
  const std::size_t left = text.size() - static_cast<std::size_t>(index);
  if (left > 0) out += format("… (%lu more bytes)", left);
  return out;
}

std::string_view fileName(std::string_view sourcePath) {
  for (const std::string_view root : {"src/", "platform/"}) {
    const std::size_t at = sourcePath.rfind(root);
    if (at == std::string_view::npos || (at > 0 && sourcePath[at - 1] != '/')) continue;
    sourcePath.remove_prefix(at + root.size());
    break;
  }
  const std::size_t dot = sourcePath.rfind('.');
  const std::size_t slash = sourcePath.rfind('/');
  const bool hasExtension =
      dot != std::string_view::npos && (slash == std::string_view::npos || dot > slash);
  return hasExtension ? sourcePath.substr(0, dot) : sourcePath;
}

}  // namespace tallow::LogText
