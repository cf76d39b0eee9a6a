#include "src/PushServiceStoreDispatch.h"

#include <cstdlib>
#include <utility>

#include "platform/Grantwell/PRRequestQueue.h"
#include "platform/MerrowKit/MKLocalizedString.h"
#include "platform/MerrowKit/MKMachine.h"
#include "platform/VendBase/HSError.h"
#include "platform/VendBase/HSOperationQueue.h"
#include "platform/VendBase/HSServiceProxy.h"
#include "platform/VendBase/MediaTypeMask.h"
#include "platform/VendBase/SystemLog.h"
#include "platform/XPC/XPCTransaction.h"
#include "src/AccountService/AccountStore.h"
#include "src/Bag.h"

namespace tallow {

namespace {

// Keys of a push.
constexpr const char* kDSIDKey = "0";
constexpr const char* kKindKey = "1";

enum PushKind : std::int64_t {
  kCheckDownloads = 2,
  kFirstBuy = 4,
  kPurchasePermission = 7,
};

constexpr const char* kSourceKey = "Source";
constexpr const char* kFirstBuySource = "PushFirstBuy";

// 0, which is no kind, for what is no number.
std::int64_t kindOf(const Dictionary& push) {
  return push[kKindKey].signedValue();
}

void logLookUp(const std::shared_ptr<const HSStoreClient>& client) {
  if (client && client->identifier)
    logLevel(3, "%s %@", "+[PushServiceStoreDispatch pushServiceStoreDispatchForClient:]",
             client->identifier);
}

void endProcessAfter(const char* event) {
  systemLog("%s", event);
  std::exit(0);
}

}  // namespace

ClientRegistry<PushServiceStoreDispatch>& PushServiceStoreDispatch::registry() {
  static auto& registry = *new ClientRegistry<PushServiceStoreDispatch>(
      {"pushServiceStoreDispatchForClient:", /*switchingSubject=*/""});
  return registry;
}

std::shared_ptr<PushServiceStoreDispatch>
PushServiceStoreDispatch::pushServiceStoreDispatchForClient(
    const std::shared_ptr<const HSStoreClient>& client) {
  logLookUp(client);
  return registry().entryForClient(client);
}

std::shared_ptr<PushServiceStoreDispatch> PushServiceStoreDispatch::initWithStoreClient(
    std::shared_ptr<const HSStoreClient> client) {
  return std::shared_ptr<PushServiceStoreDispatch>(new PushServiceStoreDispatch(std::move(client)));
}

PushServiceStoreDispatch::PushServiceStoreDispatch(std::shared_ptr<const HSStoreClient> client)
    : ClientController(std::move(client)) {}

std::shared_ptr<HSStoreAccount> PushServiceStoreDispatch::primaryAccount() const {
  const auto store = AccountStore::accountStoreForClient(storeClient());
  return store ? store->primaryAccount() : nullptr;
}

std::optional<std::uint64_t> PushServiceStoreDispatch::primaryDSID() const {
  const auto account = primaryAccount();
  return account ? account->dsID() : std::nullopt;
}

bool PushServiceStoreDispatch::canStartAutodownloadForDSID(const Value& dsID) {
  if (dsID.unsignedValue() == 0) {
    logLevel(1, "%@: Ignoring push notification due to zero dsid in payload", kClassName);
    return false;
  }
  const auto store = AccountStore::accountStoreForClient(
      HSStoreClient::initWithStoreClientType(kHSStoreClientTypeStoreAgent));
  const auto account = store ? store->primaryAccount() : nullptr;
  const Value loggedIn(account ? account->dsID() : std::nullopt);
  if (loggedIn.isNil() || !(loggedIn == dsID)) {
    logLevel(1,
             "%@: Ignoring push notification due to account identifier mismatch (target=%@, "
             "logged_in=%@)",
             kClassName, dsID, loggedIn);
    return false;
  }
  if (account->isSignedIn()) return true;
  logLevel(1,
           "%@: Ignoring push notification due to primary account not being present and/or signed "
           "in",
           kClassName);
  return false;
}

// What is enabled for whom

void PushServiceStoreDispatch::setEnabledMediaType(std::int64_t mediaType,
                                                   std::optional<std::uint64_t> forDSID) {
  if (!forDSID) return;
  const std::lock_guard lock(_accountLock);
  _accountDictionary[std::to_string(*forDSID)] = mediaType;
}

std::int64_t PushServiceStoreDispatch::enabledMediaTypeForDSID(
    std::optional<std::uint64_t> dsID) const {
  if (!dsID) return 0;
  const std::lock_guard lock(_accountLock);
  const auto found = _accountDictionary.find(std::to_string(*dsID));
  return found != _accountDictionary.end() ? found->second : 0;
}

void PushServiceStoreDispatch::isRegisteredForAccount(
    std::optional<std::uint64_t> dsID, std::int64_t andMask,
    Reply<bool, std::optional<Error>, bool> reply) {
  systemLog("%s", "-[PushServiceStoreDispatch isRegisteredForAccount:andMask:withReply:]");
  bool isRegistered = false;
  if (dsID) {
    const std::lock_guard lock(_accountLock);
    const auto found = _accountDictionary.find(std::to_string(*dsID));
    isRegistered = found != _accountDictionary.end() && found->second == andMask;
  }
  if (reply) reply(true, std::nullopt, isRegistered);
}

// The push agent

std::shared_ptr<PushServiceConnection> PushServiceStoreDispatch::xpcConnection() {
  const std::lock_guard lock(_xpcConnectionLock);
  if (_xpcConnection && !_connectionLost) return _xpcConnection;
  _connectionLost = false;
  auto connection = PushServiceConnection::initWithMachServiceName(kPushAgentServiceName);
  connection->setInterruptionHandler([] {
    _connectionLost = true;
    logLevel(1, "PushServiceStoreDispatch xpcConnection interrupted");
  });
  connection->setInvalidationHandler([] {
    _connectionLost = true;
    logLevel(1, "PushServiceStoreDispatch xpcConnection invalidated");
  });
  connection->resume();
  _xpcConnection = connection;
  return connection;
}

bool PushServiceStoreDispatch::listenerShouldAcceptNewConnection(
    PushServiceStoreConnection& connection) {
  connection.setExportedObject(shared_from_this());
  connection.setInterruptionHandler([] { endProcessAfter("interrpted"); });
  connection.setInvalidationHandler([] { endProcessAfter("invalidated"); });
  connection.resume();
  return true;
}

// Registering with the store

void PushServiceStoreDispatch::registerDeviceTokenForEnvironmentNamed(
    std::optional<std::string> environmentName, BoolReply reply) {
  systemLog("%s", "-[PushServiceStoreDispatch registerDeviceTokenForEnvironmentNamed:withReply:]");
  registerToken(RegisterPushNotificationOperation::kRegisterTokenOnly, environmentName, reply,
                reply);
}

void PushServiceStoreDispatch::enableAutoDownloadForEnvironmentNamed(
    std::optional<std::string> environmentName, BoolReply reply) {
  systemLog("%s", "-[PushServiceStoreDispatch enableAutoDownloadForEnvironmentNamed:withReply:]");
  registerToken(
      RegisterPushNotificationOperation::kEnableAutoDownloads, environmentName, reply,
      [self = shared_from_this(), reply](bool success, const std::optional<Error>& error) {
        reply(success, error);
        if (success)
          self->setEnabledMediaType(self->storeClient()->mediaTypeMask, self->primaryDSID());
      });
}

void PushServiceStoreDispatch::disableAutoDownload(BoolReply reply) {
  using Operation = RegisterPushNotificationOperation;
  runRegistration(
      Dictionary{
          {Operation::kRegisterTypeKey, Value(std::uint64_t{Operation::kDisableAutoDownloads})},
          {Operation::kMediaTypeMaskKey, storeClient()->mediaTypeMask}},
      [self = shared_from_this(), reply](bool success, const std::optional<Error>& error) {
        reply(success, error);
        if (success) self->setEnabledMediaType(0, self->primaryDSID());
      });
}

void PushServiceStoreDispatch::registerToken(RegisterPushNotificationOperation::RegisterType type,
                                             const std::optional<std::string>& environmentName,
                                             const BoolReply& reply, Completion completion) {
  using Operation = RegisterPushNotificationOperation;
  xpcConnection()->getDeviceTokenForEnvironmentNamed(
      environmentName,
      [self = shared_from_this(), type, reply, completion = std::move(completion),
       transaction = XPCTransaction::work()](bool success, const std::optional<Data>& token) {
        if (!success || !token) {
          if (reply) reply(false, makeError(kClassName, -1, "Failed to get device token"));
          return;
        }
        self->runRegistration(
            Dictionary{{Operation::kRegisterTypeKey, Value(std::uint64_t{type})},
                       {Operation::kDeviceTokenKey, *token},
                       {Operation::kMediaTypeMaskKey, self->storeClient()->mediaTypeMask}},
            completion);
      });
}

void PushServiceStoreDispatch::runRegistration(const Dictionary& request,
                                               Completion completion) const {
  auto operation = std::make_shared<RegisterPushNotificationOperation>(request, storeClient());
  operation->setCompletionHandler(
      [completion = std::move(completion)](HSOperation&, bool success,
                                           const std::optional<Error>& error) {
        completion(success, error);
      });
  HSOperationQueue::mainQueue().addOperation(std::move(operation));
}

void PushServiceStoreDispatch::getEnabledMediaTypes(
    Reply<bool, std::optional<Error>, std::int64_t> reply) {
  auto operation =
      HSStoreURLOperation::propertyListOperationWithURLBagKey("enabled-media-types", storeClient());
  operation->setNeedsAuthentication(false);
  operation->setRequest(HSURLRequest::uncachedWithGUID());
  operation->setOutputHandler(
      [self = shared_from_this()](HSStoreURLOperation& finished, const Value& output) {
        self->takeEnabledMediaTypes(finished, output);
      });
  operation->setCompletionHandler(
      [self = shared_from_this(), reply = std::move(reply)](HSOperation&, bool success,
                                                            const std::optional<Error>& error) {
        if (reply) reply(success, error, self->enabledMediaTypeForDSID(self->primaryDSID()));
      });
  HSOperationQueue::mainQueue().addOperation(std::move(operation));
}

void PushServiceStoreDispatch::takeEnabledMediaTypes(HSStoreURLOperation& operation,
                                                     const Value& output) {
  const std::optional<std::uint64_t> dsID = primaryDSID();
  const Dictionary* const answer = output.dictionary();
  if (answer != nullptr) {
    if (const Array* const kinds = (*answer)["enabled-media-kinds"].array()) {
      setEnabledMediaType(tallow::mediaTypeMask(*kinds), dsID);
      operation.setSuccess(true);
      return;
    }
    if (!answer->contains("status") && !answer->contains("enabled-media-kinds")) {
      // The store knows nothing of this device: let it know again.
      setEnabledMediaType(0, dsID);
      operation.setSuccess(true);
      registerDeviceTokenForEnvironmentNamed(pushEnvironmentFromBag(),
                                             [](bool, const std::optional<Error>&) {});
      return;
    }
  }
  const std::int32_t status = answer != nullptr ? (*answer)["status"].intValue().value_or(0) : 0;
  operation.setSuccess(false);
  operation.setError(HSError(status, "Auto push", "Failed to get enabled mediaTypes"));
}

std::optional<std::string> PushServiceStoreDispatch::pushEnvironmentFromBag() const {
  const auto bag = Bag::initWithBagType(storeClient()->requiredBagType, storeClient(), {});
  const Value entry = bag->valueForKey("push-notifications");
  const Dictionary* const push = entry.dictionary();
  const std::string* const environment =
      push != nullptr ? (*push)["environment"].string() : nullptr;
  return environment != nullptr ? std::optional(*environment) : std::nullopt;
}

// Pushes that come in

bool PushServiceStoreDispatch::takePush(const Dictionary& message) const {
  logLevel(3, "%s %@ %@", "-[PushServiceStoreDispatch handlePushNotificationMessage:]",
           storeClient()->identifier, message);
  if (!message[kDSIDKey].isNil() && !message[kKindKey].isNil()) return true;
  logLevel(1, "%@: Received invalid payload: %@", kClassName, message);
  return false;
}

void PushServiceStoreDispatch::handlePushNotificationMessage(const Dictionary& message) {
  if (!takePush(message)) return;
  switch (kindOf(message)) {
    case kPurchasePermission:
      if (MKOnRecoveryPartition()) return;
      logLevel(3, "%@: Passing push notification payload on to Grantwell - %@", kClassName,
               message);
      PRRequestQueue::_requestQueueForIdentifier(kPRRequestQueueHarlowStoreIdentifier)
          ->_didReceiveStorePushNotificationWithPayload(message);
      return;
    case kFirstBuy:
      // The payload may go to two dispatches; the notification is for one.
      if (storeClient()->clientType == kHSStoreClientTypeStoreAgent)
        postFirstBuyNotification(message);
      return;
    case kCheckDownloads:
      checkDownloadsForDSID(message[kDSIDKey], primaryAccount());
      return;
    default:
      return;
  }
}

bool PushServiceStoreDispatch::handlePushNotificationMessageIfIdle(
    const Dictionary& message, const std::vector<std::shared_ptr<const HSStoreClient>>& clients) {
  // The other kinds look at files.
  if (kindOf(message) != kCheckDownloads || clients.empty()) return false;
  struct Ready {
    std::shared_ptr<PushServiceStoreDispatch> dispatch;
    std::shared_ptr<HSStoreAccount> account;
  };
  std::vector<Ready> all;
  for (const auto& client : clients) {
    auto dispatch = registry().entryForClientIfAtHand(client);
    const auto store = dispatch ? AccountStore::accountStoreForClientIfAtHand(client) : nullptr;
    auto account = store ? store->primaryAccountIfIdle() : std::nullopt;
    if (!account) return false;
    all.push_back({std::move(dispatch), *std::move(account)});
  }
  for (const Ready& each : all) {
    logLookUp(each.dispatch->storeClient());
    if (each.dispatch->takePush(message))
      each.dispatch->checkDownloadsForDSID(message[kDSIDKey], each.account);
  }
  return true;
}

void PushServiceStoreDispatch::checkDownloadsForDSID(
    const Value& dsID, const std::shared_ptr<HSStoreAccount>& account) {
  const auto& identifier = storeClient()->identifier;
  if (dsID.unsignedValue() == 0)
    return logLevel(1, "%@ (%@): Ignoring push notification due to zero dsid in payload",
                    kClassName, identifier);
  if (!account)
    return logLevel(1,
                    "%@ (%@): Ignoring push notification due to primary account not being present",
                    kClassName, identifier);
  const Value loggedIn(account->dsID());
  if (!(loggedIn == dsID))
    return logLevel(1,
                    "%@ (%@): Ignoring push notification due to account identifier mismatch "
                    "(target=%@, logged_in=%@)",
                    kClassName, identifier, dsID, loggedIn);
  if (!account->isSignedIn())
    return logLevel(1, "%@ (%@): Ignoring push notification due to primary account not signed in",
                    kClassName, identifier);
  if (!account->token())
    return logLevel(1,
                    "%@ (%@): Ignoring push notification due to primary account with expired token",
                    kClassName, identifier);
  // The push carries no list: the download service asks the store for it.
  HSServiceProxy(storeClient()).downloadService()->checkAutomaticDownloadQueue(nullptr);
}

void PushServiceStoreDispatch::postFirstBuyNotification(const Dictionary& message) {
  logLevel(1, "%@: postFirstBuyNotification:%@", kClassName, message);
  const auto center = UserNotificationCenter::_centerForIdentifier(
      kStoreApplicationIdentifier, UserNotificationCenter::kApplication);
  UserNotification notification;
  notification.userInfo = Dictionary{{kSourceKey, kFirstBuySource}};
  notification.title = MKLocalizedString("AUTO_PUSH_FIRST_BUY_NOTIFICATION_TITLE");
  notification.informativeText = MKLocalizedString("AUTO_PUSH_FIRST_BUY_NOTIFICATION_BODY");
  notification.actionButtonTitle =
      MKLocalizedString("AUTO_PUSH_FIRST_BUY_NOTIFICATION_ACTION_BUTTON");
  notification.otherButtonTitle =
      MKLocalizedString("AUTO_PUSH_FIRST_BUY_NOTIFICATION_CLOSE_BUTTON");
  logLevel(1, "%@: deliverNotification:%@", kClassName, notification);
  center->deliverNotification(std::move(notification));
}

// The notification centre's delegate

bool isPushFirstBuyNotification(const UserNotification& notification) {
  const std::string* const source = notification.userInfo[kSourceKey].string();
  return source != nullptr && *source == kFirstBuySource;
}

void PushServiceStoreDispatch::userNotificationCenterDidDeliverNotification(
    UserNotificationCenter&, const UserNotification& notification) {
  if (isPushFirstBuyNotification(notification))
    logLevel(1, "%@: didDeliverNotification:%@", kClassName, notification);
}

void PushServiceStoreDispatch::userNotificationCenterDidActivateNotification(
    UserNotificationCenter&, const UserNotification& notification) {
  if (!isPushFirstBuyNotification(notification)) return;
  logLevel(1, "%@: didActivateNotification:%@", kClassName, notification);
  enableAutoDownloadForEnvironmentNamed(pushEnvironmentFromBag(),
                                        [](bool, const std::optional<Error>&) {});
}

void PushServiceStoreDispatch::userNotificationCenterDidDismissAlert(
    UserNotificationCenter&, const UserNotification& notification) {
  if (isPushFirstBuyNotification(notification))
    logLevel(1, "%@: didDismissAlert:%@", kClassName, notification);
}

bool PushServiceStoreDispatch::userNotificationCenterShouldPresentNotification(
    UserNotificationCenter&, const UserNotification& notification) {
  return isPushFirstBuyNotification(notification);
}

}  // namespace tallow
