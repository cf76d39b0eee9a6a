#include <future>

#include "platform/Concurrency/WorkerPool.h"
#include "platform/PropertyList/PropertyList.h"
#include "platform/VendBase/HSOperationQueue.h"
#include "platform/VendBase/HSSignInOperation.h"
#include "tests/platform/VendBase/StoreRequestFixture.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/FakeDialogAgent.h"

namespace tallow {
namespace {

constexpr const char* kAuthenticateURL = "https://store.example/authenticate";

// Requests whose answers ask for something, with a person, a transaction and a download service.
class StoreProtocolTest : public StoreRequestFixture {
 protected:
  struct Transactions final : HSTransactionService {
    void dsidByAuthenticatingWithContext(HSAuthenticationContext context, Reply reply) override {
      contexts.push_back(std::move(context));
      if (answer) answer(reply);
    }
    std::function<void(const Reply&)> answer;
    std::vector<HSAuthenticationContext> contexts;
  };
  struct Downloads final : HSDownloadService {
    void checkAutomaticDownloadQueue(Reply reply) override {
      ++checks;
      reply(error);
    }
    int checks = 0;
    std::optional<Error> error;
  };

  StoreProtocolTest() {
    _runLoop.onTimer = [] {};  // people have time
    _service->bag = Dictionary{{"authenticateAccount", kAuthenticateURL}};
  }

  void answerWith(const Dictionary& list, int status = 200) {
    respond(status, {}, std::string(PropertyList::encode(list, PropertyList::Format::XML).view()));
  }
  static Dictionary signInDialog(const Dictionary& signIn = {}) {
    return Dictionary{{"message", "Sign in"}, {"signIn", signIn}};
  }
  std::shared_ptr<HSStoreURLOperation> operationWithDialogs() {
    const auto operation = operationFor("https://store.example/update");
    _provider = HSPropertyListProvider::providerWithStoreClient(makeClient());
    _provider->setShouldProcessDialogs(true);
    operation->setDataProvider(_provider);
    HSAuthenticationContext context;
    context.setAuthenticationReason(7);
    operation->setAuthenticationContext(context);
    return operation;
  }
  void signIn(std::uint64_t dsID, const char* token) {
    _service->signedInAccount = std::make_shared<HSStoreAccount>();
    _service->signedInAccount->setDsID(dsID);
    _service->signedInAccount->setToken(token);
  }
  std::int64_t signInWith(const char* password, const HSAuthenticationContext& context) {
    return run(*std::make_shared<HSSignInOperation>(makeClient(), context, "n", Secret(password)));
  }
  // Returns when an operation of the client has had its turn.
  static void haveATurn(HSOperationQueue& queue, const char* identifier) {
    const auto client = std::make_shared<HSStoreClient>();
    client->identifier = identifier;
    std::promise<void> ran;
    const auto operation = std::make_shared<HSOperation>(client);
    operation->setCompletionHandler([&](auto&, bool, const auto&) { ran.set_value(); });
    queue.addOperation(operation);
    ran.get_future().wait();
  }
  Dictionary sentBody(std::size_t index) const {
    const auto body = PropertyList::decode(sent(index).body);
    return body && body->dictionary() != nullptr ? *body->dictionary() : Dictionary();
  }

