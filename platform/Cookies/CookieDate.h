#pragma once

#include <optional>
#include <string_view>

#include "platform/Base/Date.h"

namespace tallow {

// A date as servers write it in Expires, read by the lenient algorithm of RFC 6265 section 5.1.1:
// time, day, month and year in any order, any delimiters, two-digit years, everything else
// (weekday, time zone) ignored; always UTC. nullopt when a part is missing or out of range, or when
// the calendar has no such day.
std::optional<Date> parseCookieDate(std::string_view text);

}  // namespace tallow
