#include "platform/PropertyList/XMLListCheck.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <span>

#include "platform/Base/ASCII.h"
#include "platform/PropertyList/ListLimits.h"
#include "platform/PropertyList/PropertyList.h"

namespace tallow::PropertyList {

namespace {

constexpr std::size_t kBytesPerStep = 64;  // moved by the library in the time of one step

constexpr bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
  return text;
}

// Fast where there are few.
std::size_t countOf(char wanted, std::string_view text) {
  std::size_t count = 0;
  for (std::size_t at = text.find(wanted); at != text.npos; at = text.find(wanted, at + 1)) ++count;
  return count;
}

bool isLeaf(std::string_view name) {
  return name == "string" || name == "integer" || name == "true" || name == "false" ||
         name == "data" || name == "date" || name == "real";
}

// A sign, and decimal digits without leading zeros (which the library takes for octal) or
// hexadecimal ones; within 64 bits.
bool isInteger(std::string_view text) {
  const bool isNegative = text.starts_with('-');
  if (isNegative || text.starts_with('+')) text.remove_prefix(1);
  int base = 10;
  if (text.starts_with("0x") || text.starts_with("0X")) {
    base = 16;
    text.remove_prefix(2);
  } else if (text.size() > 1 && text.front() == '0') {
    return false;
  }
  std::uint64_t magnitude = 0;
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
  if (error != std::errc() || end != text.data() + text.size()) return false;
  return !isNegative || magnitude <= std::uint64_t{1} << 63;
}

bool isReal(std::string_view text) {
  if (text.starts_with('+')) text.remove_prefix(1);
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size();
}

// "2026-03-01T12:30:00Z", a day of the calendar; the library takes what it can read of anything.
bool isDate(std::string_view text) {
  constexpr std::string_view kPattern = "0000-00-00T00:00:00Z";
  if (!std::equal(
          text.begin(), text.end(), kPattern.begin(), kPattern.end(),
          [](char c, char pattern) { return pattern == '0' ? ascii::isDigit(c) : c == pattern; })) {
    return false;
  }
  const auto number = [text](std::size_t begin, std::size_t length) {
    unsigned value = 0;
    std::from_chars(text.data() + begin, text.data() + begin + length, value);
    return value;
  };
  const std::chrono::year_month_day day(std::chrono::year(static_cast<int>(number(0, 4))),
                                        std::chrono::month(number(5, 2)),
                                        std::chrono::day(number(8, 2)));
  return day.ok() && number(11, 2) < 24 && number(14, 2) < 60 && number(17, 2) < 60;
}

}  // namespace

std::optional<Error> XMLListCheck::run() {
  if (_text.find('\0') != _text.npos) return listError(kMalformed, "NUL in an XML property list");
  while (true) {
    skipSpace();
    if (_position == _text.size()) break;
    bool sound = true;
    if (startsWith("<?")) {
      sound = skipInstruction();
    } else if (startsWith("<!--")) {
      _position += 4;
      sound = skipAfter("-->");
    } else if (startsWith("<!DOCTYPE")) {
      sound = !_inList && !_hasRoot && skipDocumentType();
    } else {
      Tag tag;
      if (auto error = readTag(tag)) return error;
      if (auto error = tag.isClosing ? close(tag) : open(tag)) return error;
    }
    if (!sound) return listError(kMalformed, "Malformed XML property list");
  }
  if (!_hasRoot || !_path.empty() || _inList) {
    return listError(kMalformed, "Truncated XML property list");
  }
  return std::nullopt;
}

std::optional<Error> XMLListCheck::readTag(Tag& tag) {
  if (!startsWith("<")) return listError(kMalformed, "XML property list with text between values");
  ++_position;
  tag.isClosing = startsWith("/");
  if (tag.isClosing) ++_position;
  const std::size_t start = _position;
  while (_position < _text.size() && _text[_position] >= 'a' && _text[_position] <= 'z')
    ++_position;
  tag.name = _text.substr(start, _position - start);
  if (tag.name == "plist" && !tag.isClosing) {
    if (skipAttributes()) return std::nullopt;
  } else {
    skipSpace();
    tag.isEmpty = !tag.isClosing && startsWith("/");
    if (tag.isEmpty) ++_position;
    if (startsWith(">")) {
      ++_position;
      return std::nullopt;
    }
  }
  return listError(kMalformed, "Malformed tag in an XML property list");
}

std::optional<Error> XMLListCheck::open(const Tag& tag) {
  if (tag.name == "plist") {
    if (_inList || _listClosed || _hasRoot) {
      return listError(kMalformed, "XML property list with more than one list");
    }
    _inList = true;
    return std::nullopt;
  }
  if (_path.empty()) {
    if (_hasRoot) return listError(kMalformed, "XML property list followed by something else");
    _hasRoot = true;
  }
  if (++_nodes > kMaxNodes) return listError(kTooLarge, "Property list with too many values");

  Container* parent = _path.empty() ? nullptr : &_path.back();
  const bool keyIsDue = parent != nullptr && parent->kind == Kind::Dictionary && !parent->hasKey;
  if (keyIsDue != (tag.name == "key")) {
    return listError(kUnsupported, "XML property list with keys and values out of turn");
  }
  if (parent != nullptr) parent->hasKey = keyIsDue;
  if (tag.name == "key" || isLeaf(tag.name)) return readLeaf(tag);
  if (tag.name != "array" && tag.name != "dict") {
    return listError(kUnsupported, "XML property list with an unknown tag");
  }
  if (tag.isEmpty) return std::nullopt;
  if (_path.size() == kMaxDepth) return listError(kTooDeep, "Property list nested too deep");
  _path.push_back({tag.name == "array" ? Kind::Array : Kind::Dictionary, false, _keys.size()});
  return std::nullopt;
}

