#include "platform/VendBase/HSStoreURLOperation.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <set>
#include <thread>

#include "platform/Base/Format.h"
#include "platform/Concurrency/WorkerPool.h"
#include "tests/platform/VendBase/StoreRequestFixture.h"

namespace tallow {
namespace {

using HSStoreURLOperationTest = StoreRequestFixture;

TEST_F(HSStoreURLOperationTest, CarriesTheStandardHeaders) {
  _service->setStoreFront("143441-1,29");
  _service->headers = [](const auto& question) {
    return Dictionary{{"Cookie", "a=b"}, {"X-Identity", question.includeOrvHeaders ? "yes" : "no"}};
  };
  _service->allowsGUID = [](const URL&) { return true; };
  respond(200);
  EXPECT_EQ(run(*operationFor("https://store.example/a")), 0);
  expectSent(0, {{"User-Agent", "Test/1.0"},
                 {"X-Vantor-Store-Front", "143441-1,29"},
                 {"Cookie", "a=b"},
                 {"X-Identity", "yes"},
                 {"X-Vantor-GUID", *_device.itsGUID}});
  EXPECT_EQ(_service->headerQuestions().at(0).url, url("https://store.example/a"));
}

TEST_F(HSStoreURLOperationTest, LeavesOutWhatIsSuppressedRefusedOrUnfit) {
  _service->setStoreFront("1\r\nX-Forged: 1");
  _service->headers = [](const auto&) {
    return Dictionary{{"Cookie", "a=b"},     {"X-Number", 5},
                      {"X-Own", "standard"}, {"X-Nul", std::string("1\0", 2)},
                      {"X-Tab", "1\t2"},     {"X-Empty", ""}};
  };
  respond(200);
  const auto change = [](HSURLRequest& request) {
    request.suppressOrvHeaders = true;
    request.headers = {{"x-own", "own"}};
  };
  EXPECT_EQ(run(*operationFor("https://store.example/a", change)), 0);
  for (const char* name : {"X-Vantor-Store-Front", "X-Forged", "X-Vantor-GUID", "X-Number", "X-Nul",
                           "X-Tab", "X-Empty"})
    expectSent(0, {{name, "(none)"}});
  expectSent(0, {{"X-Own", "own"}, {"Cookie", "a=b"}});
  EXPECT_FALSE(_service->headerQuestions().at(0).includeOrvHeaders);
}

TEST_F(HSStoreURLOperationTest, SendsTheRequestAsItWasAsked) {
  respond(200);
  const Data body(std::string_view("body"));
  const auto operation = operationFor("https://store.example/a", [&](HSURLRequest& request) {
    request.method = "POST";
    request.body = body;
    request.headers = {{"Content-Type", "application/x-vantor-plist"}};
    request.cachePolicy = HSURLRequest::kReloadIgnoringLocalCacheData;
    request.queryStringDictionary = {{"guid", "1"}};
  });
  EXPECT_EQ(run(*operation), 0);
  EXPECT_EQ(sent(0).url, url("https://store.example/a?guid=1"));
  EXPECT_EQ(sent(0).method, "POST");
  EXPECT_EQ(sent(0).body.bytes(), body.bytes()) << "the body was copied";
  expectSent(0, {{"Content-Type", "application/x-vantor-plist"}});
  EXPECT_TRUE(sent(0).bypassCaches);
}

// Such a request runs inside the bag's load: asking for anything that needs the bag would wait for
// ever.
TEST_F(HSStoreURLOperationTest, WithoutABagAsksNothingThatNeedsOne) {
  _service->setStoreFront("1");
  respond(302, {{"Location", "/b"}});
  respond(200, {{"X-Set-Vantor-Store-Front", "2"}});
  const auto sendGUID = [](HSURLRequest& request) { request.alwaysSendGUID = true; };
  EXPECT_EQ(run(*baglessOperationFor("https://store.example/a", sendGUID)), 0);
  expectSent(1, {{"X-Vantor-GUID", *_device.itsGUID}, {"X-Vantor-Store-Front", "1"}});
  respond(200);
  EXPECT_EQ(run(*baglessOperationFor("https://store.example/a")), 0);
  expectSent(2, {{"X-Vantor-GUID", "(none)"}});
  for (const auto& question : _service->headerQuestions()) EXPECT_FALSE(question.includeOrvHeaders);
  const std::set<std::string> allowed = {"storeFront", "httpHeadersForURL",
                                         "consumeCookiesWithHTTPHeaders", "setStoreFrontID"};
  for (const std::string& call : _service->calls())
    EXPECT_TRUE(allowed.contains(call.substr(0, call.find(' ')))) << call;
}

TEST_F(HSStoreURLOperationTest, RefusesWhatTheBagDoesNotTrust) {
  _service->trusts = [](const URL& asked) { return asked.host() == "good.example"; };
  EXPECT_EQ(run(*operationFor("https://bad.example/")), kHSErrorNotTrusted);
  const auto bagless = operationFor("https://good.example/");
  bagless->setRequiredBagType(0);
  EXPECT_EQ(run(*bagless), kHSErrorNotTrusted) << "nobody has said that it is";
  EXPECT_TRUE(_transport.requests().empty());
  EXPECT_TRUE(_service->headerQuestions().empty()) << "asked for headers of an untrusted URL";

  respondAlways(200);
  EXPECT_EQ(run(*operationFor("https://good.example/")), 0);
  const auto known = operationFor("https://bad.example/");
  known->setURLKnownToBeTrusted(true);
  EXPECT_EQ(run(*known), 0);
}

TEST_F(HSStoreURLOperationTest, EndsWhenTheServiceIsNotThere) {
  _service->unanswered = {"urlIsTrustedByURLBag"};
  EXPECT_EQ(run(*operationFor("https://store.example/")), kHSErrorServiceUnavailable);
  const auto previous = HSServiceProxy::setLocalAccountService(nullptr);
  EXPECT_EQ(run(*operationFor("https://store.example/")), kHSErrorServiceUnavailable);
  HSServiceProxy::setLocalAccountService(previous);
  EXPECT_TRUE(_transport.requests().empty());
}

TEST_F(HSStoreURLOperationTest, TakesItsURLFromTheBag) {
  _service->bag = Dictionary{{"logout", "https://store.example/logout"}};
  respond(200);
  const auto found = std::make_shared<HSStoreURLOperation>(makeClient());
  found->setURLBagKey("logout");
  EXPECT_EQ(run(*found), 0);
  EXPECT_EQ(sent(0).url, url("https://store.example/logout"));
  EXPECT_EQ(found->request().primaryURL(), url("https://store.example/logout"));
  const auto missing = std::make_shared<HSStoreURLOperation>(makeClient());
  missing->setURLBagKey("login");
  EXPECT_EQ(run(*missing), kHSErrorNoBagEntry);
  EXPECT_EQ(run(*std::make_shared<HSStoreURLOperation>(makeClient())), kHSErrorNoBagEntry);
}

TEST_F(HSStoreURLOperationTest, FollowsFiveRedirectsAndNoMore) {
  _service->headers = [](const auto& question) {
    return Dictionary{{"Cookie", "for=" + question.url->host()}};
  };
  const auto hop = [&](int number) {
    respond(302, {{"Location", format("https://h%d.example/", number)}, {"Set-Cookie", "a=b"}});
  };
  for (int i = 1; i <= 5; ++i) hop(i);
  respond(200);
  const auto operation = operationFor("https://h0.example/");
  EXPECT_EQ(run(*operation), 0);
  ASSERT_EQ(_transport.requests().size(), 6u);
  ASSERT_EQ(operation->request().urls().size(), 6u);
  const auto consumed = _service->consumed();
  ASSERT_EQ(consumed.size(), 6u);
  for (int i = 0; i < 6; ++i) {
    const std::string host = format("h%d.example", i);
    expectSent(i, {{"Cookie", "for=" + host}});
    EXPECT_EQ(consumed[i].fromURL->host(), host);
    EXPECT_EQ(operation->request().urls()[i].host(), host);
  }
  EXPECT_EQ(operation->response()->url.host(), "h5.example");

  for (int i = 1; i <= 6; ++i) hop(i);
  EXPECT_EQ(run(*operationFor("https://h0.example/")), kHSErrorTooManyRedirects);
  EXPECT_EQ(_transport.requests().size(), 12u);
}

TEST_F(HSStoreURLOperationTest, JudgesEachRedirect) {
  _service->trusts = [](const URL& asked) { return asked.host() == "good.example"; };
  respondAlways(200);
  const auto redirected = [&](bool bagless, const char* location) {
    respond(302, {{"Location", location}});
    const auto operation = bagless ? baglessOperationFor("https://first.example/")
                                   : operationFor("https://first.example/");
    operation->setURLKnownToBeTrusted(true);
    const std::size_t before = _transport.requests().size();
    const std::int64_t code = run(*operation);
    EXPECT_EQ(_transport.requests().size(), before + (code == 0 ? 2 : 1)) << location;
    return code;
  };
  EXPECT_EQ(redirected(false, "https://good.example/"), 0);
  EXPECT_EQ(redirected(false, "https://bad.example/"), kHSErrorNotTrusted);
  EXPECT_EQ(redirected(false, "/on/the/same/host"), kHSErrorNotTrusted)
      << "the first URL was vouched for, not its host";
  EXPECT_EQ(redirected(true, "https://FIRST.example./x"), 0);
  EXPECT_EQ(redirected(true, "https://good.example/"), kHSErrorNotTrusted);
  EXPECT_EQ(redirected(true, "https://sub.first.example/"), kHSErrorNotTrusted);
  EXPECT_EQ(redirected(true, "https://first.example@good.example/"), kHSErrorNotTrusted);
  EXPECT_EQ(redirected(true, "http://first.example/"), kHSErrorInsecureRedirect);
}

TEST_F(HSStoreURLOperationTest, ReportsFailureStatusesAndTransportErrors) {
  respond(204);
  EXPECT_EQ(run(*operationFor("https://store.example/")), 0);
  for (const int status : {199, 300, 302, 304, 404, 503}) {
    respond(status, {{"Set-Cookie", "a=b"}}, "body");
    const auto operation = operationFor("https://store.example/");
    operation->setOutputHandler([](auto&, const auto&) { FAIL() << "output of a failure"; });
    EXPECT_EQ(run(*operation), kHSErrorHTTPStatus) << status;
    EXPECT_EQ(operation->error()->userInfo[kHSErrorStatusKey], Value(status));
    EXPECT_EQ(operation->response()->statusCode, status);
  }
  EXPECT_EQ(_service->consumed().size(), 7u) << "cookies of failures count too";
  fail(HTTPTransport::kTLS);
  const auto failing = operationFor("https://store.example/");
  EXPECT_EQ(runForTransportError(*failing), HTTPTransport::kTLS);
  EXPECT_EQ(failing->response(), nullptr);
}

struct RecordingDelegate : HSStoreURLOperationDelegate {
  void operationFinishedWithOutput(HSStoreURLOperation& operation, const Value& output) override {
    EXPECT_TRUE(operation.success());
    outputs.push_back(output);
  }
  bool operationShouldSetStoreFrontID(HSStoreURLOperation&, const std::string& id) override {
    storeFronts.push_back(id);
    return answer;
  }
  std::vector<Value> outputs;
  std::vector<std::string> storeFronts;
  bool answer = true;
};

TEST_F(HSStoreURLOperationTest, GivesTheOutputToHandlerAndDelegate) {
  struct Provider : HSDataProvider {
    Result<Value> outputForResponse(const HTTPResponse&) override { return result; }
    Result<Value> result = Value("decoded");
  };
  const auto provider = std::make_shared<Provider>();
  RecordingDelegate delegate;
  Value handed;
  const auto runWith = [&](std::shared_ptr<HSDataProvider> used) {
    respond(200, {}, "body");
    const auto operation = operationFor("https://store.example/");
    operation->setDelegate(&delegate);
    operation->setOutputHandler([&](auto&, const Value& output) { handed = output; });
    operation->setDataProvider(std::move(used));
    return run(*operation);
  };
  EXPECT_EQ(runWith(nullptr), 0);
  EXPECT_EQ(handed, Value(Data(std::string_view("body"))));
  EXPECT_EQ(runWith(provider), 0);
  EXPECT_EQ(handed, Value("decoded"));
  EXPECT_EQ(delegate.outputs.size(), 2u);
  provider->result = Value();
  EXPECT_EQ(runWith(provider), 0) << "no output is no failure";
  provider->result = HSError(kHSErrorInvalidPropertyList, std::nullopt, std::nullopt);
  EXPECT_EQ(runWith(provider), kHSErrorInvalidPropertyList);
  EXPECT_EQ(delegate.outputs.size(), 2u);
}

TEST_F(HSStoreURLOperationTest, SetsTheStoreFrontOfAResponse) {
  const auto runWith = [&](const char* name, HSStoreURLOperationDelegate* delegate) {
    respond(200, {{name, "7"}});
    const auto operation = operationFor("https://store.example/");
    operation->setDelegate(delegate);
    EXPECT_EQ(run(*operation), 0);
    return _service->storeFrontsSet().size();
  };
  RecordingDelegate delegate;
  EXPECT_EQ(runWith("X-Set-Vantor-Store-Front", nullptr), 1u);
  EXPECT_EQ(runWith("x-set-vantor-store-front", &delegate), 2u);
  EXPECT_EQ(_service->storeFrontID(), "7");
  EXPECT_EQ(runWith("X-SET-VANTOR-STORE-FRONT", nullptr), 2u) << "neither of the two spellings";
  delegate.answer = false;
  EXPECT_EQ(runWith("X-Set-Vantor-Store-Front", &delegate), 2u);
  EXPECT_EQ(delegate.storeFronts, (std::vector<std::string>{"7", "7"}));
}

TEST_F(HSStoreURLOperationTest, PingsAnyURLTheBagNames) {
  _service->trusts = [](const URL&) { return false; };
  respond(200, {{"Set-Cookie", "a=b"}}, "anything <at> all");
  const auto ping =
      HSStoreURLOperation::pingOperationWithUrl(url("https://ping.example/"), makeClient());
  EXPECT_EQ(run(*ping), 0);
  EXPECT_EQ(sent(0).method, "GET");
  EXPECT_EQ(ping->request().primaryURL(), url("https://ping.example/"));
  EXPECT_EQ(_service->consumed().at(0).headers["Set-Cookie"], Value("a=b"));
  respond(500);
  EXPECT_EQ(
      run(*HSStoreURLOperation::pingOperationWithUrl(url("https://p.example/"), makeClient())),
      kHSErrorHTTPStatus);
}

// What takes time, fails for a while, blocks or is interrupted.
TEST_F(HSStoreURLOperationTest, HasOneDeadlineForTheWholeRun) {
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

  respondAlways(200);
  EXPECT_EQ(run(*operationFor("https://store.example/")), 0);
  EXPECT_EQ(sent(2).totalTimeoutSeconds, 60);
  const auto patient = baglessOperationFor("https://store.example/");
  patient->setTotalTimeoutSeconds(90);
  EXPECT_EQ(run(*patient), 0);
  EXPECT_EQ(sent(3).totalTimeoutSeconds, 90);
}

TEST_F(HSStoreURLOperationTest, RetriesWithGrowingJitteredPauses) {
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

TEST_F(HSStoreURLOperationTest, RetriesOnlyWhatARepeatCannotHarm) {
  const auto tries = [&](HTTPTransport::ErrorCode code, const char* method, bool asked = true,
                         double seconds = 60) {
    const std::size_t before = _transport.requests().size();
    _transport.setHandler(ScriptedTransport::fail(code));
    const auto operation = operationFor("https://store.example/",
                                        [&](HSURLRequest& request) { request.method = method; });
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

TEST_F(HSStoreURLOperationTest, TakesAResponseInBeforeItGoesOn) {
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
TEST_F(HSStoreURLOperationTest, DoesNotWaitForAnIntakeThatItBlocksItself) {
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

TEST_F(HSStoreURLOperationTest, CancelEndsWhateverItWaitsFor) {
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

TEST_F(HSStoreURLOperationTest, CancelledDuringTheIntakeHasNoOutput) {
  respond(200, {}, "body");
  const auto operation = operationFor("https://store.example/");
  _service->onCall = [&](const std::string& call) {
    if (call == "consumeCookiesWithHTTPHeaders") operation->cancel();
  };
  operation->setOutputHandler([](auto&, const auto&) { FAIL() << "was not taken in first"; });
  EXPECT_EQ(run(*operation), kHSErrorCancelled);
  WorkerPool::shared().waitUntilIdle();
}

TEST_F(HSStoreURLOperationTest, TakesALateResponseInAllTheSame) {
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
