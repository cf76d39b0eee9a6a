#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/Grantwell/PRRequestQueue.h"
#include "platform/Notifications/UserNotificationCenter.h"
#include "platform/VendBase/DefaultsKeys.h"
#include "platform/VendBase/HSOperationQueue.h"
#include "platform/VendBase/HSStoreAccount.h"
#include "platform/VendBase/SystemLog.h"
#include "platform/XPC/PushServiceConnection.h"
#include "src/AccountService/AccountStore.h"
#include "src/PushServiceStoreDispatch.h"
#include "tests/support/FakeMachine.h"
#include "tests/support/ServiceWorld.h"

namespace tallow {

// A service world with a push agent, a store that answers pages as told, and fakes of all that
// pushes set off. Everything answers on whatever thread asks.
class PushFixture : public ServiceTest {
 protected:
  static constexpr const char* kGUID = "0123456789ABCDEF";
  static constexpr const char* kRegister = "/register";
  static constexpr const char* kMediaTypes = "/media";
  static constexpr const char* kEnabled = "/enabled";

  struct Agent final : PushServiceConnection {
    void setInterruptionHandler(Handler handler) override { interrupted = std::move(handler); }
    void setInvalidationHandler(Handler handler) override { invalidated = std::move(handler); }
    void resume() override {}
    void getDeviceTokenForEnvironmentNamed(std::optional<std::string> name,
                                           TokenReply reply) override {
      asked.push_back(std::move(name));
      reply(success, token);
    }
    Handler interrupted, invalidated;
    std::vector<std::optional<std::string>> asked;
    bool success = true;
    std::optional<Data> token = Data("token");
  };

  PushFixture() {
    client->mediaTypeMask = 3;
    PushServiceStoreDispatch::registry().removeAll();
    world.transport.setHandler([this](const HTTPRequest& request) { return answer(request); });
  }
  ~PushFixture() override {
    settle();
    PushServiceStoreDispatch::registry().removeAll();
  }

  static void settle() {
    HSOperationQueue::mainQueue().waitUntilAllOperationsAreFinished();
    ServiceWorld::settle();
  }

  std::shared_ptr<PushServiceStoreDispatch> dispatch() const {
    return PushServiceStoreDispatch::pushServiceStoreDispatchForClient(client);
  }
  // Makes an account primary; with `token`, as after a sign-in.
  std::shared_ptr<HSStoreAccount> signIn(std::uint64_t dsID, bool signedIn = true,
                                         std::optional<std::string> token = "t") const {
    auto account = std::make_shared<HSStoreAccount>();
    account->setDsID(dsID);
    account->setIsSignedIn(signedIn);
    account->setToken(std::move(token));
    const auto store = AccountStore::accountStoreForClient(client);
    store->addAccount(account);
    store->makeAccountPrimary(account);
    return account;
  }

  Value record() {
    return world.stored(kDefaultsAutoPushRegisteredDeviceTokensKey, kDaemonDefaultsID);
  }
  void setRecord(const Value& value) {
    world.write(kDefaultsAutoPushRegisteredDeviceTokensKey, value, kDaemonDefaultsID);
  }
  // The decoded bodies of what was posted to a page.
  std::vector<Value> posted(const std::string& path) const {
    std::vector<Value> bodies;
    for (const HTTPRequest& request : world.transport.requests())
      if (request.url.path() == path && request.method == "POST")
        bodies.push_back(*PropertyList::decode(request.body));
    return bodies;
  }

  std::shared_ptr<Agent> agent = std::make_shared<Agent>();
  int connections = 0;
  // What the pages answer, each answer once but the last, which stays; data is the bare body.
  std::map<std::string, std::vector<Value>> pages = {{kRegister, {Dictionary{{"status", 0}}}},
                                                     {kMediaTypes, {Dictionary{{"status", 0}}}}};
  Dictionary bag = {{"push-notifications",
                     Dictionary{{"environment", "production"},
                                {"register-success", "https://store.example.com/register"}}},
                    {"automatic-downloads2",
                     Dictionary{{"register-media-types", "https://store.example.com/media"}}},
                    {"enabled-media-types", "https://store.example.com/enabled"},
                    {"trustedDomains", Array{"store.example.com"}}};
  FakeMachine machine;
  std::vector<std::string> downloadChecks;  // the clients for which it was asked
  std::vector<std::pair<std::string, Dictionary>> permissions;
  std::vector<UserNotification> notifications;
  std::vector<std::string> systemLines;

 private:
  struct Queue final : PRRequestQueue {
    Queue(PushFixture& owner, std::string name) : fixture(owner), identifier(std::move(name)) {}
    void _didReceiveStorePushNotificationWithPayload(const Dictionary& payload) override {
      fixture.permissions.emplace_back(identifier, payload);
    }
    PushFixture& fixture;
    std::string identifier;
  };
  struct Downloads final : HSDownloadService {
    Downloads(PushFixture& owner, std::string name) : fixture(owner), identifier(std::move(name)) {}
    void checkAutomaticDownloadQueue(Reply) override {
      fixture.downloadChecks.push_back(identifier);
    }
    PushFixture& fixture;
    std::string identifier;
  };
  struct Center final : UserNotificationCenter {
    explicit Center(PushFixture& owner) : fixture(owner) {}
    void deliverNotification(UserNotification notification) override {
      fixture.notifications.push_back(std::move(notification));
    }
    PushFixture& fixture;
  };
  struct Lines final : SystemLog {
    explicit Lines(PushFixture& owner) : fixture(owner) {}
    void write(std::string_view line) override { fixture.systemLines.emplace_back(line); }
    PushFixture& fixture;
  };

  Result<HTTPResponse> answer(const HTTPRequest& request) {
    if (request.url.path() == "/bag")
      return ServiceWorld::listed(request, Dictionary{{"urlBag", bag}},
                                  {{"Cache-Control", "max-age=3600"}});
    auto& answers = pages[request.url.path()];
    if (answers.empty()) return ScriptedTransport::response(request, 404);
    const Value next = answers.front();
    if (answers.size() > 1) answers.erase(answers.begin());
    if (const Data* const raw = next.data())
      return ScriptedTransport::response(request, 200, {}, raw->view());
    return ServiceWorld::listed(request, next);
  }

  Lines _lines{*this};
  ScopedShared<SystemLog> _sharedLines{_lines};
  PushServiceConnection::Factory _agents = [this](const std::string& name) {
    EXPECT_EQ(name, "com.vantor.quillonpushagent-xpc");
    ++connections;
    return agent;
  };
  ScopedShared<PushServiceConnection::Factory> _sharedAgents{_agents};
  PRRequestQueue::Factory _queues = [this](const std::string& identifier) {
    return std::make_shared<Queue>(*this, identifier);
  };
  ScopedShared<PRRequestQueue::Factory> _sharedQueues{_queues};
  UserNotificationCenter::Factory _centers = [this](const std::string& identifier,
                                                    std::int64_t type) {
    EXPECT_EQ(identifier, "com.vantor.quillon");
    EXPECT_EQ(type, 1);
    return center;
  };
  ScopedShared<UserNotificationCenter::Factory> _sharedCenters{_centers};
  HSServiceProxy::DownloadServices _downloads = [this](const auto& storeClient) {
    return std::make_shared<Downloads>(*this, storeClient->identifier.value_or(""));
  };
  ScopedShared<HSServiceProxy::DownloadServices> _sharedDownloads{_downloads};

 protected:
  std::shared_ptr<UserNotificationCenter> center = std::make_shared<Center>(*this);
};

}  // namespace tallow
