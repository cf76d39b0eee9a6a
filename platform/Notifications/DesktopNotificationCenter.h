#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Concurrency/SerialQueue.h"
#include "platform/Notifications/UserNotificationCenter.h"
#include "platform/XPC/BusConnection.h"

namespace tallow {

// The centre over org.freedesktop.Notifications. Everything happens on its queue; the thread that
// reads the bus only hands over what it has heard.
//
// What the person does comes back as a number and the key of an action. The number is only good
// with the notification service that gave it, so all are forgotten when that one leaves; and the
// key carries the notification's "Source", which has to be that of the notification of that number.
class DesktopNotificationCenter final
    : public UserNotificationCenter,
      public std::enable_shared_from_this<DesktopNotificationCenter> {
 public:
  explicit DesktopNotificationCenter(std::string identifier);
  ~DesktopNotificationCenter() override;

  void deliverNotification(UserNotification notification) override;

 private:
  using DelegateCall = void (UserNotificationCenterDelegate::*)(UserNotificationCenter&,
                                                                const UserNotification&);

  void _deliver(const UserNotification& notification);
  void _notify(const UserNotification& notification, bool bodyIsMarkup,
               const std::shared_ptr<void>& turn);
  void _hasBeenShown(std::uint32_t number, const UserNotification& notification);
  void _listen();
  void _addMatches(BusConnection& bus);
  void _actionInvoked(std::uint32_t number, const std::string& key);
  void _closed(std::uint32_t number, std::uint32_t reason);
  void _tellDelegate(DelegateCall what, const UserNotification& notification);
  std::optional<UserNotification> _take(std::uint32_t number);
  // Runs `work` on the queue as long as this centre lives.
  template <class Work>
  auto onQueue(Work work);

  const std::string _identifier;
  SerialQueue _queue;
  struct Shown {
    UserNotification notification;
    std::shared_ptr<void> transaction;  // whoever answers is to find the process there
  };
  std::map<std::uint32_t, Shown> _shown;    // on _queue
  bool _serviceKeepsExpired = false;        // on _queue
  std::atomic<std::size_t> _beingShown{0};  // asked for, and not yet answered
  // The bus that is listened to; kept, since the matches need it to the end.
  std::shared_ptr<BusConnection> _heard;  // on _queue
  std::vector<sdbus::Slot> _matches;      // reading thread of that bus
};

}  // namespace tallow
