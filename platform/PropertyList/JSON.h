#pragma once

#include <string>
#include <string_view>

#include "platform/Base/Result.h"

namespace tallow {

// JSON (RFC 8259). Error domain "JSON".
namespace JSON {

// Refused: more than 16 MiB, nesting deeper than PropertyList::kMaxDepth, anything after the value.
// null has no place in a property list: inside arrays and dictionaries it is left out.
Result<Value> decode(std::string_view text);

// Data becomes base64 text, a date its ISO 8601 text. 64-bit integers are written in full.
// Malformed UTF-8 is replaced. `indented` for people.
std::string encode(const Value& value, bool indented = false);

}  // namespace JSON

}  // namespace tallow