  std::shared_ptr<Transactions> _transactions = std::make_shared<Transactions>();
  std::shared_ptr<Downloads> _downloads = std::make_shared<Downloads>();
  HSServiceProxy::DownloadServices _downloadServices = [this](const auto&) { return _downloads; };
  ScopedShared<HSServiceProxy::DownloadServices> _sharedDownloads{_downloadServices};
  HSServiceProxy::TransactionServices _transactionServices = [this](const auto&) {
    return _transactions;
  };
  ScopedShared<HSServiceProxy::TransactionServices> _sharedTransactions{_transactionServices};
  ScopedDialogCenter _dialogs;
  std::shared_ptr<HSPropertyListProvider> _provider;
  CapturedLog _log;
};

TEST_F(StoreProtocolTest, ActsOnAnAnswerAsTheSwitchesAllow) {
  const struct {
    bool protocol, dialogs, downloads;
    std::size_t credits, checks, shown;
  } cases[] = {{true, true, true, 1, 1, 1},
               {true, true, false, 1, 0, 1},
               {true, false, true, 1, 1, 0},
               {false, true, true, 0, 0, 0}};
  std::size_t credits = 0;
  for (const auto& each : cases) {
    answerWith({{"creditDisplay", "$5"},
                {"downloads", Array{1}},
                {"dialog", Dictionary{{"message", "Hello"}}}});
    const auto operation = operationWithDialogs();
    _provider->setShouldProcessProtocol(each.protocol);
    _provider->setShouldProcessDialogs(each.dialogs);
    _provider->setShouldTriggerDownloads(each.downloads);
    _dialogs.agent->shown.clear();
    _dialogs.agent->willAnswer(FakeDialogAgent::pressing(0));
    _downloads->checks = 0;
    EXPECT_EQ(run(*operation), 0);
    WorkerPool::shared().waitUntilIdle();
    credits += each.credits;
    EXPECT_EQ(_service->protocols().size(), credits);
    EXPECT_EQ(static_cast<std::size_t>(_downloads->checks), each.checks);
    EXPECT_EQ(_dialogs.agent->shown.size(), each.shown);
    EXPECT_EQ(_provider->didProcessDialog(), each.shown == 1);
    EXPECT_FALSE(_provider->authenticatedAccountDSID());
  }
  // An absent download service is logged and harms nothing; nothing waits for no downloads.
  _downloads->error = HSError(kHSErrorServiceUnavailable, std::nullopt, "absent");
  for (const Value& downloads : {Value(true), Value(Array()), Value(false), Value(Data("x"))}) {
    answerWith({{"downloads", downloads}});
    EXPECT_EQ(run(*operationWithDialogs()), 0);
  }
  EXPECT_EQ(_downloads->checks, 1);
  EXPECT_TRUE(
      _log.contains(1, "HSStoreProtocol: The downloads wait: absent (HSErrorDomain error 106)"));
}

TEST_F(StoreProtocolTest, TheLastRefusalOfManyIsTheRequestsError) {
  answerWith({{"dialog", signInDialog()}});
  for (int tries = 0; tries < HSStoreProtocol::kMaxSignInTries; ++tries) {
    answerWith({{"failureType", 1}, {"customerMessage", "Wrong password"}});
    _dialogs.agent->willAnswer(FakeDialogAgent::pressing(0, "a@example.com", "wrong"));
  }
  EXPECT_EQ(run(*operationWithDialogs()), kHSErrorSignInRefused);
  EXPECT_EQ(_dialogs.agent->shown.size(),
            static_cast<std::size_t>(HSStoreProtocol::kMaxSignInTries));
}

TEST_F(StoreProtocolTest, SignsInThroughADialogUntilTheStoreBelievesIt) {
  answerWith({{"dialog", signInDialog(Dictionary{{"accountName", "a@example.com"}})}});
  answerWith({{"failureType", 1}, {"customerMessage", "Wrong \x01 password"}});
  answerWith({{"dsPersonId", 42u}, {"token", "t"}});
  _dialogs.agent->willAnswer(FakeDialogAgent::pressing(0, "b@example.com", "w<r&o>ng"));
  _dialogs.agent->willAnswer(FakeDialogAgent::pressing(0, "b@example.com", "right-secret"));
  EXPECT_EQ(run(*operationWithDialogs()), 0);
  EXPECT_TRUE(_provider->didProcessDialog());
  EXPECT_EQ(_provider->authenticatedAccountDSID(), 42u);
  ASSERT_EQ(_dialogs.agent->shown.size(), 2u);
  EXPECT_EQ(_dialogs.agent->shown[0].signIn->accountName, "a@example.com");
  EXPECT_EQ(_dialogs.agent->shown[0].signIn->reason, 7);
  EXPECT_EQ(_dialogs.agent->shown[1].signIn->accountName, "b@example.com");
  EXPECT_NE(_dialogs.agent->shown[1].explanation.find("Wrong"), std::string::npos);
  EXPECT_EQ(sent(1).url.absoluteString(), kAuthenticateURL);
  EXPECT_EQ(sentBody(1), (Dictionary{{"guid", *_device.itsGUID},
                                     {"identifier", "b@example.com"},
                                     {"password", "w<r&o>ng"},
                                     {"reason", 7}}));
  EXPECT_EQ(sentBody(2)["password"], Value("right-secret"));
  EXPECT_EQ(_service->signedInAccount->dsID(), 42u);
  for (const auto& line : _log.lines())
    EXPECT_EQ(line.text.find("secret"), std::string::npos) << line.text;
}

TEST_F(StoreProtocolTest, ADismissedSignInIsNoAnswerUnlessTheStoreSaysMore) {
  const HSDialogAnswer closed;
  const Dictionary asks{{"dialog", signInDialog()}};
  const struct {
    Dictionary answer;
    HSDialogAnswer person;
    std::int64_t error;
  } cases[] = {{asks, closed, kHSErrorNotSignedIn},
               {asks.setting("failureType", 5), closed, 0},
               {asks, FakeDialogAgent::pressing(1), kHSErrorNotSignedIn},
               {asks, FakeDialogAgent::pressing(9, "n", "p"), kHSErrorNotSignedIn}};
  for (const auto& each : cases) {
    answerWith(each.answer);
    _dialogs.agent->willAnswer(each.person);
    EXPECT_EQ(run(*operationWithDialogs()), each.error) << &each - cases;
    EXPECT_FALSE(_provider->didProcessDialog());
  }
  // Given up at the second showing.
  answerWith(asks);
  answerWith({{"failureType", 1}});
  _dialogs.agent->willAnswer(FakeDialogAgent::pressing(0, "n", "p"));
  _dialogs.agent->willAnswer(closed);
  EXPECT_EQ(run(*operationWithDialogs()), kHSErrorNotSignedIn);
  EXPECT_FALSE(_provider->didProcessDialog());
  EXPECT_EQ(_transport.requests().size(), 6u);
}

TEST_F(StoreProtocolTest, KeepsAPasswordFromWhereItDoesNotBelong) {
  const struct {
    const char* url;
    const char* password;
    Dictionary answer;
    std::int64_t error;
  } cases[] = {
      {"http://store.example/authenticate", "p", {}, kHSErrorNotTrusted},
      {"no url", "p", {}, kHSErrorNoBagEntry},
      {kAuthenticateURL, "p\x01", {}, kHSErrorSignInRefused},
      {kAuthenticateURL, "p\xff", {}, kHSErrorSignInRefused},
      {kAuthenticateURL, "p", Dictionary{{"token", "t"}}, kHSErrorInvalidResponse},
      {kAuthenticateURL, "p", Dictionary{{"dsPersonId", 43u}}, kHSErrorInvalidResponse},
      {kAuthenticateURL, "p", Dictionary{{"failureType", 1}}, kHSErrorSignInRefused},
      {kAuthenticateURL, "p", Dictionary{{"dsPersonId", 42u}}, 0},
  };
  HSAuthenticationContext context;
  context.dsID = 42u;
  for (const auto& each : cases) {
    _service->bag = Dictionary{{"authenticateAccount", each.url}};
    const bool asks = each.error == 0 || !each.answer.empty();
    const std::size_t before = _transport.requests().size();
    if (asks) answerWith(each.answer);
    EXPECT_EQ(signInWith(each.password, context), each.error)
        << each.url << description(each.answer);
    EXPECT_EQ(_transport.requests().size() - before, asks ? 1u : 0u);
  }
  // Nor to where the store would have it sent on.
  for (const int status : {302, 307, 308}) {
    respond(status, {{"Location", "https://other.example/"}});
    EXPECT_EQ(signInWith("p", context), kHSErrorHTTPStatus) << status;
    EXPECT_EQ(_transport.requests().back().url.absoluteString(), kAuthenticateURL);
  }
}

TEST_F(StoreProtocolTest, AuthenticatesOnDemandOnceAndCarriesTheToken) {
  _transactions->answer = [this](const auto& reply) {
    signIn(42, "tok");
    reply(true, 42u, std::nullopt);
  };
  answerWith({}, 401);
  answerWith({});
  const auto operation = operationWithDialogs();
  EXPECT_EQ(run(*operation), 0);
  EXPECT_EQ(operation->authenticatedDSID(), 42u);
  ASSERT_EQ(_transactions->contexts.size(), 1u);
  EXPECT_EQ(_transactions->contexts[0].authenticationReason, 7);
  expectSent(0, {{"X-Vantor-Token", "(none)"}});
  expectSent(1, {{"X-Vantor-Token", "tok"}, {"X-Vantor-DSID", "42"}});
  EXPECT_EQ(_service->headerQuestions().at(1).dsid, 42u);

  // Once: the second demand is the answer. Never where it is switched off, or nobody may be asked.
  answerWith({}, 401);
  answerWith({}, 401);
  EXPECT_EQ(run(*operationWithDialogs()), kHSErrorHTTPStatus);
  EXPECT_EQ(_transactions->contexts.size(), 2u);
  for (const bool isSwitchedOff : {true, false}) {
    answerWith({}, 401);
    const auto quiet = operationWithDialogs();
    if (isSwitchedOff) quiet->setNeedsAuthentication(false);
    if (!isSwitchedOff) _provider->setShouldProcessDialogs(false);
    EXPECT_EQ(run(*quiet), kHSErrorHTTPStatus);
  }
  EXPECT_EQ(_transactions->contexts.size(), 2u);
}

TEST_F(StoreProtocolTest, AuthenticatesUpFrontWhereTheTokenHasExpired) {
  const auto operation = [this] {
    const auto made = operationWithDialogs();
    made->setNeedsAuthentication(true);
    return made;
  };
  _transactions->answer = [](const auto& reply) {
    reply(false, std::nullopt, HSError(kHSErrorServiceUnavailable, std::nullopt, "absent"));
  };
  EXPECT_EQ(run(*operation()), kHSErrorServiceUnavailable);
  _transactions->answer = [](const auto& reply) { reply(false, std::nullopt, std::nullopt); };
  EXPECT_EQ(run(*operation()), kHSErrorNotSignedIn);
  _transactions->answer = nullptr;  // dies without a word
  EXPECT_EQ(run(*operation()), kHSErrorServiceUnavailable);
  EXPECT_TRUE(_transport.requests().empty());

  signIn(7, "t");
  answerWith({});
  const auto fine = operation();
  EXPECT_EQ(run(*fine), 0);
  EXPECT_EQ(fine->authenticatedDSID(), 7u);
  expectSent(0, {{"X-Vantor-Token", "t"}});
  EXPECT_EQ(_transactions->contexts.size(), 3u);

  // A token that the store has revoked: somebody is asked all the same, once.
  _transactions->answer = [](const auto& reply) { reply(true, 7u, std::nullopt); };
  answerWith({}, 401);
  answerWith({});
  EXPECT_EQ(run(*operation()), 0);
  EXPECT_EQ(_transactions->contexts.size(), 4u);

  // Not where others could read it.
  answerWith({});
  const auto plain = operationFor("http://store.example/");
  plain->setSendToken(true);
  EXPECT_EQ(run(*plain), 0);
  expectSent(3, {{"X-Vantor-Token", "(none)"}});
}

TEST_F(StoreProtocolTest, RepeatsOnceAfterAMachineIdentityAction) {
  const struct {
    const char* name;
    const char* value;
    bool isSwitchedOn, urlNeedsIt;
    std::size_t requests;
  } cases[] = {
      {"x-vantor-md-action", "SP", true, true, 2},  {"x-vantor-amd-action", "SM", true, true, 2},
      {"x-vantor-amd-action", "RP", true, true, 2}, {"x-vantor-md-action", "sp", true, true, 1},
      {"X-Vantor-MD-Action", "SP", true, true, 1},  {"x-vantor-md-action", "SP", false, true, 1},
      {"x-vantor-md-action", "SP", true, false, 1}, {"x-vantor-md-data", "SP", true, true, 1},
  };
  for (const auto& each : cases) {
    const std::size_t before = _transport.requests().size();
    _service->needsOrvAction = [&](const URL&) { return each.urlNeedsIt; };
    for (std::size_t i = 0; i < each.requests; ++i)
      respond(200, {{each.name, each.value}}, "<plist><dict/></plist>");
    const auto operation = operationWithDialogs();
    operation->setShouldRetryOnSilentOrvAction(each.isSwitchedOn);
    int outputs = 0;
    operation->setOutputHandler([&](auto&, const auto&) { ++outputs; });
    EXPECT_EQ(run(*operation), 0);
    EXPECT_EQ(_transport.requests().size() - before, each.requests) << each.name << each.value;
    EXPECT_EQ(outputs, 1);
  }
}

// Dialogs that wait for people hold up no other operation, however many there are.
TEST_F(StoreProtocolTest, AnOpenDialogKeepsNoPlaceOnTheQueue) {
  HSOperationQueue queue(1);
  answerWith({{"dialog", Dictionary{{"message", "one"}}}});
  const auto waiting = operationWithDialogs();
  queue.addOperation(waiting);
  _transport.waitForRequests(1);
  haveATurn(queue, "com.vantor.test");
  EXPECT_EQ(_dialogs.center.openDialogCount(), 1u);
  // Cancelling takes it away.
  waiting->cancel();
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(_dialogs.center.openDialogCount(), 0u);
}

// However much one client has the store do, another's operation finds a place.
TEST_F(StoreProtocolTest, OneClientDoesNotTakeAllPlaces) {
  HSOperationQueue queue(2, 1);
  _transport.hold();
  for (int i = 0; i < 3; ++i) queue.addOperation(operationFor("https://store.example/"));
  haveATurn(queue, "another");
  respondAlways(200);
  _transport.release();
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(_transport.requests().size(), 3u);
}

}  // namespace
}  // namespace tallow
