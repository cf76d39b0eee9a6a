#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/Notifications/UserNotificationCenter.h"
#include "platform/VendBase/PushServiceStoreProtocol.h"
#include "platform/XPC/PushServiceConnection.h"
#include "platform/XPC/PushServiceStoreConnection.h"
#include "src/ClientRegistry.h"
#include "src/RegisterPushNotificationOperation.h"

namespace tallow {

class HSStoreAccount;

// The single front for one store client's pushes: registers the device's push token with the store,
// turns automatic downloads on and off for the signed-in account, remembers what is enabled for
// whom, and reacts to the pushes that the push agent hands in. It is the service's client of that
// agent, from which it has the token.
//
// What is enabled is only remembered in memory: it starts empty with the process.
//
// Found through pushServiceStoreDispatchForClient, which owns it. Any thread may call; replies come
// on others. Register, enable and disable need a reply; the other operations take an empty one.
class PushServiceStoreDispatch final
    : public ClientController,
      public PushServiceStoreProtocol,
      public PushServiceStoreListenerDelegate,
      public UserNotificationCenterDelegate,
      public std::enable_shared_from_this<PushServiceStoreDispatch> {
 public:
  static constexpr const char* kClassName = "PushServiceStoreDispatch";
  static constexpr const char* kPushAgentServiceName = "com.vantor.quillonpushagent-xpc";
  // The store application, in whose name notifications are shown.
  static constexpr const char* kStoreApplicationIdentifier = "com.vantor.quillon";

  // The entry stays whatever becomes of the client's description. Null, logged, for a client
  // without an identifier.
  static std::shared_ptr<PushServiceStoreDispatch> pushServiceStoreDispatchForClient(
      const std::shared_ptr<const HSStoreClient>& client);
  static ClientRegistry<PushServiceStoreDispatch>& registry();
  static std::shared_ptr<PushServiceStoreDispatch> initWithStoreClient(
      std::shared_ptr<const HSStoreClient> client);

  // Whether a push aimed at the account may start automatic downloads: of the store agent's
  // accounts, it has to be the one that is signed in.
  static bool canStartAutodownloadForDSID(const Value& dsID);

  // A nil DSID is ignored, and nothing is enabled for it.
  void setEnabledMediaType(std::int64_t mediaType, std::optional<std::uint64_t> forDSID);
  std::int64_t enabledMediaTypeForDSID(std::optional<std::uint64_t> dsID) const;

  // The connection to the push agent: the one held, or, where any dispatch has seen its own lost, a
  // new one.
  std::shared_ptr<PushServiceConnection> xpcConnection();

  void registerDeviceTokenForEnvironmentNamed(std::optional<std::string> environmentName,
                                              Reply<bool, std::optional<Error>> reply) override;
  void getEnabledMediaTypes(Reply<bool, std::optional<Error>, std::int64_t> reply) override;
  void enableAutoDownloadForEnvironmentNamed(std::optional<std::string> environmentName,
                                             Reply<bool, std::optional<Error>> reply) override;
  void disableAutoDownload(Reply<bool, std::optional<Error>> reply) override;
  // Whether exactly these media kinds are known to be enabled for the account.
  void isRegisteredForAccount(std::optional<std::uint64_t> dsID, std::int64_t andMask,
                              Reply<bool, std::optional<Error>, bool> reply) override;
  void handlePushNotificationMessage(const Dictionary& message) override;
  // The same for the dispatches of all these clients, if there are any and it means no waiting for
  // anybody; else false, and nothing has happened.
  static bool handlePushNotificationMessageIfIdle(
      const Dictionary& message, const std::vector<std::shared_ptr<const HSStoreClient>>& clients);
  void postFirstBuyNotification(const Dictionary& message);

  // Accepts every connection. When that peer is lost the process ends, with status 0: such a
  // listener's process is there for its one peer.
  bool listenerShouldAcceptNewConnection(PushServiceStoreConnection& connection) override;

  // Each acts on first-buy notifications only.
  void userNotificationCenterDidDeliverNotification(UserNotificationCenter& center,
                                                    const UserNotification& notification) override;
  void userNotificationCenterDidActivateNotification(UserNotificationCenter& center,
                                                     const UserNotification& notification) override;
  void userNotificationCenterDidDismissAlert(UserNotificationCenter& center,
                                             const UserNotification& notification) override;
  bool userNotificationCenterShouldPresentNotification(
      UserNotificationCenter& center, const UserNotification& notification) override;

  // Whether a connection to the push agent has been lost since the last one was made.
  static bool connectionIsLost() { return _connectionLost; }

 private:
  using BoolReply = Reply<bool, std::optional<Error>>;
  using Completion = std::function<void(bool success, const std::optional<Error>& error)>;

  explicit PushServiceStoreDispatch(std::shared_ptr<const HSStoreClient> client);

  // Asks the push agent for the token and sends it to the store.
  void registerToken(RegisterPushNotificationOperation::RegisterType type,
                     const std::optional<std::string>& environmentName, const BoolReply& reply,
                     Completion completion);
  void runRegistration(const Dictionary& request, Completion completion) const;
  void takeEnabledMediaTypes(HSStoreURLOperation& operation, const Value& output);
  // Of the client's push notifications, as a bag of its own says: nil without such an entry.
  std::optional<std::string> pushEnvironmentFromBag() const;
  std::shared_ptr<HSStoreAccount> primaryAccount() const;
  std::optional<std::uint64_t> primaryDSID() const;
  // With what is to be known about the account, which may be null, already at hand.
  void checkDownloadsForDSID(const Value& dsID, const std::shared_ptr<HSStoreAccount>& account);
  // Logs the push; false for one that is none.
  bool takePush(const Dictionary& message) const;

  // Of all instances: any lost connection makes each make a new one when it next needs one.
  static inline std::atomic<bool> _connectionLost{false};

  std::mutex _xpcConnectionLock;
  std::shared_ptr<PushServiceConnection> _xpcConnection;  // guarded by _xpcConnectionLock

  mutable std::mutex _accountLock;
  // What is enabled, by the account's DSID in decimal.
  std::map<std::string, std::int64_t> _accountDictionary;  // guarded by _accountLock
};

// Whether the notification is the one that offers automatic downloads.
bool isPushFirstBuyNotification(const UserNotification& notification);

}  // namespace tallow
