#pragma once

#include "bench/BenchBus.h"

namespace tallow::bench {

// push_deliver_p50_over_ping: a push that makes the download service look for downloads, until the
// call answers. push_burst_*: ten thousand of them at once on one connection: how many were
// answered, how many reached the download service (played here), and the service's memory after
// over before.
void measurePushes(Bus& bus);

}  // namespace tallow::bench
