#include "platform/Base/Date.h"

#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>

namespace tallow {

std::string description(const Date& date) {
  using std::chrono::days;
  using std::chrono::sys_days;

  // 0001-01-01 and 10000-01-01.
  constexpr double kFirst = -62135596800.0;
  constexpr double kEnd = 253402300800.0;
  std::array<char, 64> text{};
  if (!(date.secondsSince1970 >= kFirst && date.secondsSince1970 < kEnd)) {
    const auto end = std::to_chars(text.begin(), text.end(), date.secondsSince1970).ptr;
    return std::string(text.begin(), end);
  }
  const std::chrono::sys_seconds moment{
      std::chrono::seconds{static_cast<std::int64_t>(std::floor(date.secondsSince1970))}};
  const sys_days day = std::chrono::floor<days>(moment);
  const std::chrono::year_month_day calendar{day};
  const std::chrono::hh_mm_ss time{moment - day};
  const int length = std::snprintf(
      text.data(), text.size(), "%04d-%02u-%02u %02d:%02d:%02d +0000",
      static_cast<int>(calendar.year()), static_cast<unsigned>(calendar.month()),
      static_cast<unsigned>(calendar.day()), static_cast<int>(time.hours().count()),
      static_cast<int>(time.minutes().count()), static_cast<int>(time.seconds().count()));
  return {text.data(), static_cast<std::size_t>(length)};
}

}  // namespace tallow
