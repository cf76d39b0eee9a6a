#pragma once

#include "bench/BenchBus.h"

namespace tallow::bench {

// identity_headers_p50_over_ping: a header answer with both sets of machine-identity headers. The
// machine has to be provisioned, which scripts/bench sees to.
void measureIdentityHeaders(Bus& bus);

}  // namespace tallow::bench
