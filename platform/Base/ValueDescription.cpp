#include <algorithm>

#include "platform/Base/ASCII.h"
#include "platform/Base/UTF8.h"
#include "platform/Base/Value.h"

namespace tallow {

namespace {

constexpr std::size_t kMaxDescriptionBytes = 16 * 1024;
constexpr std::size_t kMaxDescribedDataBytes = 64;
constexpr int kMaxDescribedDepth = 16;

// Writes a value into a text that never grows past kMaxDescriptionBytes.
class Describer {
 public:
  void append(const Value& value, int depth) {
    if (const std::string* text = value.string()) {
      depth == 0 ? put(*text) : putQuoted(*text);
    } else if (const Data* data = value.data()) {
      append(*data);
    } else if (const Date* date = value.date()) {
      put(description(*date));
    } else if (const Array* array = value.array()) {
      append(*array, depth);
    } else if (const Dictionary* dictionary = value.dictionary()) {
      append(*dictionary, depth);
    } else if (const bool* boolean = value.boolean()) {
      put(*boolean ? "1" : "0");
    } else {
      put(value.isNil() ? "(null)" : value.stringValue());
    }
  }

  void append(const Array& array, int depth) {
    if (depth >= kMaxDescribedDepth) return put("(...)");
    put("(");
    for (const Value& element : array) {
      if (_full) return;
      if (&element != array.begin()) put(", ");
      append(element, depth + 1);
    }
    put(")");
  }

  void append(const Dictionary& dictionary, int depth) {
    if (depth >= kMaxDescribedDepth) return put("{...}");
    put("{");
    for (const auto& entry : dictionary) {
      if (_full) return;
      if (&entry != dictionary.begin()) put("; ");
      putQuoted(entry.key);
      put(" = ");
      append(entry.value, depth + 1);
    }
    put("}");
  }

  void append(const Data& data) {
    std::string text = "<";
    ascii::appendHexadecimal(text,
                             data.span().first(std::min(data.length(), kMaxDescribedDataBytes)));
    if (data.length() > kMaxDescribedDataBytes) {
      text += "... " + std::to_string(data.length()) + " bytes";
    }
    put(text + ">");
  }

  std::string take() { return std::move(_text); }

 private:
  void put(std::string_view text) {
    if (_full) return;
    const std::size_t room = kMaxDescriptionBytes - _text.size();
    _full = text.size() > room;
    _text += prefixOnCharacterBoundary(text, room);
    if (_full) _text += "...";
  }

  void putQuoted(std::string_view text) {
    std::string quoted = "\"";
    for (const char c : text.substr(0, kMaxDescriptionBytes)) {
      if (c == '"' || c == '\\') quoted += '\\';
      quoted += c;
    }
    put(quoted + "\"");
  }

  std::string _text;
  bool _full = false;
};

}  // namespace

std::string description(const Value& value) {
  Describer describer;
  describer.append(value, 0);
  return describer.take();
}

std::string description(const Array& array) {
  Describer describer;
  describer.append(array, 0);
  return describer.take();
}

std::string description(const Dictionary& dictionary) {
  Describer describer;
  describer.append(dictionary, 0);
  return describer.take();
}

std::string description(const Data& data) {
  Describer describer;
  describer.append(data);
  return describer.take();
}

}  // namespace tallow
