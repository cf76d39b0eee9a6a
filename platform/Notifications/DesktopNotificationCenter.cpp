#include "platform/Notifications/DesktopNotificationCenter.h"

#include <algorithm>
#include <utility>

#include "platform/Base/ASCII.h"
#include "platform/PropertyList/JSON.h"
#include "platform/VendBase/VBLogManager.h"
#include "platform/XPC/BusDaemon.h"
#include "platform/XPC/PeerConnection.h"
#include "platform/XPC/XPCTransaction.h"

namespace tallow {

namespace {

constexpr const char* kService = "org.freedesktop.Notifications";
constexpr PeerConnection::Address kNotificationService = {
    "desktop's notification service", kService, "/org/freedesktop/Notifications", kService};
constexpr const char* kDefaultAction = "default";  // a click on the notification itself
constexpr std::string_view kActionKey = "action:";
constexpr std::string_view kCloseKey = "close:";

enum Urgency : std::uint8_t { kNormal = 1, kCritical = 2 };
enum CloseReason : std::uint32_t { kExpired = 1, kDismissedByThePerson = 2 };

std::string sourceOf(const UserNotification& notification) {
  const std::string* const source = notification.userInfo["Source"].string();
  return source == nullptr ? "" : *source;
}

// For services that take the body as markup.
std::string escapedForMarkup(const std::string& text) {
  std::string escaped;
  for (const char& c : text) escaped += ascii::markupOf(c);
  return escaped;
}

std::vector<std::string> actionsOf(const UserNotification& notification) {
  std::vector<std::string> actions = {kDefaultAction, notification.title};
  const std::string source = sourceOf(notification);
  const auto add = [&](std::string_view key, const std::string& title) {
    if (title.empty()) return;
    actions.push_back(std::string(key) + source);
    actions.push_back(title);
  };
  add(kActionKey, notification.actionButtonTitle);
  add(kCloseKey, notification.otherButtonTitle);
  return actions;
}

}  // namespace

DesktopNotificationCenter::DesktopNotificationCenter(std::string identifier)
    : _identifier(std::move(identifier)),
      _queue("UserNotificationCenter Queue (" + _identifier + ")") {}

DesktopNotificationCenter::~DesktopNotificationCenter() = default;

template <class Work>
auto DesktopNotificationCenter::onQueue(Work work) {
  return [weak = weak_from_this(), work](auto... heard) {
    const auto self = weak.lock();
    if (!self) return;
    self->_queue.async([self, work, heard...] { work(*self, heard...); });
  };
}

void DesktopNotificationCenter::deliverNotification(UserNotification notification) {
  _queue.async([self = shared_from_this(), notification = std::move(notification)] {
    self->_deliver(notification);
  });
}

void DesktopNotificationCenter::_deliver(const UserNotification& notification) {
  if (_beingShown == kMaxShown)
    return logLevel(1, "%@: too much is being shown already; not %@",
                    UserNotificationCenter::kClassName, notification);
  ++_beingShown;
  const std::shared_ptr<void> turn(
      nullptr, [self = shared_from_this(), transaction = XPCTransaction::work()](void*) {
        --self->_beingShown;
      });
  _listen();
  const std::function<void(std::optional<Error>, std::vector<std::string>)> asked = onQueue(
      [notification, turn](DesktopNotificationCenter& self, const std::optional<Error>& error,
                           const std::vector<std::string>& capabilities) {
        if (error)
          return logLevel(1, "%@: cannot show %@: %@", UserNotificationCenter::kClassName,
                          notification, *error);
        const auto can = [&](const char* what) {
          return std::find(capabilities.begin(), capabilities.end(), what) != capabilities.end();
        };
        self._serviceKeepsExpired = can("persistence");
        self._notify(notification, can("body-markup"), turn);
      });
  PeerConnection::call<std::vector<std::string>>(kNotificationService, "GetCapabilities",
                                                 PeerConnection::kUsualPatience, asked);
}

void DesktopNotificationCenter::_notify(const UserNotification& notification, bool bodyIsMarkup,
                                        const std::shared_ptr<void>& turn) {
  const auto delegate = delegateFor(_identifier);
  const bool present =
      delegate && delegate->userNotificationCenterShouldPresentNotification(*this, notification);
  const std::map<std::string, sdbus::Variant> hints = {
      {"urgency", sdbus::Variant(static_cast<std::uint8_t>(present ? kCritical : kNormal))},
      {"desktop-entry", sdbus::Variant(_identifier)},
      {"x-vantor-user-info", sdbus::Variant(JSON::encode(notification.userInfo))},
  };
  const std::function<void(std::optional<Error>, std::uint32_t)> shown =
      onQueue([notification, turn](DesktopNotificationCenter& self,
                                   const std::optional<Error>& error, std::uint32_t number) {
        if (error)
          return logLevel(1, "%@: cannot show %@: %@", UserNotificationCenter::kClassName,
                          notification, *error);
        self._hasBeenShown(number, notification);
      });
  constexpr std::uint32_t kReplacesNone = 0;
  constexpr std::int32_t kServiceDecidesHowLong = -1;
  PeerConnection::call<std::uint32_t>(
      kNotificationService, "Notify", PeerConnection::kUsualPatience, shown, _identifier,
      kReplacesNone, std::string(), notification.title,
      bodyIsMarkup ? escapedForMarkup(notification.informativeText) : notification.informativeText,
      actionsOf(notification), hints, kServiceDecidesHowLong);
}

void DesktopNotificationCenter::_hasBeenShown(std::uint32_t number,
                                              const UserNotification& notification) {
  _shown.insert_or_assign(number, Shown{notification, XPCTransaction::hold()});
  if (_shown.size() > kMaxShown) _shown.erase(_shown.begin());
  _tellDelegate(&UserNotificationCenterDelegate::userNotificationCenterDidDeliverNotification,
                notification);
}

void DesktopNotificationCenter::_listen() {
  const auto bus = PeerConnection::bus();
  if (!bus || _heard == bus) return;
  // The matches on the bus before this one go with it.
  bus->post([weak = weak_from_this(), before = std::exchange(_heard, bus), now = bus.get()] {
    if (const auto self = weak.lock()) self->_addMatches(*now);
  });
}

void DesktopNotificationCenter::_addMatches(BusConnection& bus) {
  const std::string ofService =
      "type='signal',path='/org/freedesktop/Notifications',"
      "interface='org.freedesktop.Notifications',sender='" +
      std::string(kService) + "',member=";
  const auto invoked = onQueue([](DesktopNotificationCenter& self, std::uint32_t number,
                                  const std::string& key) { self._actionInvoked(number, key); });
  const auto closed = onQueue([](DesktopNotificationCenter& self, std::uint32_t number,
                                 std::uint32_t reason) { self._closed(number, reason); });
  const auto gone = onQueue([](DesktopNotificationCenter& self) { self._shown.clear(); });
  _matches.clear();
  try {
    _matches.push_back(
        bus::addMatch(bus.connection(), ofService + "'ActionInvoked'", [invoked](auto&& signal) {
          std::uint32_t number = 0;
          std::string key;
          signal >> number >> key;
          invoked(number, key);
        }));
    _matches.push_back(bus::addMatch(bus.connection(), ofService + "'NotificationClosed'",
                                     [closed](auto&& signal) {
                                       std::uint32_t number = 0;
                                       std::uint32_t reason = 0;
                                       signal >> number >> reason;
                                       closed(number, reason);
                                     }));
    _matches.push_back(bus::watchOwner(bus.connection(), kService,
                                       [gone](const std::string&, const std::string&) { gone(); }));
  } catch (const sdbus::Error& error) {
    logLevel(1, "%@: cannot listen to the notification service: %@",
             UserNotificationCenter::kClassName, error.getMessage());
  }
}

std::optional<UserNotification> DesktopNotificationCenter::_take(std::uint32_t number) {
  auto found = _shown.extract(number);
  return found ? std::optional(std::move(found.mapped().notification)) : std::nullopt;
}

void DesktopNotificationCenter::_actionInvoked(std::uint32_t number, const std::string& key) {
  const auto found = _shown.find(number);
  if (found == _shown.end()) return;  // somebody else's
  const std::string source = sourceOf(found->second.notification);
  const bool isClose = key == std::string(kCloseKey) + source;
  if (!isClose && key != kDefaultAction && key != std::string(kActionKey) + source)
    return logLevel(1, "%@: Ignoring action %@ of %@", UserNotificationCenter::kClassName, key,
                    found->second.notification);
  const auto notification = _take(number);
  // Most services take a notification away that has been answered, some leave that to its owner.
  PeerConnection::call<>(kNotificationService, "CloseNotification", PeerConnection::kUsualPatience,
                         std::function<void(std::optional<Error>)>(), number);
  _tellDelegate(
      isClose ? &UserNotificationCenterDelegate::userNotificationCenterDidDismissAlert
              : &UserNotificationCenterDelegate::userNotificationCenterDidActivateNotification,
      *notification);
}

// Where the service keeps what has expired, its buttons still work.
void DesktopNotificationCenter::_closed(std::uint32_t number, std::uint32_t reason) {
  if (reason == kExpired && _serviceKeepsExpired) return;
  const auto notification = _take(number);
  if (notification && reason == kDismissedByThePerson)
    _tellDelegate(&UserNotificationCenterDelegate::userNotificationCenterDidDismissAlert,
                  *notification);
}

void DesktopNotificationCenter::_tellDelegate(DelegateCall what,
                                              const UserNotification& notification) {
  if (const auto delegate = delegateFor(_identifier)) ((*delegate).*what)(*this, notification);
}

}  // namespace tallow
