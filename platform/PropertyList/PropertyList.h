#pragma once

#include <cstddef>

#include "platform/Base/Result.h"

namespace tallow {

// Property lists, XML and binary. Error domain "PropertyList".
namespace PropertyList {

enum class Format { XML, Binary };

// Decodes either format (recognised by its first bytes). Refused, with an error and bounded work:
// more than `maxBytes`, nesting deeper than kMaxDepth, cycles and shared-object bombs of binary
// lists, trailing garbage, non-string keys, UIDs.
inline constexpr std::size_t kMaxDepth = 512;
Result<Value> decode(const Data& bytes, std::size_t maxBytes = 16u << 20);

// Never fails for a value: nil entries cannot occur, dates and large unsigned integers round-trip.
// A nil `value` encodes as an empty dictionary's absence: it is a programmer error and aborts.
Data encode(const Value& value, Format format);

}  // namespace PropertyList

}  // namespace tallow
