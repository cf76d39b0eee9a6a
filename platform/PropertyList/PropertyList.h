#pragma once

#include <cstddef>

#include "platform/Base/Result.h"

namespace tallow {

// Property lists, XML and binary. Error domain "PropertyList".
namespace PropertyList {

enum class Format { XML, Binary };

// Decodes either format (recognised by its first bytes). Refused, with an error and bounded work:
// more than `maxBytes`, more than two million values or 64 MiB of unfolded text and data, nesting
// deeper than kMaxDepth, cycles and shared-object bombs of binary lists, anything before or after
// the list, keys that are no strings, null, UIDs and sets, strings with NUL or malformed UTF-8,
// numbers and dates that are none, entity declarations. Of equal keys the last counts.
inline constexpr std::size_t kMaxDepth = 512;
inline constexpr std::size_t kMaxBytes = std::size_t{16} << 20;
Result<Value> decode(const Data& bytes, std::size_t maxBytes = kMaxBytes);

// Never fails: what a format cannot carry is written as the nearest that it can. In both, malformed
// UTF-8 and NUL become U+FFFD; in XML, so do other control characters, and dates lose the fraction
// of their second and stay within the years 1000 to 9999. Everything else round-trips.
// To encode nil is a programmer error and aborts.
Data encode(const Value& value, Format format);

// How many arrays and dictionaries are nested in one another; 0 for a value that is neither.
std::size_t depth(const Value& value);

}  // namespace PropertyList

}  // namespace tallow
