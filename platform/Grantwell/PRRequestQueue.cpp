#include "platform/Grantwell/PRRequestQueue.h"

#include <utility>

#include "platform/Base/SharedInstance.h"
#include "platform/PropertyList/PropertyList.h"
#include "platform/VendBase/VBLogManager.h"
#include "platform/XPC/PeerBacklog.h"
#include "platform/XPC/PeerConnection.h"

namespace tallow {

namespace {

constexpr PeerConnection::Address kPermissionService = {
    "purchase-permission service", "com.vantor.grantwell", "/com/vantor/grantwell",
    "com.vantor.PRRequestQueue"};

class BusRequestQueue final : public PRRequestQueue {
 public:
  explicit BusRequestQueue(std::string identifier) : _identifier(std::move(identifier)) {}

  void _didReceiveStorePushNotificationWithPayload(const Dictionary& payload) override {
    static PeerBacklog& backlog = *new PeerBacklog(kPermissionService.what);
    backlog.add([identifier = _identifier, payload](
                    const PeerBacklog::Answered& answered) { hand(identifier, payload, answered); },
                PropertyList::encode(payload, PropertyList::Format::Binary).length());
  }

 private:
  static void hand(const std::string& identifier, const Dictionary& payload,
                   const PeerBacklog::Answered& answered) {
    std::function<void(std::optional<Error>)> done = [identifier,
                                                      answered](const std::optional<Error>& error) {
      if (answered(error) && error)
        logLevel(1, "%@: %@ has not taken a store push: %@", PRRequestQueue::kClassName, identifier,
                 *error);
    };
    PeerConnection::call<>(kPermissionService, "_didReceiveStorePushNotificationWithPayload",
                           PeerBacklog::kPatience, std::move(done), identifier,
                           wire::dictionary(payload));
  }

  const std::string _identifier;
};

}  // namespace

std::shared_ptr<PRRequestQueue> PRRequestQueue::_requestQueueForIdentifier(
    const std::string& identifier) {
  return SharedInstance<Factory>::get([] {
    return std::make_unique<Factory>(
        [](const std::string& name) { return std::make_shared<BusRequestQueue>(name); });
  })(identifier);
}

}  // namespace tallow
