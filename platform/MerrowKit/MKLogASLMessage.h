#pragma once

#include <string>

#include "platform/Base/Value.h"

namespace tallow {

// Tells whoever gathers such things that an event has happened. Goes where the log goes, whatever
// the log's threshold: to the journal with a field TALLOW_EVENT for the name and one
// TALLOW_EVENT_NAME for each argument. Any thread; returns at once.
void MKLogASLMessage(const std::string& event, const Dictionary& arguments);

}  // namespace tallow
