#include "devstore/JSONValue.h"

#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "platform/Base/Base64.h"
#include "platform/PropertyList/PropertyList.h"

namespace tallow::devstore {

namespace {

using nlohmann::json;

constexpr const char* kDataKey = "$data";
constexpr const char* kDateKey = "$date";

std::optional<Value> valueAtDepth(const json& source, std::size_t depth);

std::optional<Value> arrayFromJSON(const json& source, std::size_t depth) {
  std::vector<Value> elements;
  elements.reserve(source.size());
  for (const json& element : source) {
    std::optional<Value> value = valueAtDepth(element, depth + 1);
    if (!value) return std::nullopt;
    elements.push_back(std::move(*value));
  }
  return Value(Array(std::move(elements)));
}

std::optional<Value> dictionaryFromJSON(const json& source, std::size_t depth) {
  if (source.size() == 1 && source.contains(kDataKey)) {
    if (!source[kDataKey].is_string()) return std::nullopt;
    std::optional<Data> data = base64Decode(source[kDataKey].get_ref<const std::string&>());
    if (!data) return std::nullopt;
    return Value(std::move(*data));
  }
  if (source.size() == 1 && source.contains(kDateKey)) {
    if (!source[kDateKey].is_number()) return std::nullopt;
    return Value(Date{source[kDateKey].get<double>()});
  }
  std::vector<Dictionary::Entry> entries;
  entries.reserve(source.size());
  for (const auto& [key, element] : source.items()) {
    std::optional<Value> value = valueAtDepth(element, depth + 1);
    if (!value) return std::nullopt;
    entries.push_back({key, std::move(*value)});
  }
  return Value(Dictionary(std::move(entries)));
}

std::optional<Value> valueAtDepth(const json& source, std::size_t depth) {
  if (depth > PropertyList::kMaxDepth) return std::nullopt;
  switch (source.type()) {
    case json::value_t::boolean:
      return Value(source.get<bool>());
    case json::value_t::number_integer:
      return Value(source.get<std::int64_t>());
    case json::value_t::number_unsigned:
      return Value(source.get<std::uint64_t>());
    case json::value_t::number_float:
      return Value(source.get<double>());
    case json::value_t::string:
      return Value(source.get_ref<const std::string&>());
    case json::value_t::array:
      return arrayFromJSON(source, depth);
    case json::value_t::object:
      return dictionaryFromJSON(source, depth);
    default:
      return std::nullopt;
  }
}

}  // namespace

json jsonFromValue(const Value& value) {
  if (const bool* boolean = value.boolean()) return *boolean;
  if (const std::string* string = value.string()) return *string;
  if (const Data* data = value.data()) return {{kDataKey, base64Encode(*data)}};
  if (const Date* date = value.date()) return {{kDateKey, date->secondsSince1970}};
  if (const Array* array = value.array()) {
    json list = json::array();
    for (const Value& element : *array) list.push_back(jsonFromValue(element));
    return list;
  }
  if (const Dictionary* dictionary = value.dictionary()) {
    json object = json::object();
    for (const auto& [key, element] : *dictionary) object[key] = jsonFromValue(element);
    return object;
  }
  if (value.isReal()) return value.realValue();
  if (value.isLargeUnsigned()) return value.unsignedValue();
  if (value.isNumber()) return value.signedValue();
  return nullptr;
}

std::optional<Value> valueFromJSON(const json& source) {
  return valueAtDepth(source, 0);
}

}  // namespace tallow::devstore
