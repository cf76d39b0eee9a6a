#pragma once

#include <cstddef>
#include <memory>

#include "platform/VendBase/HSOperation.h"

namespace tallow {

// Runs operations off the caller's thread, several at once, a bounded number; the rest wait in
// order. Where too many of one store client wait, the next fails (ServiceUnavailable). Keeps each
// operation alive until it has finished. Any thread may add.
class HSOperationQueue {
 private:
  struct State;

 public:
  static constexpr std::size_t kMaxWaitingOfOneClient = 1024;

  static HSOperationQueue& mainQueue();

  explicit HSOperationQueue(std::size_t maxConcurrent);
  // Of one store client, no more than `maxOfOneClient` at once: later operations of others pass.
  HSOperationQueue(std::size_t maxConcurrent, std::size_t maxOfOneClient);
  ~HSOperationQueue();

  void addOperation(std::shared_ptr<HSOperation> operation);
  // Operations that run or wait, for status reports and idle exit.
  std::size_t operationCount() const;
  // Lets the next operation run in place of the one that this thread runs, while it lives: for
  // waits that may take minutes. Does nothing on a thread that no queue uses. Not nested.
  class GivingWay {
   public:
    GivingWay();
    ~GivingWay();
    GivingWay(const GivingWay&) = delete;
    GivingWay& operator=(const GivingWay&) = delete;

   private:
    std::shared_ptr<State> _state;
  };
  // Returns once nothing runs and nothing waits (tests).
  void waitUntilAllOperationsAreFinished();

 private:
  std::shared_ptr<State> _state;
};

}  // namespace tallow
