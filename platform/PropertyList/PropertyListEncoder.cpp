#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "platform/Base/UTF8.h"
#include "platform/PropertyList/PropertyList.h"
#include "platform/PropertyList/PropertyListNode.h"

namespace tallow::PropertyList {

namespace {

// In XML the library writes four digits of the year from the year 1000 on, and whole seconds.
constexpr double kFirstXMLDate = -30610224000;
constexpr double kLastXMLDate = 253402300799;

// Makes the library's nodes of values.
class Builder {
 public:
  explicit Builder(Format format) : _format(format) {}

  Node build(const Value& value) const {
    if (const std::string* text = value.string())
      return Node(plist_new_string(clean(*text).c_str()));
    if (const Dictionary* dictionary = value.dictionary()) return build(*dictionary);
    if (const Array* array = value.array()) return build(*array);
    if (const bool* boolean = value.boolean()) return Node(plist_new_bool(*boolean ? 1 : 0));
    if (const Data* data = value.data())
      return Node(plist_new_data(data->view().data(), data->length()));
    if (const Date* date = value.date()) return build(*date);
    if (value.isReal()) return Node(plist_new_real(value.realValue()));
    if (value.isNumber()) return buildInteger(value);
    std::fputs("PropertyList: nil cannot be encoded\n", stderr);
    std::abort();
  }

 private:
  Node build(const Dictionary& dictionary) const {
    Node node(plist_new_dict());
    for (const auto& [key, value] : dictionary) {
      plist_dict_set_item(node.get(), clean(key).c_str(), build(value).release());
    }
    return node;
  }

  Node build(const Array& array) const {
    Node node(plist_new_array());
    for (const Value& element : array)
      plist_array_append_item(node.get(), build(element).release());
    return node;
  }

  // The library's own constructors take 32 bits of seconds, and write large integers as negative.
  Node build(const Date& date) const {
    double seconds = date.secondsSince1970;
    if (_format == Format::XML) {
      seconds =
          std::isnan(seconds) ? 0 : std::clamp(std::floor(seconds), kFirstXMLDate, kLastXMLDate);
    }
    return nodeFromBits(kDateMarker,
                        std::bit_cast<std::uint64_t>(seconds - kEpochSecondsSince1970));
  }

  static Node buildInteger(const Value& value) {
    if (value.isLargeUnsigned())
      return nodeFromBits(kInteger128Marker, value.unsignedValue(), true);
    return nodeFromBits(kInteger64Marker, value.unsignedValue());
  }

  // What the format cannot carry becomes U+FFFD: malformed UTF-8, and NUL, where the library would
  // cut; in XML every control character but tab and line ends.
  std::string clean(const std::string& text) const {
    return replacingCharacters(isValidUTF8(text) ? text : replacingInvalidUTF8(text),
                               [this](char c) { return isForbidden(c); });
  }

  bool isForbidden(char c) const {
    if (_format == Format::Binary) return c == '\0';
    return c >= 0 && c < 0x20 && c != '\t' && c != '\n' && c != '\r';
  }

  Format _format;
};

}  // namespace

std::size_t depth(const Value& value) {
  std::size_t deepest = 0;
  if (const Dictionary* const dictionary = value.dictionary()) {
    for (const auto& [key, member] : *dictionary) deepest = std::max(deepest, depth(member));
  } else if (const Array* const array = value.array()) {
    for (const Value& element : *array) deepest = std::max(deepest, depth(element));
  } else {
    return 0;
  }
  return deepest + 1;
}

Data encode(const Value& value, Format format) {
  const Node root = Builder(format).build(value);
  char* bytes = nullptr;
  std::uint32_t length = 0;
  if (format == Format::Binary) {
    plist_to_bin(root.get(), &bytes, &length);
  } else {
    plist_to_xml(root.get(), &bytes, &length);
  }
  Data data(std::string_view(bytes, length));
  std::free(bytes);
  return data;
}

}  // namespace tallow::PropertyList
