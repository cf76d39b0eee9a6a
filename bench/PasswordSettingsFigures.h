#pragma once

#include "bench/BenchBus.h"

namespace tallow::bench {

// password_settings_get_over_http: reading the password settings through the running service, over
// one bare request of the HTTP library, on a kept connection, to the same address.
void measurePasswordSettings(Bus& bus);

}  // namespace tallow::bench
