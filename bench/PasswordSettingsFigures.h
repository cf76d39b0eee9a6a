#pragma once

#include "bench/BenchBus.h"

namespace tallow::bench {

// password_settings_get_over_http: what reading the password settings takes a caller of the running
// service, there and back over the bus, over one bare request of the HTTP library, on a kept
// connection, to the same address.
void measurePasswordSettings(Bus& bus);

}  // namespace tallow::bench
