// The system-wide instance on a bus with the policy that is installed: who may call it, who may ask
// people to sign in for it, and that signing in works there. The service runs as a user of its own,
// its callers as others; so this needs root.

#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <regex>
#include <sstream>

#include "client/TransactionAgent.h"
#include "devstore/AuthenticateEndpoint.h"
#include "platform/PropertyList/JSON.h"
#include "tests/integration/RunningService.h"

namespace tallow {
namespace {

using Client = AccountServiceClient;
using testing::HasSubstr;

constexpr const char* kService = "com.vantor.tallowd.daemon";
constexpr const char* kTransactions = "com.vantor.transactionservice";

// Users that every machine has, in the parts of the service's user, of a member of its group and of
// somebody who is not.
struct User {
  const char* name;
  uid_t uid;
  gid_t gid;
};
constexpr User kServiceUser{"daemon", 1, 1};
constexpr User kMember{"games", 5, 60};
constexpr User kOutsider{"nobody", 65534, 65534};
constexpr User kRoot{"root", 0, 0};

// While one lives, what this process opens on the bus is that user's.
class As {
 public:
  explicit As(const User& user) {
    EXPECT_EQ(setgroups(0, nullptr), 0);
    EXPECT_EQ(setegid(user.gid), 0);
    EXPECT_EQ(seteuid(user.uid), 0);
  }
  ~As() {
    EXPECT_EQ(seteuid(0), 0);
    EXPECT_EQ(setegid(0), 0);
  }
  As(const As&) = delete;
  As& operator=(const As&) = delete;
};

// A connection of a user's, without any library of ours.
class Connection {
 public:
  explicit Connection(const User& user) {
    const As as(user);
    if (sd_bus_open_system(&_bus) < 0) throw std::runtime_error("no bus");
  }
  ~Connection() { sd_bus_flush_close_unref(_bus); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool mayOwn(const char* name) {
    const int outcome = sd_bus_request_name(_bus, name, 0);
    EXPECT_TRUE(outcome >= 0 || outcome == -EACCES) << strerror(-outcome);
    if (outcome >= 0) sd_bus_release_name(_bus, name);
    return outcome >= 0;
  }
  // Whether the bus lets a call through, whatever is answered.
  bool maySend(const char* name, const char* path, const char* interface, const char* method) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_call_method(_bus, name, path, interface, method, &error, nullptr, "");
    const std::string text = error.message != nullptr ? error.message : "";
    sd_bus_error_free(&error);
    return text.find("Rejected send message") == std::string::npos;
  }

 private:
  sd_bus* _bus = nullptr;
};

std::string installedPolicy() {
  std::stringstream text;
  text << std::ifstream(TALLOW_PACKAGING "/com.vantor.tallowd.daemon.conf").rdbuf();
  const std::string withUser = std::regex_replace(text.str(), std::regex("user=\"tallowd\""),
                                                  std::string("user=\"") + kServiceUser.name + '"');
  return std::regex_replace(withUser, std::regex("group=\"tallowd\""),
                            std::string("group=\"") + kMember.name + '"');
}

class SystemBusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root, to be several users";
    service.emplace();
    const std::string session = service->bus().address();
    bus.emplace(installedPolicy());
    ::setenv("DBUS_SESSION_BUS_ADDRESS", session.c_str(), 1);
    // As its unit has it run: as its own user, and able to see which program a caller is.
    const std::string user = kServiceUser.name;
    bus->mayStart({{kService, "/usr/bin/env DBUS_SYSTEM_BUS_ADDRESS=" + bus->address() +
                                  " setpriv --reuid=" + user + " --regid=" + user +
                                  " --clear-groups --inh-caps=+sys_ptrace "
                                  "--ambient-caps=+sys_ptrace " TALLOWD_PROGRAM " daemon"}});
    describe("user-agent = \"ExampleStore/1.0\"\n");
  }
  void TearDown() override {
    if (const pid_t running = bus ? bus->ownerOf(kService) : 0) ::kill(running, SIGKILL);
  }
  // The descriptors, and all else that the service's user has to read and write.
  void describe(const std::string& extra) {
    service->describeClient("https", extra);
    service->writeDescriptor("other",
                             "identifier = \"com.example.other\"\n"
                             "client-type = \"book-store-agent\"\nproduction-bag-urls = [\"" +
                                 service->storeURL("https", "/bag") + "\"]\n");
    const std::string root = service->configHome().parent_path().parent_path().native();
    const std::string command = std::string("chown -R ") + kServiceUser.name + ' ' + root +
                                " && chmod -R u+rwX,go+rX " + root;
    ASSERT_EQ(std::system(command.c_str()), 0);
  }
  static TransactionAgent::Ask answerAs(const std::string& name) {
    return [name](const std::string&, const HSAuthenticationContext&,
                  const std::optional<std::string>& complaint) {
      return complaint ? std::nullopt
                       : std::optional(TransactionAgent::Credentials{
                             name, Secret(devstore::AuthenticateEndpoint::kPassword)});
    };
  }

