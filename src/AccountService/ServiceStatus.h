#pragma once

#include "platform/Base/Value.h"

namespace tallow {

// What an administrator asks of a running service first: version, instance and how long it runs
// (`startedAt`: monotonic seconds), open transactions, the accounts, per client its bags with their
// validity and source, its jar's size and its storefront, the queues that wait and what has failed
// lately. No secret and no person's name is in it. Any thread; may wait for a client's queues.
Dictionary serviceStatus(bool isDaemon, double startedAt);

}  // namespace tallow
