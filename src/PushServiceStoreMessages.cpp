// What PushServiceStoreDispatch does with the pushes that come in, and with what the person at the
// desktop answers to them.

#include "platform/Grantwell/PRRequestQueue.h"
#include "platform/MerrowKit/MKLocalizedString.h"
#include "platform/MerrowKit/MKMachine.h"
#include "platform/VendBase/HSServiceProxy.h"
#include "src/AccountService/AccountStore.h"
#include "src/PushServiceStoreDispatch.h"

namespace tallow {

namespace {

constexpr const char* kDSIDKey = "0";
constexpr const char* kKindKey = "1";

enum PushKind : std::int64_t {
  kCheckDownloads = 2,
  kFirstBuy = 4,
  kPurchasePermission = 7,
};

constexpr const char* kSourceKey = "Source";
constexpr const char* kFirstBuySource = "PushFirstBuy";

}  // namespace

bool isPushFirstBuyNotification(const UserNotification& notification) {
  const std::string* const source = notification.userInfo[kSourceKey].string();
  return source != nullptr && *source == kFirstBuySource;
}

void PushServiceStoreDispatch::handlePushNotificationMessage(const Dictionary& message) {
  logLevel(3, "%s %@ %@", "-[PushServiceStoreDispatch handlePushNotificationMessage:]",
           storeClient()->identifier, message);
  const Value& dsID = message[kDSIDKey];
  const Value& kind = message[kKindKey];
  if (dsID.isNil() || kind.isNil()) {
    logLevel(1, "%@: Received invalid payload: %@", kClassName, message);
    return;
  }
  switch (kind.longLongValue().value_or(0)) {
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
      checkDownloadsForDSID(dsID);
      return;
    default:
      return;
  }
}

bool PushServiceStoreDispatch::handlePushNotificationMessageIfIdle(const Dictionary& message) {
  // The other kinds look at files.
  if (message[kKindKey].longLongValue() != kCheckDownloads) return false;
  const auto store = AccountStore::accountStoreForClientIfAtHand(storeClient());
  if (!store || !store->primaryAccountIfIdle()) return false;
  handlePushNotificationMessage(message);
  return true;
}

void PushServiceStoreDispatch::checkDownloadsForDSID(const Value& dsID) {
  const auto& identifier = storeClient()->identifier;
  if (dsID.unsignedValue() == 0)
    return logLevel(1, "%@ (%@): Ignoring push notification due to zero dsid in payload",
                    kClassName, identifier);
  const auto account = primaryAccount();
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
