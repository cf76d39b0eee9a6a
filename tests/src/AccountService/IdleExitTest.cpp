#include "src/AccountService/IdleExit.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

#include "platform/XPC/XPCTransaction.h"
#include "tests/src/AccountService/AccountsFixture.h"

namespace tallow {
namespace {

// A listener whose load the test sets. Its thread is whichever asks.
class LoadedListener final : public XPCListener {
 public:
  void setDelegate(XPCListenerDelegate*) override {}
  std::optional<Error> resume() override { return std::nullopt; }
  void setStatusProvider(std::function<std::string()>) override {}
  void setInvalidationHandler(std::function<void()>) override {}
  void tellLoad(LoadHandler told) override { told(load); }
  void giveUpNameIf(std::function<bool(const Load&)> decide,
                    std::function<void(bool)> done) override {
    const bool givesUp = decide(load);
    hasName = hasName && !givesUp;
    // A call that came in before the bus took the name back.
    if (givesUp && lateCall) lateCall();
    done(givesUp);
  }
  void stop() override {}

  Load load;
  bool hasName = true;
  std::function<void()> lateCall;
};

class IdleExitTest : public AccountsTest {
 protected:
  IdleExitTest() {
    // What earlier sign-ins of this program have left open.
    while (XPCTransaction::count() > 0) XPCTransaction::end();
  }
  // Whether the main run loop has been stopped: a stop ends the next run at once.
  bool hasLeft() {
    loop.post([this] { loop.stop(-1); });
    return loop.run() == IdleExit::kLeft;
  }

  LoadedListener listener;
};

TEST_F(IdleExitTest, LeavesOnlyWhenNobodyNeedsTheService) {
  const IdleExit idleExit(listener, 60);
  const auto waits = [&](const char* why) {
    ServiceWorld::settle();
    loop.advance(60);
    EXPECT_TRUE(listener.hasName) << why;
  };
  listener.load.calls = 1;
  waits("it has been called meanwhile");
  listener.load.callers = 1;
  waits("a caller is connected");
  listener.load.callers = 0;
  XPCTransaction::begin();
  waits("a transaction is open");
  XPCTransaction::end();
  // The last call has come in too late to keep the name; it is answered all the same, and what it
  // has begun is waited for.
  listener.lateCall = [&] {
    listener.load.waitingCalls = 1;
    XPCTransaction::begin();
  };
  loop.advance(60);
  EXPECT_FALSE(listener.hasName);
  loop.advance(10);
  EXPECT_EQ(loop.pendingTimers(), 1u) << "a call waits";
  listener.load.waitingCalls = 0;
  loop.advance(10);
  EXPECT_EQ(loop.pendingTimers(), 1u) << "a transaction is open";
  XPCTransaction::end();
  loop.advance(1);
  EXPECT_EQ(loop.pendingTimers(), 0u);
  EXPECT_TRUE(hasLeft());
}

TEST_F(IdleExitTest, IsOffUnlessAskedForInSeconds) {
  struct {
    const char* text;
    std::optional<double> seconds;
  } const cases[] = {{"", {}},   {"0", {}},  {"300", 300}, {"0.5", 0.5},
                     {"-1", {}}, {"5m", {}}, {"inf", {}},  {"never", {}}};
  for (const auto& [text, seconds] : cases) {
    ::setenv(IdleExit::kVariable, text, 1);
    EXPECT_EQ(IdleExit::secondsFromEnvironment(), seconds) << text;
  }
  ::unsetenv(IdleExit::kVariable);
  EXPECT_EQ(IdleExit::secondsFromEnvironment(), std::nullopt);
  EXPECT_TRUE(world.log.contains(1, "IdleExit: TALLOW_IDLE_EXIT is no number of seconds: 5m"));
}

}  // namespace
}  // namespace tallow
