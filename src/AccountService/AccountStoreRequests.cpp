// What an account store asks of the store server.

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "platform/PropertyList/JSON.h"
#include "platform/VendBase/HSOperationQueue.h"
#include "platform/VendBase/HSPropertyListProvider.h"
#include "platform/VendBase/HSStoreURLOperation.h"
#include "platform/XPC/DistributedNotificationCenter.h"
#include "src/AccountService/AccountStore.h"
#include "src/BagController.h"

namespace tallow {

namespace {

constexpr std::size_t kMostSubscriptions = 256;

// What a question for the subscription has brought so far; the operation's thread only.
struct EligibilityAnswer {
  bool eligible = false;
  std::optional<Error> parseError;

  void read(const Value& output) {
    Value answer = output;
    if (const Data* body = output.data()) {
      Result<Value> parsed = JSON::decode(body->view());
      if (!parsed) {
        parseError = parsed.error();
        return;
      }
      answer = *std::move(parsed);
      if (answer.dictionary() == nullptr && answer.array() == nullptr)
        parseError = makeError("JSON", -1, "The text is neither an object nor an array");
    }
    const Dictionary* all = answer.dictionary();
    const Value music = all != nullptr ? (*all)["music"] : Value();
    const Value status = music.dictionary() != nullptr ? (*music.dictionary())["status"] : Value();
    if (status.string() != nullptr) eligible = *status.string() == "Enabled";
  }
};

}  // namespace

void AccountStore::signOut() {
  logLevel(2, "%@: Signing out", kClassName);
  _requestQueue.sync([&] {
    setPrimaryOnQueue(nullptr);
    // Their timers run on, and end what the sign-in began.
    for (const Account& account : _accounts) account->setToken(std::nullopt);
  });
  writeAccountsToPersistedStore();

  logLevel(3, "%@: Sending off logout request.", kClassName);
  const auto operation = std::make_shared<HSStoreURLOperation>(storeClient());
  operation->setNeedsAuthentication(false);
  operation->setURLBagKey("logout");
  operation->setRequest(HSURLRequest());
  operation->setDataProvider(HSPropertyListProvider::providerWithStoreClient(storeClient()));
  operation->setCompletionHandler(
      [client = storeClient()](HSOperation& finished, bool, const std::optional<Error>&) {
        if (const auto controller = BagController::bagControllerForClient(client))
          controller->invalidateAllBags();
        if (dynamic_cast<const HSStoreURLOperation*>(&finished) == nullptr) return;
        DistributedNotificationCenter::shared().postNotificationName(
            kAccountSignOutFinishedNotification, client->identifier.value_or(""));
      });
  HSOperationQueue::mainQueue().addOperation(operation);
  _primaryAccountDidChange();
}

std::optional<bool> AccountStore::eligibilityForService(const std::string& service) const {
  const std::lock_guard lock(_subscriptionsLock);
  const auto found = _subscriptions.find(service);
  return found != _subscriptions.end() ? std::optional(found->second) : std::nullopt;
}

void AccountStore::rememberEligibility(const std::string& service, bool eligible) {
  const std::lock_guard lock(_subscriptionsLock);
  // Whoever asks makes the names up.
  if (_subscriptions.size() < kMostSubscriptions || _subscriptions.contains(service))
    _subscriptions.insert_or_assign(service, eligible);
}

void AccountStore::getEligibilityForService(const std::string& service,
                                            EligibilityHandler completionBlock) {
  if (!completionBlock) {
    std::fprintf(stderr, "%s: getEligibilityForService without a handler\n", kClassName);
    std::abort();
  }
  const auto operation = std::make_shared<HSStoreURLOperation>(storeClient());
  operation->setNeedsAuthentication(false);
  operation->setURLBagKey("getSubscriptionStatusSrv");
  operation->setRequest(HSURLRequest::uncachedWithGUID());
  const auto answer = std::make_shared<EligibilityAnswer>();
  operation->setOutputHandler(
      [answer](HSStoreURLOperation&, const Value& output) { answer->read(output); });
  operation->setCompletionHandler(
      [self = shared_from_this(), service, answer, handler = std::move(completionBlock)](
          HSOperation&, bool, const std::optional<Error>& error) {
        self->rememberEligibility(service, answer->eligible);
        handler(answer->eligible, answer->parseError ? answer->parseError : error);
      });
  HSOperationQueue::mainQueue().addOperation(operation);
}

}  // namespace tallow
