#pragma once

#include <string>

namespace tallow {

// What an administrator asks of a running service first, as one JSON text: version and instance,
// the number of open transactions, the account stores, and per client its bags with their validity,
// its jar's size and its storefront. No secret is in it. Any thread; may wait for a client's
// queues.
std::string serviceStatusText(bool isDaemon);

}  // namespace tallow
