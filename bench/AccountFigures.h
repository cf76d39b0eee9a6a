#pragma once

#include "bench/BenchBus.h"

namespace tallow::bench {

// account_query_over_ping: who is signed in, among ten accounts. Signs somebody in first.
void measureAccountQuery(Bus& bus);

}  // namespace tallow::bench
