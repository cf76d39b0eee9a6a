#include "platform/Cookies/CookieDate.h"

#include <array>
#include <chrono>
#include <cstddef>

#include "platform/Base/ASCII.h"

namespace tallow {
namespace {

// The date token delimiters: %x09 / %x20-2F / %x3B-40 / %x5B-60 / %x7B-7E.
constexpr bool isDelimiter(char c) {
  return c == 0x09 || (c >= 0x20 && c <= 0x2F) || (c >= 0x3B && c <= 0x40) ||
         (c >= 0x5B && c <= 0x60) || (c >= 0x7B && c <= 0x7E);
}

// Consumes the run of digits that `text` begins with; nullopt unless it is `least` to `most` long.
std::optional<int> takeNumber(std::string_view& text, std::size_t least, std::size_t most) {
  std::size_t length = 0;
  int number = 0;
  for (; length < text.size() && ascii::isDigit(text[length]); ++length) {
    if (length == most) return std::nullopt;
    number = number * 10 + (text[length] - '0');
  }
  if (length < least) return std::nullopt;
  text.remove_prefix(length);
  return number;
}

struct TimeOfDay {
  int hour, minute, second;
};

std::optional<TimeOfDay> parseTime(std::string_view token) {
  std::array<int, 3> fields{};
  for (std::size_t i = 0; i < fields.size(); ++i) {
    if (i > 0) {
      if (token.empty() || token.front() != ':') return std::nullopt;
      token.remove_prefix(1);
    }
    const auto field = takeNumber(token, 1, 2);
    if (!field) return std::nullopt;
    fields[i] = *field;
  }
  return TimeOfDay{fields[0], fields[1], fields[2]};
}

std::optional<int> parseMonth(std::string_view token) {
  static constexpr std::array<std::string_view, 12> kMonths = {
      "jan", "feb", "mar", "apr", "may", "jun", "jul", "aug", "sep", "oct", "nov", "dec"};
  for (std::size_t i = 0; i < kMonths.size(); ++i) {
    if (ascii::startsWithIgnoringCase(token, kMonths[i])) return static_cast<int>(i) + 1;
  }
  return std::nullopt;
}

// What the tokens have given so far; the first token that fits a part is that part.
struct DateParts {
  std::optional<TimeOfDay> time;
  std::optional<int> day, month, year;

  void take(std::string_view token) {
    if (!time && (time = parseTime(token))) return;
    std::string_view rest = token;
    if (!day && (day = takeNumber(rest, 1, 2))) return;
    if (!month && (month = parseMonth(token))) return;
    rest = token;
    if (!year) year = takeNumber(rest, 2, 4);
  }
};

}  // namespace

std::optional<Date> parseCookieDate(std::string_view text) {
  DateParts parts;
  for (std::size_t at = 0; at < text.size();) {
    if (isDelimiter(text[at])) {
      ++at;
      continue;
    }
    const std::size_t start = at;
    while (at < text.size() && !isDelimiter(text[at])) ++at;
    parts.take(text.substr(start, at - start));
  }
  if (!parts.time || !parts.day || !parts.month || !parts.year) return std::nullopt;

  int year = *parts.year;
  if (year >= 70 && year <= 99)
    year += 1900;
  else if (year <= 69)
    year += 2000;
  const auto [hour, minute, second] = *parts.time;
  if (year < 1601 || hour > 23 || minute > 59 || second > 59) return std::nullopt;

  const std::chrono::year_month_day date{std::chrono::year(year),
                                         std::chrono::month(static_cast<unsigned>(*parts.month)),
                                         std::chrono::day(static_cast<unsigned>(*parts.day))};
  if (!date.ok()) return std::nullopt;
  const auto moment = std::chrono::sys_days(date) + std::chrono::hours(hour) +
                      std::chrono::minutes(minute) + std::chrono::seconds(second);
  return Date{static_cast<double>(moment.time_since_epoch().count())};
}

}  // namespace tallow
