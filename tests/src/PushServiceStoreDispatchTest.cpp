#include "src/PushServiceStoreDispatch.h"

#include <fstream>

#include "platform/VendBase/HSError.h"
#include "tests/src/PushFixture.h"
#include "tests/support/AnswerOf.h"

namespace tallow {
namespace {

using Dispatch = PushServiceStoreDispatch;

class PushServiceStoreDispatchTest : public PushFixture {
 protected:
  // What is answered, once all that it sets off is done.
  template <class... Parameters, class... Arguments>
  auto ask(void (Dispatch::*operation)(Parameters...), Arguments... arguments) const {
    auto answer = answerOf(*dispatch(), operation, std::move(arguments)...);
    settle();
    return answer;
  }
  std::optional<Error> enable() const {
    return std::get<1>(ask(&Dispatch::enableAutoDownloadForEnvironmentNamed, "production"));
  }
  bool isRegistered(std::optional<std::uint64_t> dsID, std::int64_t mask) const {
    return std::get<2>(ask(&Dispatch::isRegisteredForAccount, dsID, mask));
  }
};

TEST_F(PushServiceStoreDispatchTest, OneDispatchForAnIdentifierWhateverTheClient) {
  const auto first = dispatch();
  client = std::make_shared<HSStoreClient>(*client);
  client->clientType = kHSStoreClientTypeOutfitter;
  EXPECT_EQ(dispatch(), first);
  client->identifier = std::nullopt;
  EXPECT_EQ(dispatch(), nullptr);
  EXPECT_TRUE(world.log.mentions(
      1,
      "PushServiceStoreDispatch: pushServiceStoreDispatchForClient: called with nil "
      "storeClient.identifier"));
}

TEST_F(PushServiceStoreDispatchTest, EnableAndDisableReplyFirstAndRecordAfterOnSuccessOnly) {
  signIn(7);
  std::int64_t maskWhenAnswered = -1;
  dispatch()->enableAutoDownloadForEnvironmentNamed("production", [&](bool, const auto&) {
    maskWhenAnswered = dispatch()->enabledMediaTypeForDSID(7);
  });
  settle();
  EXPECT_EQ(maskWhenAnswered, 0) << "not yet recorded when the reply came";
  EXPECT_TRUE(isRegistered(7, 3));
  EXPECT_FALSE(isRegistered(7, 1)) << "exactly, no subset";
  EXPECT_FALSE(isRegistered(8, 3));
  EXPECT_FALSE(isRegistered(std::nullopt, 0));
  EXPECT_EQ(agent->asked, std::vector<std::optional<std::string>>{"production"});

  pages[kMediaTypes] = {Dictionary{{"status", 9}}};
  EXPECT_EQ(std::get<1>(ask(&Dispatch::disableAutoDownload))->code, 9);
  EXPECT_EQ(enable()->code, 9);
  EXPECT_TRUE(isRegistered(7, 3)) << "as it was";
  pages[kMediaTypes] = {Dictionary{{"status", 0}}};
  EXPECT_EQ(ask(&Dispatch::disableAutoDownload), std::tuple(true, std::nullopt));
  EXPECT_TRUE(isRegistered(7, 0));
  EXPECT_EQ(agent->asked.size(), 2u) << "disabling needs no token";
}

TEST_F(PushServiceStoreDispatchTest, WithoutATokenNothingIsSent) {
  const Error expected = makeError("PushServiceStoreDispatch", -1, "Failed to get device token");
  for (const auto& [success, token] :
       {std::pair(false, std::optional<Data>()), std::pair(false, std::optional(Data("t"))),
        std::pair(true, std::optional<Data>())}) {
    agent->success = success;
    agent->token = token;
    EXPECT_EQ(enable(), expected);
    EXPECT_EQ(ask(&Dispatch::registerDeviceTokenForEnvironmentNamed, std::nullopt),
              std::tuple(false, expected));
  }
  dispatch()->enableAutoDownloadForEnvironmentNamed("x", nullptr);  // which is checked here
  EXPECT_TRUE(posted(kRegister).empty());
  EXPECT_EQ(systemLines[0],
            "-[PushServiceStoreDispatch enableAutoDownloadForEnvironmentNamed:withReply:]");
  EXPECT_EQ(systemLines[1],
            "-[PushServiceStoreDispatch registerDeviceTokenForEnvironmentNamed:withReply:]");
}

TEST_F(PushServiceStoreDispatchTest, ALostConnectionIsMadeAnewByWhoeverNeedsOne) {
  enable();
  enable();
  EXPECT_EQ(connections, 1);
  const auto other = Dispatch::pushServiceStoreDispatchForClient(ServiceWorld::client("other"));
  for (const auto* handler : {&agent->interrupted, &agent->invalidated}) {
    const int before = connections;
    (*handler)();
    EXPECT_TRUE(Dispatch::connectionIsLost());
    EXPECT_EQ(connections, before) << "nobody reconnects by himself";
    other->xpcConnection();
    EXPECT_EQ(connections, before + 1);
    EXPECT_FALSE(Dispatch::connectionIsLost());
    enable();
    EXPECT_EQ(connections, before + 1) << "the flag is everybody's";
  }
  EXPECT_TRUE(world.log.contains(1, "PushServiceStoreDispatch xpcConnection interrupted"));
  EXPECT_TRUE(world.log.contains(1, "PushServiceStoreDispatch xpcConnection invalidated"));
}

TEST_F(PushServiceStoreDispatchTest, EnabledMediaTypesAreRecordedOrTheTokenAnnouncedAgain) {
  signIn(7);
  const auto check = [&](const Value& answer, std::optional<std::int64_t> code, int mask) {
    pages[kEnabled] = {answer};
    std::optional<Error> error;
    if (code) error = HSError(*code, "Auto push", "Failed to get enabled mediaTypes");
    EXPECT_EQ(ask(&Dispatch::getEnabledMediaTypes), std::tuple(!code, error, mask))
        << description(answer);
  };
  const auto kinds = [](const Value& list) { return Dictionary{{"enabled-media-kinds", list}}; };
  check(kinds(Array{"ebook", 5, "music"}).setting("status", 5), {}, 2);
  check(Dictionary{{"status", 5}}, 5, 2);
  check(Dictionary{{"status", "6x"}}, 6, 2);
  for (const Value& odd :
       {Value(Dictionary{{"status", Array()}}), Value(kinds("ebook")), Value(Array{"ebook"})})
    check(odd, 0, 2);
  check(kinds(Array()), {}, 0);
  check(kinds(Array{"mac-software"}), {}, 1);
  EXPECT_TRUE(agent->asked.empty());
  for (const HTTPRequest& request : world.transport.requests()) {
    if (request.url.path() != kEnabled) continue;
    EXPECT_TRUE(request.bypassCaches);
    EXPECT_EQ(request.url.query(), std::string("guid=") + kGUID);
  }

  pages[kEnabled] = {Dictionary{{"unrelated", 1}}};
  EXPECT_EQ(ask(&Dispatch::getEnabledMediaTypes), std::tuple(true, std::nullopt, 0));
  EXPECT_EQ(agent->asked, std::vector<std::optional<std::string>>{"production"});
  EXPECT_EQ(posted(kRegister).size(), 1u);
  pages[kEnabled].clear();
  EXPECT_EQ(std::get<1>(ask(&Dispatch::getEnabledMediaTypes))->code, kHSErrorHTTPStatus);
}

TEST_F(PushServiceStoreDispatchTest, EachKindOfPushDoesItsOwn) {
  const auto handle = [&](Value dsID, Value kind) {
    dispatch()->handlePushNotificationMessage({{"0", std::move(dsID)}, {"1", std::move(kind)}});
  };
  const std::string prefix =
      "PushServiceStoreDispatch (com.example.store): Ignoring push "
      "notification due to ";
  handle(0, 2);
  handle("123", 2);  // text is no DSID
  EXPECT_EQ(world.log.count(1, prefix + "zero dsid in payload"), 2u);
  handle(123, 2);
  EXPECT_TRUE(world.log.contains(1, prefix + "primary account not being present"));
  const auto account = signIn(124, false, std::nullopt);
  for (const Value& other : {Value(123), Value(-124), Value(true), Value(124.5)}) handle(other, 2);
  EXPECT_TRUE(
      world.log.contains(1, prefix + "account identifier mismatch (target=123, logged_in=124)"));
  EXPECT_EQ(world.log.lines(1).size(), 7u);
  handle(124, 2);
  EXPECT_TRUE(world.log.contains(1, prefix + "primary account not signed in"));
  account->setIsSignedIn(true);
  handle(124, 2);
  EXPECT_TRUE(world.log.contains(1, prefix + "primary account with expired token"));
  EXPECT_TRUE(downloadChecks.empty());
  account->setToken("t");
  handle(124, 2);
  handle(124.0, 2);
  handle(124, "2");  // text is no kind
  EXPECT_EQ(downloadChecks, (std::vector<std::string>{"com.example.store", "com.example.store"}));

  const std::size_t lines = world.log.lines(1).size();
  const Dictionary permission{{"0", 0}, {"1", 7}, {"nested", Dictionary{{"a", Array{1}}}}};
  dispatch()->handlePushNotificationMessage(permission);
  machine.recovers = true;
  dispatch()->handlePushNotificationMessage(permission);
  ASSERT_EQ(permissions.size(), 1u);
  EXPECT_EQ(permissions[0].first, kPRRequestQueueHarlowStoreIdentifier);
  EXPECT_EQ(permissions[0].second, permission);
  for (const Value& kind : {Value(0), Value(3), Value(-2), Value(Array()), Value(1e300)})
    handle(124, kind);
  EXPECT_EQ(world.log.lines(1).size(), lines) << "unknown kinds are ignored without a word";
  handle(nullptr, 2);
  handle(5, nullptr);
  EXPECT_EQ(world.log.lines(1).size(), lines + 2);
  EXPECT_TRUE(world.log.mentions(1, "Received invalid payload: "));
}

TEST_F(PushServiceStoreDispatchTest, AFirstBuyIsOfferedByTheStoreAgentAndTurnsDownloadsOn) {
  const Dictionary push{{"0", 1}, {"1", 4}};
  const auto books = Dispatch::pushServiceStoreDispatchForClient(
      ServiceWorld::client("books", kHSStoreClientTypeBookStoreAgent));
  books->handlePushNotificationMessage(push);
  EXPECT_TRUE(notifications.empty());
  dispatch()->handlePushNotificationMessage(push);
  ASSERT_EQ(notifications.size(), 1u);
  const UserNotification offer = notifications[0];
  EXPECT_EQ(offer.userInfo, (Dictionary{{"Source", "PushFirstBuy"}}));
  EXPECT_EQ(offer.actionButtonTitle, "Turn On");
  EXPECT_EQ(offer.otherButtonTitle, "Not Now");

  UserNotification other = offer;
  other.userInfo = Dictionary{{"Source", 1}};
  const std::size_t lines = world.log.lines(1).size();
  for (const UserNotification& each : {other, offer}) {
    const bool isOffer = isPushFirstBuyNotification(each);
    EXPECT_EQ(dispatch()->userNotificationCenterShouldPresentNotification(*center, each), isOffer);
    dispatch()->userNotificationCenterDidDeliverNotification(*center, each);
    dispatch()->userNotificationCenterDidDismissAlert(*center, each);
    EXPECT_EQ(world.log.lines(1).size() - lines, isOffer ? 2u : 0u);
    EXPECT_TRUE(agent->asked.empty());
  }
  signIn(7);
  dispatch()->userNotificationCenterDidActivateNotification(*center, other);
  dispatch()->userNotificationCenterDidActivateNotification(*center, offer);
  settle();
  EXPECT_EQ(agent->asked, std::vector<std::optional<std::string>>{"production"});
  EXPECT_TRUE(isRegistered(7, 3));

  bag = bag.removing("push-notifications");
  std::filesystem::remove_all(world.directories.cacheHome);
  dispatch()->userNotificationCenterDidActivateNotification(*center, offer);
  EXPECT_EQ(agent->asked.back(), std::nullopt) << "the agent is to refuse it";
}

TEST_F(PushServiceStoreDispatchTest, TheGateOpensForTheSignedInAccountOfTheStoreAgent) {
  const auto gate = [](const Value& dsID) { return Dispatch::canStartAutodownloadForDSID(dsID); };
  const std::string prefix = "PushServiceStoreDispatch: Ignoring push notification due to ";
  EXPECT_FALSE(gate(0));
  EXPECT_TRUE(world.log.contains(1, prefix + "zero dsid in payload"));
  EXPECT_FALSE(gate(7)) << "no client of that type, no account";
  EXPECT_TRUE(
      world.log.contains(1, prefix + "account identifier mismatch (target=7, logged_in=(null))"));
  const auto clients = world.directories.dataHome / "clients.d";
  std::filesystem::create_directories(clients);
  std::ofstream(clients / "agent.toml") << "identifier = \"agent\"\n";
  client = std::make_shared<HSStoreClient>(*HSStoreClient::initWithStoreClientType(0));
  const auto account = signIn(7, false);
  EXPECT_FALSE(gate(8));
  EXPECT_TRUE(
      world.log.contains(1, prefix + "account identifier mismatch (target=8, logged_in=7)"));
  EXPECT_FALSE(gate(7));
  EXPECT_TRUE(world.log.contains(1, prefix + "primary account not being present and/or signed in"));
  account->setIsSignedIn(true);
  EXPECT_TRUE(gate(7));
}

TEST_F(PushServiceStoreDispatchTest, TheOwnListenersPeerTakesTheProcessWithIt) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  struct Connection final : PushServiceStoreConnection {
    void setExportedObject(std::shared_ptr<PushServiceStoreProtocol> object) override {
      exported = std::move(object);
    }
    void setInterruptionHandler(Handler handler) override { interrupted = std::move(handler); }
    void setInvalidationHandler(Handler handler) override { invalidated = std::move(handler); }
    void resume() override { resumed = true; }
    std::shared_ptr<PushServiceStoreProtocol> exported;
    Handler interrupted, invalidated;
    bool resumed = false;
  } connection;
  EXPECT_TRUE(dispatch()->listenerShouldAcceptNewConnection(connection));
  EXPECT_EQ(connection.exported, dispatch());
  EXPECT_TRUE(connection.resumed);
  struct Standard final : SystemLog {
    void write(std::string_view line) override { std::fputs(std::string(line).c_str(), stderr); }
  } standard;
  const ScopedShared<SystemLog> toStandardError(standard);
  EXPECT_EXIT(connection.interrupted(), ::testing::ExitedWithCode(0), "interrpted");
  EXPECT_EXIT(connection.invalidated(), ::testing::ExitedWithCode(0), "invalidated");
}

}  // namespace
}  // namespace tallow
