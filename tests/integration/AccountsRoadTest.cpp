// Signing in and out over a real bus and real HTTP, with the service killed along the way, idle,
// and with two of its processes writing at once.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <future>
#include <mutex>
#include <random>
#include <set>
#include <thread>

#include "client/TransactionAgent.h"
#include "devstore/AuthenticateEndpoint.h"
#include "platform/Base/AtomicFile.h"
#include "tests/integration/RunningService.h"
#include "tests/support/Heard.h"

namespace tallow {
namespace {

using Instance = AccountServiceClient::Instance;

Dictionary answerFor(std::uint64_t dsID) {
  return {{"dsPersonId", dsID}, {"identifier", "name " + std::to_string(dsID)}, {"token", "t"}};
}

std::uint64_t primaryOf(AccountServiceClient& client) {
  const auto primary = client.primaryAccount();
  if (!primary) ADD_FAILURE() << primary.error().localizedDescription();
  return primary && *primary ? (**primary)["dsid"].unsignedValue() : 0;
}

TEST(AccountsRoad, SignedInThroughTheTransactionServiceKilledAndSignedOut) {
  RunningService service;
  service.describeClient("https", "may-act-as-others = true\n");
  AccountServiceClient& client = service.client();
  const auto absent = client.signInWithContext({{"identifier", "42@example.com"}});
  ASSERT_TRUE(absent && absent->error) << "nobody is there who could ask";
  EXPECT_EQ(absent->error->domain, "HSErrorDomain");
  EXPECT_THAT(absent->error->localizedDescription(), testing::HasSubstr("transaction service"));

  Heard<std::uint64_t> told;  // the primary accounts; 0 for nobody
  ASSERT_FALSE(client.observeAccounts([&](const std::optional<Dictionary>& account) {
    told.note(account ? (*account)["dsid"].unsignedValue() : 0);
  }));
  std::vector<std::optional<std::string>> complaints;
  auto agent = TransactionAgent::start(
      Instance::Agent, [&](const std::string& forClient, const HSAuthenticationContext& context,
                           const std::optional<std::string>& complaint) {
        EXPECT_EQ(forClient, RunningService::kClient);
        complaints.push_back(complaint);
        return std::optional(TransactionAgent::Credentials{
            *context.identifier,
            Secret(complaint ? devstore::AuthenticateEndpoint::kPassword : "mistyped")});
      });
  ASSERT_TRUE(agent) << agent.error().localizedDescription();
  EXPECT_FALSE(TransactionAgent::start(Instance::Agent, nullptr)) << "there is one already";
  const auto signIn = client.signInWithContext({{"identifier", "42@example.com"}});
  ASSERT_EQ(dsIDOf(signIn), 42u);
  EXPECT_FALSE(signIn->account->contains("token"));
  EXPECT_EQ(complaints.size(), 2u) << "asked again, with the store's words";
  EXPECT_EQ(told.next(), 42u);
  EXPECT_THAT(client.strongToken()->value_or(""), testing::StartsWith("token-42-"));

  // The store signs somebody else in than was wanted.
  service.stage(R"({"authenticate": {"dsid": "43", "setCookie": "intruder=1; Path=/"}})");
  const auto other = client.signInWithContext({{"identifier", "42@example.com"}, {"dsid", 42}});
  EXPECT_TRUE(other && other->error && !other->success);
  EXPECT_EQ(primaryOf(client), 42u);
  EXPECT_THAT(service.cookies(), testing::HasSubstr("account-session=42"));
  EXPECT_THAT(service.cookies(), testing::Not(testing::HasSubstr("intruder")));
  *agent = nullptr;

  service.kill();
  EXPECT_EQ(primaryOf(client), 42u);
  EXPECT_EQ(*client.strongToken(), std::nullopt) << "a token is not on any disk";
  EXPECT_TRUE(*client.authIsExpired());
  ASSERT_FALSE(client.signOut());
  EXPECT_TRUE(service.store().waitForRequests("/accounts/logout", 1));
  EXPECT_EQ(primaryOf(client), 0u);
  EXPECT_EQ(client.accounts()->size(), 1u);
  EXPECT_EQ(told.next(), 0u) << "heard by the observer that was carried over";
  EXPECT_TRUE(client.getEligibilityForService(1)->eligible);
}

TEST(AccountsRoad, ATransactionServiceThatDiesInTheMiddleEndsTheSignInAtOnce) {
  constexpr const char* kTransactions = "com.vantor.transactionservice";
  RunningService service;
  service.writeDescriptor("scripted",
                          "store-client = false\nmay-act-as-others = true\n"
                          "[[process]]\nexecutable = \"" TALLOW_DEVSTORE_PROGRAM "\"\n");
  service.bus().mayStart(
      {{kTransactions, TALLOW_DEVSTORE_PROGRAM " transaction-service 42@example.com"}});
  service.stage(R"({"authenticate": {"hang": true, "times": 1}})");
  std::thread killer([&] {
    EXPECT_TRUE(service.store().waitForRequests("/accounts/authenticate", 1));
    ::kill(service.pid(kTransactions), SIGKILL);
  });
  const auto cut = service.client().signInWithContext({});
  killer.join();
  ASSERT_TRUE(cut && cut->error);
  EXPECT_EQ(cut->error->domain, "HSErrorDomain");
  EXPECT_THAT(cut->error->localizedDescription(), testing::HasSubstr("transaction service"));
  EXPECT_EQ(primaryOf(service.client()), 0u);
  EXPECT_EQ(dsIDOf(service.client().signInWithContext({})), 42u) << "the bus has started another";
}

// Whoever waits behind an open question is looked up at the bus when it is over: by then the
// agent's program may be leaving, at any moment of that.
TEST(AccountsRoad, AnAgentLeavesAlsoWhenSomebodyStillWaits) {
  constexpr const char* kAgent = "com.vantor.transactionservice";
  RunningService service;
  std::promise<void> isAsked, mayAnswer;
  auto agent = TransactionAgent::start(Instance::Agent, [&](const auto&...) {
    isAsked.set_value();
    mayAnswer.get_future().wait();
    return std::optional<TransactionAgent::Credentials>();
  });
  ASSERT_TRUE(agent) << agent.error().localizedDescription();
  std::thread asking([&] { EXPECT_FALSE(service.client().signInWithContext({})->success); });
  isAsked.get_future().wait();

  sd_bus* stranger = nullptr;
  ASSERT_GE(sd_bus_open_user(&stranger), 0);
  for (std::size_t i = 0; i < TransactionAgent::kMaxWaiting; ++i)
    ASSERT_GE(sd_bus_call_method_async(stranger, nullptr, kAgent, "/com/vantor/transactionservice",
                                       "com.vantor.HSTransactionService",
                                       "dsidByAuthenticatingWithContext", nullptr, nullptr,
                                       "sa{sv}", "com.example", 0),
              0);
  ASSERT_GE(sd_bus_call_method(stranger, kAgent, "/", "org.freedesktop.DBus.Peer", "Ping", nullptr,
                               nullptr, ""),
            0)
      << "answered after the calls before it have come in";
  mayAnswer.set_value();
  *agent = nullptr;
  asking.join();
  sd_bus_flush_close_unref(stranger);
}

TEST(AccountsRoad, ObserversThatAreSlowOrGoneDelayNobody) {
  constexpr std::size_t kChanges = 160;  // more than a socket holds
  Heard<std::uint64_t> told;
  RunningService service;
  const auto observeWithoutReading = [] {
    sd_bus* observer = nullptr;
    EXPECT_GE(sd_bus_open_user(&observer), 0);
    EXPECT_GE(sd_bus_call_method(observer, "com.vantor.tallowd", "/com/vantor/tallowd",
                                 "com.vantor.HSAccountService", "addAccountStoreObserver", nullptr,
                                 nullptr, "o", "/observer"),
              0);
    return observer;
  };
  sd_bus* const slow = observeWithoutReading();
  sd_bus* const gone = observeWithoutReading();
  ASSERT_FALSE(service.client().observeAccounts([&](const std::optional<Dictionary>& account) {
    told.note(account ? (*account)["dsid"].unsignedValue() : 0);
  }));
  std::vector<std::uint64_t> expected;
  for (std::uint64_t i = 0; i < kChanges; ++i) {
    if (i == kChanges / 2) sd_bus_close_unref(gone);
    expected.push_back(1 + i % 2);
    const Dictionary answer{{"dsPersonId", expected.back()},
                            {"identifier", std::string(2048, 'n')}};
    ASSERT_TRUE(service.client().addAccountWithAuthenticationResponse(answer, true));
  }
  EXPECT_EQ(told.waitFor(kChanges), expected);
  sd_bus_close_unref(slow);
}

// The user's instance and the system's share one preferences file here, and two clients of theirs
// one preferences domain.
TEST(AccountsRoad, TwoProcessesThatWriteAtOnceKeepEachOthersAccounts) {
  constexpr std::uint64_t kSignIns = 60;
  RunningService service;
  service.alsoStartOnSystemBus();
  service.describeClient("https", "may-act-as-others = true\n");
  service.writeDescriptor("book",
                          "identifier = \"com.example.book\"\nclient-type = "
                          "\"book-store-agent\"\nagent-preferences-domain = \"" +
                              std::string(RunningService::kClient) + "\"\n");
  const auto signInMany = [&](Instance instance, std::uint64_t first) {
    AccountServiceClient client(instance);
    if (instance == Instance::Daemon) {
      ASSERT_FALSE(client.actAs("com.example.book"));
    }
    for (std::uint64_t dsID = first; dsID < first + kSignIns; ++dsID)
      ASSERT_TRUE(client.addAccountWithAuthenticationResponse(answerFor(dsID), true));
  };
  std::thread agents([&] { signInMany(Instance::Agent, 1); });
  std::thread daemons([&] { signInMany(Instance::Daemon, 1001); });
  agents.join();
  daemons.join();
  EXPECT_NE(service.pid(), service.pid(RunningService::kSystemService));
  service.kill();
  service.kill(RunningService::kSystemService);

  AccountServiceClient store(Instance::Agent);
  EXPECT_EQ(primaryOf(store), kSignIns);
  AccountServiceClient book(Instance::Agent);
  ASSERT_FALSE(book.actAs("com.example.book"));
  EXPECT_EQ(primaryOf(book), 1000 + kSignIns);
  // The known accounts are those of whoever wrote last: all of its own, and those of the other that
  // it found when it began.
  EXPECT_GE(book.accounts()->size(), kSignIns);
  service.kill();
}

TEST(AccountsRoad, NoCallIsLostWhileAnIdleServiceComesAndGoes) {
  ::setenv("TALLOW_IDLE_EXIT", "0.005", 1);
  RunningService service;
  ::unsetenv("TALLOW_IDLE_EXIT");
  std::mutex lock;
  std::set<pid_t> seen;
  std::vector<std::string> failures;
  // Calls that come at any moment of the service's short lives: between them the bus is asked a few
  // times who serves.
  const auto callAndLook = [&](unsigned seed) {
    std::minstd_rand random(seed);
    for (int call = 0; call < 40; ++call) {
      const auto accounts = AccountServiceClient(Instance::Agent).accounts();
      std::set<pid_t> now;
      for (auto looks = random() % 4; looks > 0; --looks) now.insert(service.pid());
      const std::lock_guard guard(lock);
      if (!accounts) failures.push_back(accounts.error().localizedDescription());
      seen.merge(now);
    }
  };
  std::thread first(callAndLook, 1), second(callAndLook, 2);
  first.join();
  second.join();
  EXPECT_THAT(failures, testing::IsEmpty());
  EXPECT_GT(seen.size(), 3u) << "it has come and gone";

  // A token keeps it. The process of the token is the one that a later call finds.
  AccountServiceClient client(Instance::Agent);
  ASSERT_TRUE(client.addAccountWithAuthenticationResponse(answerFor(7), true));
  EXPECT_EQ(*AccountServiceClient(Instance::Agent).strongToken(), "t");
}

}  // namespace
}  // namespace tallow
