#include "platform/Concurrency/RunLoop.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/Concurrency/ManualRunLoop.h"
#include "platform/Concurrency/SystemRunLoop.h"

namespace tallow {
namespace {

using ::testing::ElementsAre;

struct SystemLoop {
  SystemRunLoop loop;
};
struct ManualLoop {
  ManualClock clock{Date{0}};
  ManualRunLoop loop{clock};
};

// What every run loop does.
template <class Fixture>
class RunLoopTest : public ::testing::Test {
 protected:
  RunLoop& loop() { return _fixture.loop; }

 private:
  Fixture _fixture;
};
using RunLoops = ::testing::Types<SystemLoop, ManualLoop>;
TYPED_TEST_SUITE(RunLoopTest, RunLoops);

TYPED_TEST(RunLoopTest, RunsPostedBlocksInOrderUntilStopped) {
  RunLoop& loop = this->loop();
  std::vector<int> order;
  loop.post([&] {
    order.push_back(1);
    loop.post([&] { order.push_back(3); });
    loop.post([&] { loop.stop(7); });
  });
  loop.post([&] { order.push_back(2); });
  EXPECT_EQ(loop.run(), 7);
  EXPECT_THAT(order, ElementsAre(1, 2, 3));
  // It can run again; a stop that came first counts, after what was posted before it.
  loop.post([&] { order.push_back(4); });
  loop.stop(8);
  loop.post([&] { order.push_back(5); });
  EXPECT_EQ(loop.run(), 8);
  EXPECT_THAT(order, ElementsAre(1, 2, 3, 4));
  loop.stop(9);
  EXPECT_EQ(loop.run(), 9);
  EXPECT_THAT(order, ElementsAre(1, 2, 3, 4, 5));
}

TYPED_TEST(RunLoopTest, FiresTimersOnceInOrderOfTheirTime) {
  RunLoop& loop = this->loop();
  std::vector<int> order;
  const auto late = loop.addTimer(0.06, [&] {
    order.push_back(3);
    loop.stop(0);
  });
  const auto soon = loop.addTimer(0.03, [&] { order.push_back(2); });
  const auto past = loop.addTimer(-5, [&] { order.push_back(1); });
  const auto never = loop.addTimer(1e300, [] { FAIL(); });
  EXPECT_TRUE(soon->isValid());
  loop.run();
  EXPECT_THAT(order, ElementsAre(1, 2, 3));
  EXPECT_FALSE(past->isValid() || soon->isValid() || late->isValid());
  EXPECT_TRUE(never->isValid());
}

TYPED_TEST(RunLoopTest, AnInvalidatedTimerNeverStartsAndLetsGo) {
  RunLoop& loop = this->loop();
  auto held = std::make_shared<int>();
  const std::weak_ptr<int> watched = held;
  const auto timer = loop.addTimer(0.01, [held = std::move(held)] { FAIL(); });
  // Invalidated by a block of the loop that runs when both are due.
  std::shared_ptr<RunLoop::Timer> second;
  loop.addTimer(0.01, [&] { second->invalidate(); });
  second = loop.addTimer(0.011, [] { FAIL(); });
  loop.addTimer(0.05, [&] { loop.stop(0); });
  timer->invalidate();
  EXPECT_FALSE(timer->isValid());
  EXPECT_TRUE(watched.expired());
  loop.run();
  timer->invalidate();  // again is nothing
}

// A timer that nobody keeps still fires; one may add the next from its own block.
TYPED_TEST(RunLoopTest, TimersLiveWithoutTheirHandle) {
  RunLoop& loop = this->loop();
  int count = 0;
  std::function<void()> again = [&] {
    if (++count == 5) return loop.stop(0);
    loop.addTimer(0.001, again);
  };
  loop.addTimer(0, again);
  loop.run();
  EXPECT_EQ(count, 5);
}

TYPED_TEST(RunLoopTest, TakesBlocksAndTimersFromManyThreads) {
  constexpr int kThreads = 4, kRounds = 200;
  RunLoop& loop = this->loop();
  std::atomic<int> left = kThreads * (2 * kRounds + 1);
  const auto ran = [&] {
    if (--left == 0) loop.stop(0);
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        loop.post(ran);
        loop.addTimer(0.001, ran);
        // It may just be running, but it does not start any more.
        std::atomic<int> fired = 0;
        const auto raced = loop.addTimer(0, [&fired] { ++fired; });
        raced->invalidate();
        std::promise<void> after;
        loop.post([&] { after.set_value(); });
        after.get_future().wait();  // the block, if it had started, has ended
      }
      loop.post(ran);  // so that the loop ends when nobody waits for it any more
    });
  }
  loop.run();
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(left, 0);
}

TYPED_TEST(RunLoopTest, TellsWhatHappensToADescriptorUntilItFails) {
  RunLoop& loop = this->loop();
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  std::string heard;
  loop.onEvents(ends[0], EPOLLIN, [&] {
    char letter = 0;
    ASSERT_EQ(read(ends[0], &letter, 1), 1);
    heard += letter;
    if (letter == 'b') close(ends[1]);
    loop.stop(0);
  });
  for (const char letter : {'a', 'b'}) {
    ASSERT_EQ(write(ends[1], &letter, 1), 1);
    loop.run();
  }
  loop.addTimer(0.01, [&] { loop.stop(1); });
  EXPECT_EQ(loop.run(), 1);
  EXPECT_EQ(heard, "ab");
  close(ends[0]);
}

TEST(SystemRunLoopTest, BringsSignalsToTheLoop) {
  SystemRunLoop loop;
  std::vector<int> arrived;
  loop.onSignal(SIGUSR1, [&] {
    arrived.push_back(SIGUSR1);
    kill(getpid(), SIGUSR2);
  });
  loop.onSignal(SIGUSR2, [] { FAIL() << "replaced by the next"; });
  loop.onSignal(SIGUSR2, [&] {
    arrived.push_back(SIGUSR2);
    if (arrived.size() == 4) return loop.stop(0);
    kill(getpid(), SIGUSR1);
  });
  kill(getpid(), SIGUSR1);
  loop.run();
  EXPECT_THAT(arrived, ElementsAre(SIGUSR1, SIGUSR2, SIGUSR1, SIGUSR2));
}

TEST(SystemRunLoopTest, ATimerMayOutliveItsLoop) {
  std::shared_ptr<RunLoop::Timer> timer;
  {
    SystemRunLoop loop;
    timer = loop.addTimer(0, [] { FAIL(); });
  }
  timer->invalidate();
  EXPECT_FALSE(timer->isValid());
}

TEST(RunLoopDeathTest, TheMainLoopRunsOnTheMainThreadOnly) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(std::thread([] { RunLoop::main().run(); }).join(), "another thread");
}

}  // namespace
}  // namespace tallow
