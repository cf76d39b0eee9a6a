#include "platform/Preferences/TOML.h"

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "platform/Base/AtomicFile.h"
#include "platform/Base/Format.h"
#include "platform/Preferences/TOMLLibrary.h"

namespace tallow::TOML {

namespace {

constexpr const char* kTOMLErrorDomain = "TOML";

double secondsOf(const toml::date& date) {
  const std::chrono::sys_days day = std::chrono::year(date.year) / date.month / date.day;
  return static_cast<double>(std::chrono::seconds(day.time_since_epoch()).count());
}

double secondsOf(const toml::date_time& moment) {
  constexpr int kSecondsPerMinute = 60, kMinutesPerHour = 60;
  const toml::time& time = moment.time;
  const int minutes =
      time.hour * kMinutesPerHour + time.minute - (moment.offset ? moment.offset->minutes : 0);
  return secondsOf(moment.date) + minutes * kSecondsPerMinute + time.second +
         time.nanosecond * 1e-9;
}

// The value of a node; nil when it, or something in it, has no equivalent.
Value valueFor(const toml::node& node);

Value valueFor(const toml::table& table) {
  std::vector<Dictionary::Entry> entries;
  entries.reserve(table.size());
  for (const auto& [key, node] : table) {
    Value value = valueFor(node);
    if (value.isNil()) return value;
    entries.push_back({std::string(key.str()), std::move(value)});
  }
  return Dictionary(std::move(entries));
}

Value valueFor(const toml::array& array) {
  std::vector<Value> elements;
  elements.reserve(array.size());
  for (const toml::node& node : array) {
    Value value = valueFor(node);
    if (value.isNil()) return value;
    elements.push_back(std::move(value));
  }
  return Array(std::move(elements));
}

// The parser bounds the depth.
Value valueFor(const toml::node& node) {
  if (const auto* const table = node.as_table()) return valueFor(*table);
  if (const auto* const array = node.as_array()) return valueFor(*array);
  if (const auto* const text = node.as_string()) return text->get();
  if (const auto* const flag = node.as_boolean()) return flag->get();
  if (const auto* const integer = node.as_integer()) return integer->get();
  if (const auto* const real = node.as_floating_point()) return real->get();
  if (const auto* const moment = node.as_date_time()) return Date{secondsOf(moment->get())};
  if (const auto* const day = node.as_date()) return Date{secondsOf(day->get())};
  return {};
}

}  // namespace

Result<Dictionary> decode(std::string_view text) {
  const toml::parse_result parsed = toml::parse(text);
  if (!parsed) {
    const toml::parse_error& error = parsed.error();
    return makeError(kTOMLErrorDomain, 1,
                     format("line %u, column %u: %@", error.source().begin.line,
                            error.source().begin.column, error.description()));
  }
  const Value root = valueFor(parsed.table());
  if (root.isNil()) return makeError(kTOMLErrorDomain, 2, "a time of day without a date");
  return *root.dictionary();
}

Result<Dictionary> decodeFile(const std::filesystem::path& path) {
  const Result<Data> contents = readLinkedFile(path, kMaxFileBytes);
  if (!contents) return contents.error();
  return decode(contents->view());
}

}  // namespace tallow::TOML
