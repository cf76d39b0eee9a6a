#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <thread>

#include "platform/Concurrency/WorkerPool.h"
#include "tests/platform/VendBase/StoreRequestFixture.h"

namespace tallow {
namespace {

// What takes time, fails for a while, blocks or is interrupted.
using HSStoreURLOperationTimeTest = StoreRequestFixture;

TEST_F(HSStoreURLOperationTimeTest, HasOneDeadlineForTheWholeRun) {
  const auto slowRedirect = [&](double seconds) {
    _transport.enqueue([this, seconds](const HTTPRequest& request) {
      _clock.advance(seconds);
      return ScriptedTransport::response(request, 302, {{"Location", "/again"}});
    });
  };
  slowRedirect(10);
  slowRedirect(5);
  EXPECT_EQ(runForTransportError(*baglessOperationFor("https://store.example/")),
            HTTPTransport::kTimedOut);
  ASSERT_EQ(_transport.requests().size(), 2u) << "no request goes out without time left";
  EXPECT_EQ(sent(0).connectTimeoutSeconds, 5);
  EXPECT_EQ(sent(0).totalTimeoutSeconds, 15);
  EXPECT_EQ(sent(1).totalTimeoutSeconds, 5);
  EXPECT_EQ(sent(0).maxBodyBytes, 16u << 20);

  respond(200);
  respond(200);
  EXPECT_EQ(run(*operationFor("https://store.example/")), 0);
  EXPECT_EQ(sent(2).totalTimeoutSeconds, 60);
  const auto patient = baglessOperationFor("https://store.example/");
  patient->setTotalTimeoutSeconds(90);
  EXPECT_EQ(run(*patient), 0);
  EXPECT_EQ(sent(3).totalTimeoutSeconds, 90);
}

TEST_F(HSStoreURLOperationTimeTest, RetriesWithGrowingJitteredPauses) {
  const auto retrying = [&] {
    auto operation = operationFor("https://store.example/");
    operation->setShouldRetryOnNetworkError(true);
    return operation;
  };
  fail(HTTPTransport::kConnectionLost);
  fail(HTTPTransport::kTimedOut);
  respond(200);
  EXPECT_EQ(run(*retrying()), 0);
  EXPECT_EQ(_runLoop.pauses, (std::vector<double>{0.5, 1}));
  EXPECT_EQ(sent(2).totalTimeoutSeconds, 58.5);

  _runLoop.pauses.clear();
  _random.byte = 0xff;
  for (int i = 0; i < 3; ++i) fail(HTTPTransport::kCannotConnect);
  EXPECT_EQ(runForTransportError(*retrying()), HTTPTransport::kCannotConnect);
  EXPECT_EQ(_transport.requests().size(), 6u) << "three tries in all";
  ASSERT_EQ(_runLoop.pauses.size(), 2u);
  EXPECT_NEAR(_runLoop.pauses[0], 1, 0.01);
  EXPECT_NEAR(_runLoop.pauses[1], 2, 0.01);
}

TEST_F(HSStoreURLOperationTimeTest, RetriesOnlyWhatARepeatCannotHarm) {
  const auto tries = [&](HTTPTransport::ErrorCode code, const char* method, bool asked = true,
                         double seconds = 60) {
    const std::size_t before = _transport.requests().size();
    _transport.setHandler(ScriptedTransport::fail(code));
    const auto operation = operationFor("https://store.example/");
    HSURLRequest request = operation->request();
    request.method = method;
    operation->setRequest(request);
    operation->setShouldRetryOnNetworkError(asked);
    operation->setTotalTimeoutSeconds(seconds);
    EXPECT_EQ(runForTransportError(*operation), code);
    return _transport.requests().size() - before;
  };
  EXPECT_EQ(tries(HTTPTransport::kConnectionLost, "GET"), 3u);
  EXPECT_EQ(tries(HTTPTransport::kConnectionLost, "GET", false), 1u);
  EXPECT_EQ(tries(HTTPTransport::kConnectionLost, "POST"), 1u);
  EXPECT_EQ(tries(HTTPTransport::kTimedOut, "POST"), 1u);
  EXPECT_EQ(tries(HTTPTransport::kCannotConnect, "POST"), 3u);
  EXPECT_EQ(tries(HTTPTransport::kTLS, "GET"), 1u);
  EXPECT_EQ(tries(HTTPTransport::kBodyTooLarge, "GET"), 1u);
  EXPECT_EQ(tries(HTTPTransport::kConnectionLost, "GET", true, 1), 2u)
      << "a pause that would use up the time is not waited for";
}

TEST_F(HSStoreURLOperationTimeTest, TakesAResponseInBeforeItGoesOn) {
  std::atomic<bool> cookiesTaken = false;
  _service->onCall = [&](const std::string& call) {
    if (call != "consumeCookiesWithHTTPHeaders") return;
    // Long enough for a run that does not wait to overtake.
    for (int i = 0; i < 100; ++i) std::this_thread::yield();
    cookiesTaken = true;
  };
  respond(200, {{"X-Set-Vantor-Store-Front", "7"}}, "body");
  const auto operation = operationFor("https://store.example/");
  operation->setOutputHandler([&](auto&, const auto&) {
    EXPECT_TRUE(cookiesTaken);
    EXPECT_EQ(_service->storeFrontsSet().size(), 1u);
  });
  EXPECT_EQ(run(*operation), 0);
}

// A reload under a registry's lock: taking cookies in needs that lock, which this very thread
// holds. The load must finish, follow its redirect with headers asked for anew, and have handed in
// everything, in order, for when the lock is free.
TEST_F(HSStoreURLOperationTimeTest, DoesNotWaitForAnIntakeThatItBlocksItself) {
  std::mutex registryLock;
  _service->onCall = [&](const std::string& call) {
    if (call == "consumeCookiesWithHTTPHeaders") const std::lock_guard guard(registryLock);
  };
  respond(302, {{"Location", "/b"}, {"Set-Cookie", "a=1"}});
  respond(200, {{"Set-Cookie", "a=2"}, {"X-Set-Vantor-Store-Front", "7"}});
  const auto operation = baglessOperationFor("https://store.example/a");
  operation->setWaitsForResponseIntake(false);
  operation->setTotalTimeoutSeconds(3600);  // a wait would not end before the test's own time
  {
    const std::lock_guard guard(registryLock);
    EXPECT_EQ(run(*operation), 0);
    EXPECT_TRUE(_service->consumed().empty());
    EXPECT_EQ(_service->headerQuestions().size(), 2u);
  }
  WorkerPool::shared().waitUntilIdle();
  const auto consumed = _service->consumed();
  ASSERT_EQ(consumed.size(), 2u);
  EXPECT_EQ(consumed[0].headers["Set-Cookie"], Value("a=1"));
  EXPECT_EQ(consumed[1].headers["Set-Cookie"], Value("a=2"));
  EXPECT_EQ(_service->storeFrontID(), "7");
}

TEST_F(HSStoreURLOperationTimeTest, CancelEndsWhateverItWaitsFor) {
  const auto expectCancelled = [&](const std::function<void()>& waitUntilItWaits) {
    const auto operation = operationFor("https://store.example/");
    operation->setShouldRetryOnNetworkError(true);
    std::thread canceller([&] {
      waitUntilItWaits();
      operation->cancel();
    });
    EXPECT_EQ(run(*operation), kHSErrorCancelled);
    canceller.join();
  };
  std::promise<void> asked, release;
  _service->onCall = [&](const std::string&) {
    asked.set_value();
    release.get_future().wait();
  };
  expectCancelled([&] { asked.get_future().wait(); });
  release.set_value();
  WorkerPool::shared().waitUntilIdle();  // the service is still on its way out of the call
  EXPECT_TRUE(_transport.requests().empty());
  _service->onCall = nullptr;

  fail(HTTPTransport::kConnectionLost);
  std::promise<void> pausing;
  _runLoop.onTimer = [&] { pausing.set_value(); };
  expectCancelled([&] { pausing.get_future().wait(); });
  EXPECT_EQ(_transport.requests().size(), 1u);

  _transport.hold();
  expectCancelled([&] { _transport.waitForRequests(2); });
  EXPECT_EQ(_transport.requests().size(), 2u);
}

TEST_F(HSStoreURLOperationTimeTest, CancelledDuringTheIntakeHasNoOutput) {
  respond(200, {}, "body");
  const auto operation = operationFor("https://store.example/");
  _service->onCall = [&](const std::string& call) {
    if (call == "consumeCookiesWithHTTPHeaders") operation->cancel();
  };
  operation->setOutputHandler([](auto&, const auto&) { FAIL() << "was not taken in first"; });
  EXPECT_EQ(run(*operation), kHSErrorCancelled);
  WorkerPool::shared().waitUntilIdle();
}

TEST_F(HSStoreURLOperationTimeTest, TakesALateResponseInAllTheSame) {
  _transport.enqueue([this](const HTTPRequest& request) {
    _clock.advance(60);
    return ScriptedTransport::response(request, 200, {{"X-Set-Vantor-Store-Front", "7"}}, "body");
  });
  const auto operation = operationFor("https://store.example/");
  operation->setOutputHandler(
      [&](auto&, const auto&) { EXPECT_EQ(_service->storeFrontID(), "7"); });
  EXPECT_EQ(run(*operation), 0);
}

}  // namespace
}  // namespace tallow
