#pragma once

#include "tools/tallowctl/Findings.h"

namespace tallow::ctl {

// Asks every bootstrap address of the described clients, each once and all at the same time, for at
// most ten seconds: whether it answers, and whether its idea of the time is the machine's. Sends
// nothing that tells who asks.
void checkStores(Findings& findings);

}  // namespace tallow::ctl