std::optional<Error> XMLListCheck::close(const Tag& tag) {
  if (tag.name == "plist" && _path.empty() && _inList && _hasRoot) {
    _inList = false;
    _listClosed = true;
    return std::nullopt;
  }
  if (_path.empty() || _path.back().hasKey ||
      tag.name != (_path.back().kind == Kind::Array ? "array" : "dict")) {
    return listError(kMalformed, "XML property list with a closing tag out of place");
  }
  const std::size_t firstKey = _path.back().firstKey;
  _path.pop_back();
  if (!_keyBudget.spend(std::span(_keys).subspan(firstKey))) {
    return listError(kTooLarge, "Property list with too many keys");
  }
  _keys.resize(firstKey);
  return std::nullopt;
}

std::optional<Error> XMLListCheck::readLeaf(const Tag& tag) {
  Content content;
  if (!tag.isEmpty) {
    if (auto error = readContent(tag.name, content)) return error;
  }
  if (auto error = checkLeaf(tag.name, content)) return error;
  // The library replaces entities one at a time, moving up all the text behind.
  _work += content.entities * (1 + content.raw.size() / kBytesPerStep);
  if (_work > kMaxWork) return listError(kTooLarge, "XML property list with too many entities");
  return tag.name == "key" ? noteKey(content) : std::nullopt;
}

// Reads up to and past the closing tag.
std::optional<Error> XMLListCheck::readContent(std::string_view name, Content& content) {
  const std::size_t start = _position;
  while (true) {
    const std::size_t next = _text.find('<', _position);
    if (next == _text.npos) return listError(kMalformed, "Truncated XML property list");
    const std::string_view plain = _text.substr(_position, next - _position);
    content.entities += countOf('&', plain);
    _position = next;
    bool sound = true;
    if (startsWith("</")) break;
    if (startsWith("<!--")) {
      _position += 4;
      sound = skipAfter("-->");
    } else if (startsWith("<![CDATA[")) {
      _position += 9;
      sound = skipAfter("]]>");
    } else {
      sound = false;
    }
    if (!sound) return listError(kMalformed, "XML property list with a tag inside a value");
    content.hasMarkup = true;
  }
  content.raw = _text.substr(start, _position - start);
  Tag closing;
  if (auto error = readTag(closing)) return error;
  if (closing.name != name) {
    return listError(kMalformed, "XML property list with a closing tag out of place");
  }
  return std::nullopt;
}

std::optional<Error> XMLListCheck::checkLeaf(std::string_view name, const Content& content) {
  if (name == "string" || name == "key") return std::nullopt;
  const std::string_view text = trimmed(content.raw);
  const bool sound = !content.hasMarkup && (name == "integer" ? isInteger(text)
                                            : name == "real"  ? isReal(text)
                                            : name == "date"  ? isDate(text)
                                            : name == "data"  ? true
                                                              : text.empty());
  if (sound) return std::nullopt;
  return listError(kMalformed, "XML property list with a malformed " + std::string(name));
}

std::optional<Error> XMLListCheck::noteKey(const Content& content) {
  if (content.raw.empty() && !_text.substr(0, _position).ends_with("</key>")) {
    // <key/>: the library finds no key there.
    return listError(kMalformed, "XML property list with an empty key tag");
  }
  const bool isFinal = !content.hasMarkup && content.entities == 0;
  _keys.push_back(isFinal ? content.raw : std::string_view());
  return std::nullopt;
}

// ---- positions

void XMLListCheck::skipSpace() {
  while (_position < _text.size() && isSpace(_text[_position])) ++_position;
}

bool XMLListCheck::skipAfter(std::string_view end) {
  const std::size_t place = _text.find(end, _position);
  if (place == _text.npos) return false;
  _position = place + end.size();
  return true;
}

// The library lets quoted text hide the end of an instruction; with quotes in pairs it cannot.
bool XMLListCheck::skipInstruction() {
  const std::size_t start = ++_position;
  if (!skipAfter("?>")) return false;
  const std::string_view skipped = _text.substr(start, _position - start);
  return countOf('"', skipped) % 2 == 0;
}

// Without declarations of its own: no list needs entities, and entities can unfold without end.
bool XMLListCheck::skipDocumentType() {
  const std::size_t start = _position;
  if (!skipAfter(">")) return false;
  const std::string_view skipped = _text.substr(start, _position - start);
  return skipped.find('[') == skipped.npos && countOf('"', skipped) % 2 == 0;
}

bool XMLListCheck::skipAttributes() {
  const std::size_t start = _position;
  if (!skipAfter(">")) return false;
  const std::string_view skipped = _text.substr(start, _position - start - 1);
  return skipped.find('<') == skipped.npos && !skipped.ends_with('/') &&
         (skipped.empty() || isSpace(skipped.front())) && countOf('"', skipped) % 2 == 0;
}

}  // namespace tallow::PropertyList
