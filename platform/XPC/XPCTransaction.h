#pragma once

#include <cstdint>
#include <memory>

namespace tallow {

// The process's open transactions: while there is one, the process is not to be ended for being
// idle. A plain count, begun and ended by whoever holds something that would be lost. Any thread.
class XPCTransaction {
 public:
  static void begin();
  // One that ends with its last reference.
  static std::shared_ptr<void> hold();
  // The same for what is under way and ends by itself before long: a process that is told to end
  // gives it some time.
  static std::shared_ptr<void> work();
  // To end more than have begun is a programmer error and aborts.
  static void end();
  static std::int64_t count();
  // Those of work().
  static std::int64_t workCount();
};

}  // namespace tallow
