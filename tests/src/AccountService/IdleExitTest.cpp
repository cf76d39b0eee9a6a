#include "src/AccountService/IdleExit.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>
#include <utility>

#include "platform/VendBase/HSStoreURLOperation.h"
#include "platform/XPC/XPCTransaction.h"
#include "src/CookieStorage.h"
#include "tests/src/AccountService/AccountsFixture.h"
#include "tests/support/FullDisk.h"

namespace tallow {
namespace {

// A listener whose load the test sets. Its thread is whichever asks.
class LoadedListener final : public XPCListener {
 public:
  void setDelegate(XPCListenerDelegate*) override {}
  std::optional<Error> resume() override { return std::nullopt; }
  void setStatusProvider(std::function<Dictionary()>) override {}
  void setInvalidationHandler(std::function<void()>) override {}
  void tellLoad(LoadHandler told) override { told(load); }
  void giveUpNameIf(std::function<bool(const Load&)> decide,
                    std::function<void(bool)> done) override {
    if (decide(load)) {
      hasName = false;
      // A call that came in before the bus took the name back.
      if (lateCall) lateCall();
      if (!decide(load)) hasName = !isTaken;
    }
    done(!hasName);
    if (asked) asked();
  }
  void takeNameBack(std::function<void(bool)> done) override {
    hasName = !isTaken;
    done(hasName);
  }
  bool hasServiceManager() const override { return isManaged; }
  void stop() override {}

  Load load;
  bool hasName = true;
  bool isManaged = true;
  bool isTaken = false;  // by another process, once it is given up
  std::function<void()> lateCall;
  std::function<void()> asked;  // whether to give up the name
};

class IdleExitTest : public AccountsTest {
 protected:
  // Between two looks once the name is gone; no longer, so that no timer is overdue afterwards.
  static constexpr double kLookSeconds = 0.05;

