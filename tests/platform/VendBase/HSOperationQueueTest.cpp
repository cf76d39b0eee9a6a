#include "platform/VendBase/HSOperationQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <mutex>
#include <vector>

namespace tallow {
namespace {

class BlockOperation : public HSOperation {
 public:
  explicit BlockOperation(std::function<void()> block)
      : HSOperation(nullptr), _block(std::move(block)) {}

 protected:
  void run() override { _block(); }

 private:
  std::function<void()> _block;
};

TEST(HSOperationQueue, RunsASerialLineInOrderAndLetsGo) {
  HSOperationQueue queue(1);
  std::vector<int> order;  // written by one operation at a time
  std::weak_ptr<HSOperation> weak;
  for (int i = 0; i < 200; ++i) {
    auto operation = std::make_shared<BlockOperation>([&order, i] { order.push_back(i); });
    weak = operation;
    queue.addOperation(std::move(operation));
  }
  queue.waitUntilAllOperationsAreFinished();
  ASSERT_EQ(order.size(), 200u);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
  EXPECT_EQ(queue.operationCount(), 0u);
  EXPECT_TRUE(weak.expired());
}

TEST(HSOperationQueue, RunsSeveralAtOnceUpToItsBound) {
  constexpr int kBound = 3;
  HSOperationQueue queue(kBound);
  std::atomic<int> running = 0, most = 0;
  std::latch together(kBound), release(1);
  for (int i = 0; i < 4 * kBound; ++i) {
    queue.addOperation(std::make_shared<BlockOperation>([&, i] {
      const int now = ++running;
      for (int seen = most; seen < now && !most.compare_exchange_weak(seen, now);) {
      }
      if (i < kBound) together.count_down();
      release.wait();
      --running;
    }));
  }
  together.wait();  // the first three are inside at the same time
  EXPECT_EQ(queue.operationCount(), 4u * kBound);
  release.count_down();
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(most, kBound);
}

TEST(HSOperationQueue, MayGoAwayWhileItsOperationsWait) {
  std::latch done(20);
  {
    HSOperationQueue queue(2);
    for (int i = 0; i < 20; ++i)
      queue.addOperation(std::make_shared<BlockOperation>([&] { done.count_down(); }));
  }
  done.wait();
}

}  // namespace
}  // namespace tallow
