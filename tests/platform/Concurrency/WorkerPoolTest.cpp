#include "platform/Concurrency/WorkerPool.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <functional>
#include <future>
#include <latch>
#include <memory>
#include <thread>

namespace tallow {
namespace {

TEST(WorkerPoolTest, GrowsWhileItsThreadsAreBlockedUpToTheBound) {
  constexpr int kBound = 4;
  WorkerPool pool(kBound);
  std::latch allBlocked(kBound);
  std::promise<void> release;
  const std::shared_future<void> released = release.get_future().share();
  std::atomic<int> extra = 0;
  for (int i = 0; i < kBound; ++i) {
    pool.async([&] {
      allBlocked.count_down();
      released.wait();
    });
  }
  allBlocked.wait();  // hangs unless all of them run at once
  for (int i = 0; i < 100; ++i) pool.async([&] { ++extra; });
  EXPECT_EQ(pool.counts().threads, std::size_t{kBound});
  EXPECT_EQ(pool.counts().waiting, 100u);
  EXPECT_EQ(extra, 0);
  release.set_value();
  pool.waitUntilIdle();
  EXPECT_EQ(extra, 100);
}

TEST(WorkerPoolTest, WaitsForWorkThatWorkSubmitsAlsoAtItsEnd) {
  std::atomic<int> ran = 0;
  auto owner = std::make_unique<WorkerPool>(3);
  WorkerPool& pool = *owner;
  std::function<void(int)> spread = [&](int depth) {
    ++ran;
    if (depth == 0) return;
    for (int i = 0; i < 3; ++i) pool.async([&, depth] { spread(depth - 1); });
  };
  pool.async([&] { spread(6); });
  pool.waitUntilIdle();
  EXPECT_EQ(ran, (2187 - 1) / 2);
  pool.async([&] { spread(6); });
  owner.reset();
  EXPECT_EQ(ran, 2187 - 1);
}

TEST(WorkerPoolTest, UsesAnIdleThreadBeforeMakingOne) {
  WorkerPool pool(8, 3600);
  for (int i = 0; i < 50; ++i) {
    std::promise<void> done;
    pool.async([&] { done.set_value(); });
    done.get_future().wait();
    while (pool.counts().idle == 0) std::this_thread::yield();
  }
  EXPECT_EQ(pool.counts().threads, 1u);
}

// Tells when the thread that made it ends.
struct EndOfThread {
  std::promise<void>* ended = nullptr;
  ~EndOfThread() {
    if (ended != nullptr) ended->set_value();
  }
};

TEST(WorkerPoolTest, IdleThreadsLeaveAndNewOnesCome) {
  WorkerPool pool(2, 0.001);
  for (int round = 0; round < 3; ++round) {
    std::promise<void> ended;
    pool.async([&] {
      thread_local EndOfThread atEnd;
      atEnd.ended = &ended;
    });
    ended.get_future().wait();
    EXPECT_EQ(pool.counts().threads, 0u);
  }
}

TEST(WorkerPoolTest, ThreadsLeaveSignalsToTheMainThread) {
  WorkerPool pool(1);
  sigset_t mask;
  pool.async([&] { pthread_sigmask(SIG_BLOCK, nullptr, &mask); });
  pool.waitUntilIdle();
  EXPECT_TRUE(sigismember(&mask, SIGTERM));
  EXPECT_TRUE(sigismember(&mask, SIGHUP));
  EXPECT_FALSE(sigismember(&mask, SIGSEGV));
}

}  // namespace
}  // namespace tallow
