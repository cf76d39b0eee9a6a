#pragma once

#include <compare>
#include <string>

namespace tallow {

// A moment, in seconds since 1970-01-01 00:00:00 UTC, sub-second precision kept.
// A plain value; what "now" is comes from Clock.
constexpr double kSecondsPerDay = 86400;

struct Date {
  double secondsSince1970 = 0;

  Date addingSeconds(double seconds) const { return Date{secondsSince1970 + seconds}; }
  // Seconds from `other` to this date; negative when this date is the earlier one.
  double secondsSince(const Date& other) const { return secondsSince1970 - other.secondsSince1970; }

  friend auto operator<=>(const Date&, const Date&) = default;
};

// "2026-03-01 12:30:00 +0000", always UTC. A date outside the years 1 to 9999 is given as its
// number of seconds.
std::string description(const Date& date);

}  // namespace tallow
