#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/Concurrency/ManualRunLoop.h"
#include "platform/VendBase/DefaultsKeys.h"
#include "platform/VendBase/HSOperationQueue.h"
#include "platform/XPC/DistributedNotificationCenter.h"
#include "src/AccountService/AccountStore.h"
#include "tests/support/ServiceWorld.h"

namespace tallow {

// A service world whose main run loop passes time only when told to, whose transaction service is
// played by the test, and in which posted notifications are kept.
class AccountsTest : public ServiceTest {
 protected:
  class Observer final : public HSAccountStoreObserver {
   public:
    void primaryAccountDidChange(const std::shared_ptr<HSStoreAccount>& account) override {
      told.push_back(account ? account->dsID().value_or(0) : 0);
      if (onCall) onCall();
    }
    std::vector<std::uint64_t> told;  // 0: nobody
    std::function<void()> onCall;
  };
  class TransactionService final : public HSTransactionService {
   public:
    void dsidByAuthenticatingWithContext(HSAuthenticationContext context, Reply reply) override {
      if (answer) answer(context, reply);  // else the reply is dropped
    }
    std::function<void(const HSAuthenticationContext&, const Reply&)> answer;
  };
  class Notifications final : public DistributedNotificationCenter {
   public:
    void postNotificationName(const std::string& name, const std::string& object) override {
      const std::lock_guard guard(lock);
      posted.emplace_back(name, object);
    }
    std::mutex lock;
    std::vector<std::pair<std::string, std::string>> posted;
  };

  ~AccountsTest() override { finishOperations(); }

  std::shared_ptr<AccountStore> store() { return AccountStore::accountStoreForClient(client); }
  // As after a restart.
  std::shared_ptr<AccountStore> storeReadAgain() {
    AccountStore::registry().removeAll();
    return store();
  }
  static std::shared_ptr<HSStoreAccount> account(std::uint64_t dsID, const std::string& name) {
    auto made = std::make_shared<HSStoreAccount>();
    made->setDsID(dsID);
    made->setIdentifier(name);
    return made;
  }
  static HSAuthenticationResponse response(std::uint64_t dsID, const std::string& token = "t") {
    return HSAuthenticationResponse(
        {{"dsPersonId", std::to_string(dsID)}, {"identifier", "name"}, {"token", token}});
  }
  static std::vector<std::uint64_t> dsIDs(const AccountStore& store) {
    std::vector<std::uint64_t> all;
    for (const auto& known : store.accounts()) all.push_back(known->dsID().value_or(0));
    return all;
  }
  static void finishOperations() {
    HSOperationQueue::mainQueue().waitUntilAllOperationsAreFinished();
    ServiceWorld::settle();
  }

  ManualRunLoop loop{world.clock};
  const ScopedShared<RunLoop> sharedLoop{loop};
  Notifications notifications;
  const ScopedShared<DistributedNotificationCenter> sharedNotifications{notifications};
  std::shared_ptr<TransactionService> transactions = std::make_shared<TransactionService>();

 private:
  HSServiceProxy::TransactionServices _services = [this](const auto&) { return transactions; };
  const ScopedShared<HSServiceProxy::TransactionServices> _sharedServices{_services};
};

}  // namespace tallow
