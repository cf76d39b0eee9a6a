#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>

#include "platform/Base/ASCII.h"
#include "platform/HTTP/HTTPTransport.h"

namespace tallow {
namespace {

constexpr double kLargestMaxAge = 2147483648.0;  // 2^31, RFC 9111 section 1.2.2

// Takes the next element of a comma-separated list off `list`; commas inside quoted strings do not
// separate.
std::string_view takeElement(std::string_view& list) {
  bool quoted = false;
  std::size_t end = 0;
  for (; end < list.size(); ++end) {
    if (quoted && list[end] == '\\') {
      ++end;
    } else if (list[end] == '"') {
      quoted = !quoted;
    } else if (list[end] == ',' && !quoted) {
      break;
    }
  }
  const std::string_view element = list.substr(0, end);
  list.remove_prefix(std::min(end + 1, list.size()));
  return ascii::trimmed(element);
}

// delta-seconds, which recipients also take quoted; a minus sign is no valid syntax, but says
// clearly what was meant.
std::optional<double> deltaSeconds(std::string_view text) {
  if (text.size() >= 2 && text.front() == '"' && text.back() == '"')
    text = text.substr(1, text.size() - 2);
  const bool negative = text.starts_with('-');
  if (negative) text.remove_prefix(1);
  if (text.empty() || text.find_first_not_of("0123456789") != std::string_view::npos)
    return std::nullopt;
  std::int64_t seconds = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  const double value = failure != std::errc()
                           ? kLargestMaxAge
                           : std::min(static_cast<double>(seconds), kLargestMaxAge);
  return negative ? -value : value;
}

}  // namespace

std::optional<std::string> HTTPResponse::header(std::string_view exactName) const {
  for (const auto& [name, value] : headers)
    if (name == exactName) return value;
  return std::nullopt;
}

Dictionary HTTPResponse::headerDictionary() const {
  struct Lines {
    std::string_view name;
    std::vector<std::string_view> values;
  };
  std::vector<Lines> grouped;
  for (const auto& [name, value] : headers) {
    const auto known = std::find_if(
        grouped.begin(), grouped.end(),
        [&name = name](const Lines& lines) { return ascii::equalIgnoringCase(lines.name, name); });
    if (known != grouped.end()) {
      known->values.emplace_back(value);
    } else {
      grouped.push_back({name, {value}});
    }
  }
  std::vector<Dictionary::Entry> entries;
  entries.reserve(grouped.size());
  for (const Lines& lines : grouped) {
    // The one header whose lines cannot be joined: its values hold commas of their own.
    if (lines.values.size() > 1 && ascii::equalIgnoringCase(lines.name, "Set-Cookie")) {
      entries.push_back({std::string(lines.name),
                         Array(std::vector<Value>(lines.values.begin(), lines.values.end()))});
      continue;
    }
    std::string joined(lines.values.front());
    for (std::size_t i = 1; i < lines.values.size(); ++i)
      joined.append(", ").append(lines.values[i]);
    entries.push_back({std::string(lines.name), std::move(joined)});
  }
  return Dictionary(std::move(entries));
}

std::optional<double> HTTPResponse::cacheControlMaxAgeSeconds() const {
  std::optional<double> maxAge;
  for (const auto& [name, value] : headers) {
    if (!ascii::equalIgnoringCase(name, "Cache-Control")) continue;
    std::string_view rest = value;
    while (!rest.empty()) {
      const std::string_view directive = takeElement(rest);
      const std::size_t equals = directive.find('=');
      if (!maxAge && equals != std::string_view::npos &&
          ascii::equalIgnoringCase(directive.substr(0, equals), "max-age"))
        maxAge = deltaSeconds(directive.substr(equals + 1));
    }
  }
  return maxAge;
}

}  // namespace tallow
