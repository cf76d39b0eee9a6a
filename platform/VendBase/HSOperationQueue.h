#pragma once

#include <cstddef>
#include <memory>

#include "platform/VendBase/HSOperation.h"

namespace tallow {

// Runs operations off the caller's thread, several at once, a bounded number; the rest wait in
// order. Keeps each operation alive until it has finished. Any thread may add.
class HSOperationQueue {
 public:
  static HSOperationQueue& mainQueue();

  explicit HSOperationQueue(std::size_t maxConcurrent);
  ~HSOperationQueue();

  void addOperation(std::shared_ptr<HSOperation> operation);
  // Operations that run or wait, for status reports and idle exit.
  std::size_t operationCount() const;
  // Returns once nothing runs and nothing waits (tests).
  void waitUntilAllOperationsAreFinished();

 private:
  struct State;
  std::shared_ptr<State> _state;
};

}  // namespace tallow
