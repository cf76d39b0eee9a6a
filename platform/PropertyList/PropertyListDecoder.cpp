#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Base/UTF8.h"
#include "platform/PropertyList/BinaryListCheck.h"
#include "platform/PropertyList/KeyBudget.h"
#include "platform/PropertyList/PropertyList.h"
#include "platform/PropertyList/PropertyListNode.h"
#include "platform/PropertyList/XMLListCheck.h"

namespace tallow::PropertyList {

namespace {

constexpr std::string_view kBinaryMagic = "bplist00";
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

// Turns the library's nodes into values. The list has been checked: depth is bounded.
class Converter {
 public:
  // `dates`: those of a binary list, in order, or none for an XML list.
  explicit Converter(std::vector<double> dates) : _dates(std::move(dates)) {}

  Value convert(plist_t node) {
    switch (plist_get_node_type(node)) {
      case PLIST_BOOLEAN: {
        std::uint8_t value = 0;
        plist_get_bool_val(node, &value);
        return value != 0;
      }
      case PLIST_UINT:
        return integer(node);
      case PLIST_REAL: {
        double value = 0;
        plist_get_real_val(node, &value);
        return value;
      }
      case PLIST_STRING: {
        std::uint64_t length = 0;
        const char* text = plist_get_string_ptr(node, &length);
        return checked({text, static_cast<std::size_t>(length)});
      }
      case PLIST_DATA: {
        std::uint64_t length = 0;
        const char* bytes = plist_get_data_ptr(node, &length);
        return Data(std::string_view(bytes, static_cast<std::size_t>(length)));
      }
      case PLIST_DATE:
        return date(node);
      case PLIST_ARRAY:
        return array(node);
      case PLIST_DICT:
        return dictionary(node);
      default:
        _failed = true;
        return {};
    }
  }

  bool failed() const { return _failed; }

 private:
  // The library's own accessor does not tell -1 from 2^64-1; its comparison does.
  static Value integer(plist_t node) {
    std::uint64_t value = 0;
    plist_get_uint_val(node, &value);
    if (value <= INT64_MAX) return value;
    const Node negative = nodeFromBits(kInteger64Marker, value);
    if (plist_compare_node_value(node, negative.get()) != 0)
      return static_cast<std::int64_t>(value);
    return value;
  }

  Value date(plist_t node) {
    if (_nextDate < _dates.size()) return Date{_dates[_nextDate++] + kEpochSecondsSince1970};
    char* bytes = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(node, &bytes, &length);
    BinaryListCheck reader(std::span(reinterpret_cast<const std::uint8_t*>(bytes), length));
    const auto error = reader.run();
    const std::vector<double> dates = reader.takeDates();
    plist_to_bin_free(bytes);
    if (error || dates.empty()) {
      _failed = true;
      return {};
    }
    return Date{dates.front() + kEpochSecondsSince1970};
  }

  Value array(plist_t node) {
    std::vector<Value> elements;
    elements.reserve(plist_array_get_size(node));
    plist_array_iter iterator = nullptr;
    plist_array_new_iter(node, &iterator);
    for (std::uint32_t count = plist_array_get_size(node); count > 0; --count) {
      plist_t element = nullptr;
      plist_array_next_item(node, iterator, &element);
      elements.push_back(convert(element));
    }
    std::free(iterator);
    return Array(std::move(elements));
  }

  Value dictionary(plist_t node) {
    std::vector<Dictionary::Entry> entries;
    entries.reserve(plist_dict_get_size(node));
    plist_dict_iter iterator = nullptr;
    plist_dict_new_iter(node, &iterator);
    for (std::uint32_t count = plist_dict_get_size(node); count > 0; --count) {
      char* key = nullptr;
      plist_t value = nullptr;
      plist_dict_next_item(node, iterator, &key, &value);
      if (!isValidUTF8(key)) _failed = true;
      entries.push_back({key, convert(value)});
      std::free(key);
    }
    std::free(iterator);
    return Dictionary(std::move(entries));
  }

  Value checked(std::string_view text) {
    if (!isValidUTF8(text)) _failed = true;
    return text;
  }

  std::vector<double> _dates;
  std::size_t _nextDate = 0;
  bool _failed = false;
};

Result<Value> converted(const Node& root, std::vector<double> dates) {
  if (!root) return listError(kMalformed, "Malformed property list");
  Converter converter(std::move(dates));
  Value value = converter.convert(root.get());
  if (converter.failed()) {
    return listError(kMalformed, "Property list with a string that is no UTF-8");
  }
  return value;
}

Result<Value> decodeBinary(std::string_view bytes) {
  BinaryListCheck check(
      std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
  if (auto error = check.run()) return *std::move(error);
  plist_t root = nullptr;
  plist_from_bin(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &root);
  return converted(Node(root), check.takeDates());
}

Result<Value> decodeXML(std::string_view text) {
  if (auto error = XMLListCheck(text).run()) return *std::move(error);
  plist_t root = nullptr;
  plist_from_xml(text.data(), static_cast<std::uint32_t>(text.size()), &root);
  return converted(Node(root), {});
}

}  // namespace

Result<Value> decode(const Data& bytes, std::size_t maxBytes) {
  if (bytes.length() > maxBytes || bytes.length() > UINT32_MAX) {
    return listError(kTooLarge, "Property list of " + std::to_string(bytes.length()) + " bytes");
  }
  std::string_view text = bytes.view();
  if (text.starts_with(kBinaryMagic)) return decodeBinary(text);
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  return decodeXML(text);
}

}  // namespace tallow::PropertyList
