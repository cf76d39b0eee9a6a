#include "devstore/JSONReader.h"

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>

#include "platform/Base/Base64.h"

namespace tallow::devstore {

namespace {

using nlohmann::json;

// The integer, or nullopt when `value` is not one or does not fit.
std::optional<std::int64_t> integerValue(const json& value) {
  if (!value.is_number_integer()) return std::nullopt;
  if (value.is_number_unsigned() &&
      value.get<std::uint64_t>() > std::numeric_limits<std::int64_t>::max()) {
    return std::nullopt;
  }
  return value.get<std::int64_t>();
}

}  // namespace

JSONReader::JSONReader(const json& object, std::string where)
    : _object(object), _where(std::move(where)) {
  if (!_object.is_object()) {
    _complaint = (_where.empty() ? std::string("the staging") : _where) + ": must be a JSON object";
  }
}

const json* JSONReader::member(std::string_view key) {
  if (!_object.is_object()) return nullptr;
  _known.emplace_back(key);
  const auto found = _object.find(_known.back());
  return found == _object.end() ? nullptr : &*found;
}

std::optional<bool> JSONReader::boolean(std::string_view key) {
  const json* value = member(key);
  if (value == nullptr) return std::nullopt;
  if (value->is_boolean()) return value->get<bool>();
  fail(key, "must be true or false");
  return std::nullopt;
}

std::optional<std::int64_t> JSONReader::integer(std::string_view key, std::int64_t least,
                                                std::int64_t most) {
  const json* value = member(key);
  if (value == nullptr) return std::nullopt;
  const std::optional<std::int64_t> number = integerValue(*value);
  if (number && *number >= least && *number <= most) return number;
  fail(key, "must be a whole number from " + std::to_string(least) + " to " + std::to_string(most));
  return std::nullopt;
}

std::optional<std::string> JSONReader::string(std::string_view key) {
  const json* value = member(key);
  if (value == nullptr) return std::nullopt;
  if (value->is_string()) return value->get<std::string>();
  fail(key, "must be a string");
  return std::nullopt;
}

std::optional<std::vector<std::string>> JSONReader::strings(std::string_view key) {
  const json* value = member(key);
  if (value == nullptr) return std::nullopt;
  if (value->is_string()) return std::vector{value->get<std::string>()};
  if (value->is_array() &&
      std::all_of(value->begin(), value->end(), [](const json& e) { return e.is_string(); })) {
    return value->get<std::vector<std::string>>();
  }
  fail(key, "must be a string or a list of strings");
  return std::nullopt;
}

std::optional<Data> JSONReader::base64(std::string_view key) {
  const std::optional<std::string> text = string(key);
  if (!text) return std::nullopt;
  std::optional<Data> data = base64Decode(*text);
  if (!data) fail(key, "is not base64 (standard alphabet, padded, no line breaks)");
  return data;
}

void JSONReader::fail(std::string_view key, std::string_view complaint) {
  if (!_complaint) _complaint = place(key) + ": " + std::string(complaint);
}

void JSONReader::adopt(const std::optional<std::string>& complaint) {
  if (!_complaint) _complaint = complaint;
}

std::string JSONReader::place(std::string_view key) const {
  return _where.empty() ? std::string(key) : _where + "." + std::string(key);
}

std::optional<std::string> JSONReader::complaint() {
  if (_complaint || !_object.is_object()) return _complaint;
  for (const auto& [key, value] : _object.items()) {
    if (std::find(_known.begin(), _known.end(), key) != _known.end()) continue;
    std::sort(_known.begin(), _known.end());
    std::string known;
    for (const std::string& name : _known) known.append(known.empty() ? "" : ", ").append(name);
    fail(key, "unknown key; known are " + known);
    break;
  }
  return _complaint;
}

}  // namespace tallow::devstore
