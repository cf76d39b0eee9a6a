#include "platform/Concurrency/SerialQueue.h"

#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "platform/Base/SharedInstance.h"
#include "platform/Concurrency/WorkerPool.h"
#include "tests/support/ManyThreads.h"

namespace tallow {
namespace {

using ::testing::ElementsAre;

// Keeps a queue's turn until released, so that a test can line up what comes after.
class HeldTurn {
 public:
  explicit HeldTurn(SerialQueue& queue) {
    queue.async([this] {
      _entered.set_value();
      _release.get_future().wait();
    });
    _entered.get_future().wait();
  }
  void release() { _release.set_value(); }

 private:
  std::promise<void> _entered, _release;
};

void waitForDepth(const char* label, std::size_t depth) {
  while (SerialQueue::busyQueues()[label] < depth) std::this_thread::yield();
}

TEST(SerialQueueTest, RunsEverythingInTheOrderOfSubmission) {
  SerialQueue queue("order");
  HeldTurn turn(queue);
  std::vector<int> order;
  queue.async([&] { order.push_back(1); });
  std::thread second([&] { queue.sync([&] { order.push_back(2); }); });
  waitForDepth("order", 3);
  queue.async([&] { order.push_back(3); });
  std::thread fourth([&] { queue.sync([&] { order.push_back(4); }); });
  waitForDepth("order", 5);
  turn.release();
  queue.sync([&] { order.push_back(5); });
  second.join();
  fourth.join();
  EXPECT_THAT(order, ElementsAre(1, 2, 3, 4, 5));
  EXPECT_EQ(SerialQueue::busyQueues().count("order"), 0u);
}

TEST(SerialQueueTest, SyncRunsOnTheCallingThreadAndReturnsTheResult) {
  SerialQueue queue("sync");
  const auto self = std::this_thread::get_id();
  EXPECT_EQ(queue.sync([] { return std::this_thread::get_id(); }), self);
  std::promise<std::thread::id> other;
  queue.async([&] { other.set_value(std::this_thread::get_id()); });
  EXPECT_NE(other.get_future().get(), self);
}

// Many threads, both ways in, more blocks than one batch: a plain counter stays exact.
TEST(SerialQueueTest, ExcludesUnderContention) {
  constexpr int kThreads = 8, kRounds = 500;
  SerialQueue queue("contention");
  std::int64_t counter = 0, tried = 0;
  onManyThreads(kThreads, [&](int) {
    for (int round = 0; round < kRounds; ++round) {
      queue.async([&] { ++counter; });
      queue.sync([&] { ++counter; });
      queue.trySync([&] { ++tried; });
    }
  });
  EXPECT_EQ(queue.sync([&] { return counter; }), 2 * kThreads * kRounds);
  EXPECT_LE(tried, kThreads * kRounds);
}

TEST(SerialQueueTest, TrySyncTakesOnlyAnIdleQueue) {
  SerialQueue queue("try");
  bool ran = false;
  EXPECT_TRUE(queue.trySync([&] {
    ran = true;
    EXPECT_FALSE(queue.trySync([] { FAIL(); }));  // already inside
  }));
  EXPECT_TRUE(ran);
  HeldTurn turn(queue);
  EXPECT_FALSE(queue.trySync([] { FAIL(); }));
  queue.async([] {});
  EXPECT_FALSE(queue.trySync([] { FAIL(); }));
  turn.release();
  queue.sync([] {});
  EXPECT_TRUE(queue.trySync([] {}));
}

TEST(SerialQueueDeathTest, AbortsWithTheLabelWhenEnteredTwice) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  SerialQueue queue("Bag Serial Access Queue");
  EXPECT_DEATH(queue.sync([&] { queue.sync([] {}); }), "\"Bag Serial Access Queue\"");
  EXPECT_DEATH(
      {
        queue.async([&] { queue.sync([] {}); });
        WorkerPool::shared().waitUntilIdle();
      },
      "\"Bag Serial Access Queue\"");
}

TEST(SerialQueueTest, WaitingBlocksOutliveTheQueueObject) {
  std::promise<void> ran;
  auto queue = std::make_optional<SerialQueue>("short-lived");
  HeldTurn turn(*queue);
  queue->async([&] { ran.set_value(); });
  queue.reset();
  turn.release();
  ran.get_future().wait();
  // The last block may hold the queue itself.
  auto owner = std::make_shared<SerialQueue>("self");
  std::promise<void> released;
  owner->async([owner, signal = std::shared_ptr<void>(nullptr, [&](void*) {
                         released.set_value();
                       })]() mutable { owner.reset(); });
  owner.reset();
  released.get_future().wait();
}

TEST(SerialQueueTest, ReleasesWhatABlockHeldInsideItsTurn) {
  SerialQueue queue("release");
  bool wasInside = false;
  auto held = std::shared_ptr<void>(nullptr, [&](void*) { wasInside = !queue.trySync([] {}); });
  queue.async([held = std::move(held)] {});
  queue.sync([] {});
  EXPECT_TRUE(wasInside);
}

// One queue's endless stream of blocks does not keep the only thread for itself.
TEST(SerialQueueTest, ABusyQueueLeavesThePoolToOthers) {
  WorkerPool pool(1);
  const ScopedShared<WorkerPool> scope(pool);
  SerialQueue busy("busy"), other("other");
  std::atomic<bool> otherRan = false;
  std::function<void()> again = [&] {
    if (!otherRan) busy.async(again);
  };
  busy.async(again);
  other.async([&] { otherRan = true; });
  pool.waitUntilIdle();
  EXPECT_TRUE(otherRan);
}

}  // namespace
}  // namespace tallow