  std::optional<RunningService> service;
  std::optional<PrivateBus> bus;
};

TEST_F(SystemBusTest, OnlyTheGroupReachesTheServiceAndAsksPeopleForIt) {
  for (const auto& [user, ownsService, ownsTransactions] :
       {std::tuple(kServiceUser, true, false), std::tuple(kMember, false, true),
        std::tuple(kRoot, false, true), std::tuple(kOutsider, false, false)}) {
    SCOPED_TRACE(user.name);
    Connection connection(user);
    EXPECT_EQ(connection.mayOwn(kService), ownsService);
    EXPECT_EQ(connection.mayOwn(kTransactions), ownsTransactions);
  }
  std::optional<Result<std::unique_ptr<TransactionAgent>>> agent;
  {
    const As as(kMember);
    agent.emplace(TransactionAgent::start(Client::Instance::Daemon, answerAs("42@example.com")));
  }
  ASSERT_TRUE(*agent) << agent->error().localizedDescription();
  EXPECT_EQ(TransactionAgent::start(Client::Instance::Daemon, nullptr).error().code,
            Client::kTaken);
  {
    const As as(kOutsider);
    EXPECT_EQ(TransactionAgent::start(Client::Instance::Daemon, nullptr).error().code,
              Client::kRefused);
  }
  for (const auto& [user, callsService, callsAgent] :
       {std::tuple(kServiceUser, false, true), std::tuple(kMember, true, false),
        std::tuple(kRoot, true, false), std::tuple(kOutsider, false, false)}) {
    SCOPED_TRACE(user.name);
    Connection connection(user);
    EXPECT_EQ(connection.maySend(kService, "/com/vantor/tallowd", "com.vantor.HSAccountService",
                                 "accounts"),
              callsService);
    EXPECT_EQ(
        connection.maySend(kTransactions, "/com/vantor/transactionservice",
                           "com.vantor.HSTransactionService", "dsidByAuthenticatingWithContext"),
        callsAgent);
  }
}

TEST_F(SystemBusTest, AMemberSignsInForItsOwnClientAndForWhomItIsAskedOnly) {
  service->stage(R"({"authenticate": {"storefront": "143442-2,29"}})");
  {
    const As as(kMember);
    const auto agent =
        TransactionAgent::start(Client::Instance::Daemon, answerAs("42@example.com"));
    ASSERT_TRUE(agent) << agent.error().localizedDescription();
    Client client(Client::Instance::Daemon);
    ASSERT_FALSE(client.setStoreFrontID("143441"));
    ASSERT_EQ(dsIDOf(client.signInWithContext({})), 42u);
    EXPECT_EQ(*client.storeFront(), "143442-2,29");
    EXPECT_EQ(client.actAs("com.example.other")->code, Client::kRefused) << "not described so";
  }
  const auto requests = service->store().requests("/accounts/authenticate");
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(*requests.front().header("User-Agent"), "ExampleStore/1.0");
  EXPECT_EQ(*requests.front().header("X-Vantor-Store-Front"), "143441");

  // Root asks for another client.
  describe("may-act-as-others = true\n");
  Client root(Client::Instance::Daemon);
  ASSERT_FALSE(root.actAs("com.example.other"));
  const As as(kMember);
  Client asked(Client::Instance::Daemon);
  ASSERT_TRUE(asked.describe()) << "seen before it hides its memory";
  const auto agent = TransactionAgent::start(
      Client::Instance::Daemon,
      [&asked, answer = answerAs("43@example.com")](const auto&... question) {
        const auto error = asked.actAs("com.example.other");
        EXPECT_FALSE(error) << error->localizedDescription();
        return answer(question...);
      });
  Client member(Client::Instance::Daemon);
  const auto refusal = member.actAs("com.example.other");
  ASSERT_TRUE(refusal);
  EXPECT_THAT(refusal->localizedDescription(), HasSubstr("only root"));
  ASSERT_EQ(dsIDOf(root.signInWithContext({})), 43u);
  ASSERT_FALSE(root.setStoreFrontID("143465"));
  EXPECT_NE(*asked.storeFront(), "143465") << "it is not asked any more, and itself again";

  // What others do and what has failed for them is told to root alone.
  for (const auto& [asking, seesAll] : {std::pair(&root, true), std::pair(&member, false)}) {
    const auto text = asking->describe();
    ASSERT_TRUE(text) << text.error().localizedDescription();
    const Dictionary status = *JSON::decode(*text)->dictionary();
    EXPECT_EQ(status.contains("failures"), seesAll);
    bool areAllItsOwn = true;
    for (const Value& caller : *status["callers"].array())
      areAllItsOwn &= (*caller.dictionary())["uid"] == Value(kMember.uid);
    EXPECT_EQ(areAllItsOwn, !seesAll);
  }
}

}  // namespace
}  // namespace tallow