  IdleExitTest() {
    // What earlier sign-ins of this program have left open.
    while (XPCTransaction::count() > 0) XPCTransaction::end();
  }
  // Lets time pass, with what the worker pool and the loop do on the way.
  void pass(double seconds) {
    for (const double part : {seconds, 0.0, 0.0}) {
      loop.advance(part);
      ServiceWorld::settle();
    }
    loop.advance(0);
  }
  void passUntilTheNameIsGone() {
    for (int periods = 0; periods < 4 && listener.hasName; ++periods) pass(60);
    EXPECT_FALSE(listener.hasName);
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
  const auto staysWhile = [&](const char* why) {
    pass(60);
    EXPECT_TRUE(listener.hasName) << why;
    EXPECT_EQ(loop.pendingTimers(), 1u) << why;
  };
  listener.load.calls = 1;
  staysWhile("it has been called meanwhile");
  const auto callerComesAndGoes = [&] {
    listener.load.callers = 1;
    staysWhile("a caller is connected");
    listener.load.callers = 0;
    staysWhile("the caller has left only now");
  };
  callerComesAndGoes();
  XPCTransaction::begin();
  staysWhile("a transaction is open");
  XPCTransaction::end();
  world.preferences.setWritesFail(true);
  staysWhile("something is not on disk");
  world.preferences.setWritesFail(false);
  const auto operation = std::make_shared<HSStoreURLOperation>(client);
  operation->setRequest(HSURLRequest(*URL::parse("https://store.example.com/")));
  operation->setURLKnownToBeTrusted(true);
  operation->setRequiredBagType(0);
  world.transport.hold();
  HSOperationQueue::mainQueue().addOperation(operation);
  world.transport.waitForRequests(1);
  listener.asked = [this] { loop.stop(0); };
  loop.advance(60);
  loop.run();
  listener.asked = nullptr;
  loop.advance(0);
  EXPECT_TRUE(listener.hasName) << "an operation runs";
  world.transport.release();
  finishOperations();

  // Calls that come in too late to keep the name have it taken back: at once, and a little later.
  callerComesAndGoes();
  bool hasCome = false;
  listener.lateCall = [&] {
    if (!std::exchange(hasCome, true)) XPCTransaction::begin();
  };
  // A worker that has just finished may not be counted as idle yet.
  for (int periods = 0; periods < 100 && !hasCome; ++periods)
    staysWhile("somebody has signed in at the last moment");
  listener.lateCall = nullptr;
  ASSERT_TRUE(hasCome);
  XPCTransaction::end();
  passUntilTheNameIsGone();
  listener.load.callers = 1;
  pass(kLookSeconds);
  EXPECT_TRUE(listener.hasName) << "somebody knew its address";
  listener.load.callers = 0;

  passUntilTheNameIsGone();
  ++listener.load.calls;
  // A worker that has just finished may not be counted as idle yet.
  for (int looks = 0; looks < 100 && !listener.hasName; ++looks) pass(kLookSeconds);
  EXPECT_TRUE(listener.hasName) << "somebody has come and gone meanwhile";

  // What the disk has refused is tried again.
  world.preferences.setWritesFail(true);
  store()->addAccount(account(1, "a"));
  world.preferences.setWritesFail(false);
  const URL url = *URL::parse("https://store.example.com/");
  {
    const FullDisk full;
    CookieStorage::storageForClient(client)->consumeCookiesWithHTTPHeaders(
        Dictionary{{"Set-Cookie", "a=b"}}, url);
    staysWhile("a cookie is not on disk");
  }
  passUntilTheNameIsGone();
  EXPECT_FALSE(world.stored(kDefaultsKnownAccountsKey).isNil());
  const auto jar = CookieJar::open(world.directories.dataHome / "Cookies" /
                                   (client->appPreferencesDomain + ".cookies"));
  EXPECT_EQ((*jar)->cookiesForURL(url, true).size(), 1u);
  listener.load.waitingCalls = 0;
  pass(1);
  EXPECT_EQ(loop.pendingTimers(), 0u);
  EXPECT_TRUE(hasLeft());
}

TEST_F(IdleExitTest, KeepsWhatItHoldsForWhoIsConnectedWhenAnotherProcessHasTheName) {
  const IdleExit idleExit(listener, 60);
  listener.isTaken = true;
  passUntilTheNameIsGone();
  listener.load.callers = listener.load.waitingCalls = 1;
  XPCTransaction::begin();
  pass(1);
  listener.load.waitingCalls = 0;
  pass(1);
  EXPECT_EQ(loop.pendingTimers(), 1u) << "the caller's token is here";
  auto push = XPCTransaction::work();
  listener.load.callers = 0;
  pass(1);
  EXPECT_EQ(loop.pendingTimers(), 1u) << "a peer has not answered";
  push.reset();
  pass(1);
  EXPECT_TRUE(hasLeft());
  XPCTransaction::end();
}

TEST_F(IdleExitTest, WaitsForWhatIsUnderWayWhenToldToLeave) {
  IdleExit idleExit(listener, std::nullopt);
  auto push = XPCTransaction::work();
  idleExit.leaveNow();
  pass(1);
  EXPECT_EQ(loop.pendingTimers(), 1u) << "a peer has not answered";
  push.reset();
  pass(1);
  EXPECT_TRUE(hasLeft());
}

TEST_F(IdleExitTest, LeavesWhenToldToAfterAnsweringWithoutWaitingForTokens) {
  IdleExit idleExit(listener, std::nullopt);
  listener.load.callers = listener.load.waitingCalls = 1;
  XPCTransaction::begin();
  idleExit.leaveNow();
  pass(1);
  EXPECT_FALSE(listener.hasName);
  EXPECT_EQ(loop.pendingTimers(), 1u) << "a call waits";
  listener.load.waitingCalls = 0;
  pass(1);
  EXPECT_TRUE(hasLeft());
  XPCTransaction::end();
}

TEST_F(IdleExitTest, IsOffUnlessAskedForInSeconds) {
  const auto secondsFor = [](const char* text) {
    ::setenv(IdleExit::kVariable, text, 1);
    const auto seconds = IdleExit::secondsFromEnvironment();
    ::unsetenv(IdleExit::kVariable);
    return seconds;
  };
  EXPECT_EQ(secondsFor("300"), 300);
  EXPECT_EQ(secondsFor("0.5"), 0.5);
  for (const char* text : {"", "0", "-1", "5m", "inf", "never"})
    EXPECT_EQ(secondsFor(text), std::nullopt) << text;
  EXPECT_EQ(IdleExit::secondsFromEnvironment(), std::nullopt);
  EXPECT_TRUE(world.log.contains(1, "IdleExit: TALLOW_IDLE_EXIT is no number of seconds: 5m"));
}

}  // namespace
}  // namespace tallow
