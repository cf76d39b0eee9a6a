#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Base/Clock.h"
#include "platform/Base/SharedInstance.h"
#include "platform/Concurrency/WorkerPool.h"
#include "platform/HTTP/ScriptedTransport.h"
#include "platform/Preferences/MemoryPreferences.h"
#include "platform/PropertyList/PropertyList.h"
#include "platform/VendBase/HSServiceProxy.h"
#include "platform/VendBase/HSStoreClient.h"
#include "src/AccountService/AccountServiceInterface.h"
#include "src/AccountService/AccountStore.h"
#include "src/BagController.h"
#include "src/CookieStorage.h"
#include "src/StoreFrontController.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/ScopedDirectories.h"
#include "tests/support/TemporaryFolder.h"

namespace tallow {

// A whole service without its bus: the real controllers over a clock that tests set, preferences in
// memory, files in a temporary folder, and a scripted network. Every registry starts empty.
class ServiceWorld {
 public:
  ServiceWorld() {
    forgetControllers();
    _previousService = HSServiceProxy::setLocalAccountService(
        [](std::shared_ptr<const HSStoreClient> storeClient) {
          return std::make_shared<AccountServiceInterface>(std::move(storeClient));
        });
  }
  ~ServiceWorld() {
    WorkerPool::shared().waitUntilIdle();
    HSServiceProxy::setLocalAccountService(_previousService);
    forgetControllers();
  }

  // As after a restart: controllers read their state from disk again.
  static void forgetControllers() {
    AccountStore::registry().removeAll();
    BagController::registry().removeAll();
    CookieStorage::registry().removeAll();
    StoreFrontController::registry().removeAll();
  }

  static std::shared_ptr<HSStoreClient> client(const std::string& identifier = "com.example.store",
                                               std::int64_t type = kHSStoreClientTypeStoreAgent) {
    auto client = std::make_shared<HSStoreClient>();
    client->identifier = identifier;
    client->clientType = type;
    client->appPreferencesDomain = identifier;
    client->agentPreferencesDomain = identifier;
    client->productionBagURLs = {*URL::parse("https://bag.example.com/bag")};
    return client;
  }

  // The same as it is after a change of its descriptor.
  static std::shared_ptr<HSStoreClient> changed(const HSStoreClient& client,
                                                const std::string& userAgent = "changed") {
    auto other = std::make_shared<HSStoreClient>(client);
    other->userAgent = userAgent;
    return other;
  }

  // An answer of status 200 with a property list, XML.
  static HTTPResponse listed(const HTTPRequest& request, const Value& body,
                             HTTPHeaderList headers = {}) {
    return ScriptedTransport::response(
        request, 200, std::move(headers),
        PropertyList::encode(body, PropertyList::Format::XML).view());
  }

  // Answers every request with `body`, an unsigned bag over https unless it says otherwise.
  void serve(const Dictionary& body, HTTPHeaderList headers = {{"Cache-Control", "max-age=3600"}}) {
    transport.setHandler(
        [=](const HTTPRequest& request) { return listed(request, body, headers); });
  }

  // Answers requests for the bag with this one, unsigned, and all others with `answer`.
  void serveBag(const Dictionary& bag, ScriptedTransport::Answer answer,
                HTTPHeaderList headers = {{"Cache-Control", "max-age=3600"}}) {
    transport.setHandler([=](const HTTPRequest& request) -> Result<HTTPResponse> {
      if (request.url.host() != "bag.example.com") return answer(request);
      return listed(request, bag, headers);
    });
  }

  // What is in the preferences.
  Value stored(const std::string& key, const std::string& domain = "com.example.store") {
    return preferences.copyValue(key, domain, Preferences::User::Current, Preferences::Host::Any);
  }
  void write(const std::string& key, const Value& value,
             const std::string& domain = "com.example.store") {
    preferences.setValue(key, value, domain, Preferences::User::Current, Preferences::Host::Any);
  }

  static void settle() { WorkerPool::shared().waitUntilIdle(); }

  ManualClock clock{Date{1'800'000'000}};
  MemoryPreferences preferences;
  TemporaryFolder directory;
  const ScopedDirectories directories{directory.path()};
  ScriptedTransport transport;
  CapturedLog log;

 private:
  ScopedShared<Clock> _sharedClock{clock};
  ScopedShared<Preferences> _sharedPreferences{preferences};
  ScopedShared<HTTPTransport> _sharedTransport{transport};
  HSServiceProxy::LocalAccountService _previousService;
};

// A test of what the service does for one client.
class ServiceTest : public ::testing::Test {
 protected:
  std::shared_ptr<Bag> bag() const {
    return BagController::bagControllerForClient(client)->bagWithType(kBagTypeProduction);
  }

  ServiceWorld world;
  std::shared_ptr<HSStoreClient> client = ServiceWorld::client();
};

}  // namespace tallow
