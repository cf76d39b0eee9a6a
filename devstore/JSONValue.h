#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>

#include "platform/Base/Value.h"

namespace tallow::devstore {

// Property-list values as JSON and back. What JSON has no type for is written {"$data": BASE64} and
// {"$date": SECONDS SINCE 1970-01-01 UTC}. Callable from any thread.
nlohmann::json jsonFromValue(const Value& value);
// nullopt for null, for a malformed "$data" or "$date", and for nesting deeper than a property list
// may be.
std::optional<Value> valueFromJSON(const nlohmann::json& json);

}  // namespace tallow::devstore
