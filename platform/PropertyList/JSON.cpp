#include "platform/PropertyList/JSON.h"

#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "platform/Base/Base64.h"
#include "platform/PropertyList/PropertyList.h"

namespace tallow::JSON {

namespace {

// Not the ordered kind, which looks for every key from the front; values keep their keys sorted
// too.
using Json = nlohmann::json;

constexpr std::size_t kMaxBytes = 16u << 20;

// ISO 8601, in UTC, to the second. A date beyond the calendar's years is given in seconds.
std::string iso8601(const Date& date) {
  std::string text = description(date);  // "2026-03-01 12:30:00 +0000"
  if (text.size() != 25) return text;
  return text.substr(0, 10) + "T" + text.substr(11, 8) + "Z";
}

Json toJson(const Value& value);

Json toJson(const Dictionary& dictionary) {
  Json object = Json::object();
  for (const auto& entry : dictionary) object[entry.key] = toJson(entry.value);
  return object;
}

Json toJson(const Value& value) {
  if (value.isNil()) return nullptr;
  if (const bool* boolean = value.boolean()) return *boolean;
  if (const std::string* string = value.string()) return *string;
  if (const Data* data = value.data()) return base64Encode(*data);
  if (const Date* date = value.date()) return iso8601(*date);
  if (const Dictionary* dictionary = value.dictionary()) return toJson(*dictionary);
  if (const Array* array = value.array()) {
    Json list = Json::array();
    for (const Value& element : *array) list.push_back(toJson(element));
    return list;
  }
  if (value.isReal()) return value.realValue();
  if (value.isLargeUnsigned()) return value.unsignedValue();
  return value.signedValue();
}

Value fromJson(const Json& json) {
  switch (json.type()) {
    case Json::value_t::boolean:
      return json.get<bool>();
    case Json::value_t::number_integer:
      return json.get<std::int64_t>();
    case Json::value_t::number_unsigned:
      return json.get<std::uint64_t>();
    case Json::value_t::number_float:
      return json.get<double>();
    case Json::value_t::string:
      return json.get_ref<const std::string&>();
    case Json::value_t::array: {
      std::vector<Value> elements;
      elements.reserve(json.size());
      for (const Json& element : json)
        if (!element.is_null()) elements.push_back(fromJson(element));
      return Array(std::move(elements));
    }
    case Json::value_t::object: {
      std::vector<Dictionary::Entry> entries;
      entries.reserve(json.size());
      for (const auto& item : json.items())
        if (!item.value().is_null()) entries.push_back({item.key(), fromJson(item.value())});
      return Dictionary(std::move(entries));
    }
    default:
      return nullptr;
  }
}

}  // namespace

Result<Value> decode(std::string_view text) {
  if (text.size() > kMaxBytes) return makeError("JSON", 1, "The text is too long");
  bool tooDeep = false;
  const auto depthGuard = [&tooDeep](int depth, Json::parse_event_t event, Json&) {
    // At the start of an array or object: how many are open already.
    const bool isStart =
        event == Json::parse_event_t::array_start || event == Json::parse_event_t::object_start;
    if (isStart && depth >= static_cast<int>(PropertyList::kMaxDepth)) tooDeep = true;
    return !tooDeep;
  };
  const Json json = Json::parse(text, depthGuard, /*allow_exceptions=*/false);
  if (tooDeep) return makeError("JSON", 2, "The text is nested too deeply");
  if (json.is_discarded()) return makeError("JSON", 3, "The text is not JSON");
  return fromJson(json);
}

std::string encode(const Value& value, bool indented) {
  return toJson(value).dump(indented ? 2 : -1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace tallow::JSON
