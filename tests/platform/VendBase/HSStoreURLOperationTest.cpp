#include "platform/VendBase/HSStoreURLOperation.h"

#include <set>

#include "platform/Base/Format.h"

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
  const auto operation = operationFor("https://store.example/a");
  EXPECT_EQ(run(*operation), 0);
  EXPECT_EQ(sentHeader(0, "User-Agent"), "Test/1.0");
  EXPECT_EQ(sentHeader(0, "X-Vantor-Store-Front"), "143441-1,29");
  EXPECT_EQ(sentHeader(0, "Cookie"), "a=b");
  EXPECT_EQ(sentHeader(0, "X-Identity"), "yes");
  EXPECT_EQ(sentHeader(0, "X-Vantor-GUID"), _device.itsGUID);
  EXPECT_EQ(_service->headerQuestions().at(0).url, url("https://store.example/a"));
}

TEST_F(HSStoreURLOperationTest, LeavesOutWhatIsSuppressedRefusedOrUnfit) {
  _service->setStoreFront("1\r\nX-Forged: 1");
  _service->headers = [](const auto&) {
    return Dictionary{{"Cookie", "a=b"}, {"X-Number", 5}, {"X-Own", "standard"}};
  };
  respond(200);
  const auto operation = operationFor("https://store.example/a");
  HSURLRequest request = operation->request();
  request.suppressOrvHeaders = true;
  request.headers = {{"x-own", "own"}};
  operation->setRequest(request);
  EXPECT_EQ(run(*operation), 0);
  EXPECT_EQ(sentHeader(0, "X-Vantor-Store-Front"), "(none)");
  EXPECT_EQ(sentHeader(0, "X-Vantor-GUID"), "(none)");
  EXPECT_EQ(sentHeader(0, "X-Number"), "(none)");
  EXPECT_EQ(sentHeader(0, "X-Own"), "own");
  EXPECT_EQ(sentHeader(0, "Cookie"), "a=b");
  EXPECT_FALSE(_service->headerQuestions().at(0).includeOrvHeaders);
}

TEST_F(HSStoreURLOperationTest, SendsTheRequestAsItWasAsked) {
  respond(200);
  const auto operation = operationFor("https://store.example/a");
  HSURLRequest request = operation->request();
  request.method = "POST";
  request.body = Data(std::string_view("body"));
  request.headers = {{"Content-Type", "application/x-vantor-plist"}};
  request.cachePolicy = HSURLRequest::kReloadIgnoringLocalCacheData;
  request.queryStringDictionary = {{"guid", "1"}};
  operation->setRequest(request);
  EXPECT_EQ(run(*operation), 0);
  EXPECT_EQ(sent(0).url, url("https://store.example/a?guid=1"));
  EXPECT_EQ(sent(0).method, "POST");
  EXPECT_EQ(sent(0).body.bytes(), request.body.bytes()) << "the body was copied";
  EXPECT_EQ(sentHeader(0, "Content-Type"), "application/x-vantor-plist");
  EXPECT_TRUE(sent(0).bypassCaches);
}

// Such a request runs inside the bag's load: asking for anything that needs the bag would wait for
// ever.
TEST_F(HSStoreURLOperationTest, WithoutABagAsksNothingThatNeedsOne) {
  _service->setStoreFront("1");
  respond(302, {{"Location", "/b"}});
  respond(200, {{"X-Set-Vantor-Store-Front", "2"}});
  const auto operation = baglessOperationFor("https://store.example/a");
  HSURLRequest request = operation->request();
  request.alwaysSendGUID = true;
  operation->setRequest(request);
  EXPECT_EQ(run(*operation), 0);
  EXPECT_EQ(sentHeader(1, "X-Vantor-GUID"), _device.itsGUID);
  EXPECT_EQ(sentHeader(1, "X-Vantor-Store-Front"), "1");
  respond(200);
  EXPECT_EQ(run(*baglessOperationFor("https://store.example/a")), 0);
  EXPECT_EQ(sentHeader(2, "X-Vantor-GUID"), "(none)");
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

  respond(200);
  respond(200);
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
    EXPECT_EQ(sentHeader(i, "Cookie"), "for=" + host);
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
  _transport.setHandler(
      [](const HTTPRequest& request) { return ScriptedTransport::response(request, 200); });
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
  EXPECT_EQ(redirected(false, "http://good.example/"), kHSErrorInsecureRedirect);
  EXPECT_EQ(redirected(false, "data:,x"), kHSErrorInvalidResponse);
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

}  // namespace
}  // namespace tallow
