#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "platform/Notifications/UserNotification.h"

namespace tallow {

class UserNotificationCenter;

// Hears what becomes of notifications, on the centre's queue: one call at a time, in order.
class UserNotificationCenterDelegate {
 public:
  virtual ~UserNotificationCenterDelegate() = default;
  virtual void userNotificationCenterDidDeliverNotification(
      UserNotificationCenter& center, const UserNotification& notification) = 0;
  // The action button was pressed, or the notification itself.
  virtual void userNotificationCenterDidActivateNotification(
      UserNotificationCenter& center, const UserNotification& notification) = 0;
  // The other button was pressed, or the notification was closed by hand.
  virtual void userNotificationCenterDidDismissAlert(UserNotificationCenter& center,
                                                     const UserNotification& notification) = 0;
  // Whether it is to be shown even to somebody who does not want to be disturbed.
  virtual bool userNotificationCenterShouldPresentNotification(
      UserNotificationCenter& center, const UserNotification& notification) = 0;
};

// Shows notifications in an application's name: the desktop's notification service on the bus
// (org.freedesktop.Notifications, protocol 1.2). Where there is none, a posting is logged and
// that is all. One for each application, kept for the life of the process. Any thread; nothing
// waits.
class UserNotificationCenter {
 public:
  static constexpr const char* kClassName = "UserNotificationCenter";  // in log lines

  enum Type : std::int64_t { kApplication = 1 };
  // Notifications that are remembered until the person has done something; the oldest go. No more
  // than that are being shown at a time; the next is logged, and dropped.
  static constexpr std::size_t kMaxShown = 64;

  // `identifier` is the application's, under which its desktop entry is found.
  static std::shared_ptr<UserNotificationCenter> _centerForIdentifier(const std::string& identifier,
                                                                      std::int64_t type);
  virtual ~UserNotificationCenter() = default;

  virtual void deliverNotification(UserNotification notification) = 0;

  // Says who is the delegate of an application's centre. Asked for each event, on the centre's
  // queue, so that nobody need exist before there is something to hear. By the process's host.
  using DelegateProvider = std::function<std::shared_ptr<UserNotificationCenterDelegate>()>;
  static void setDelegateProvider(const std::string& identifier, DelegateProvider provider);

  // What makes or finds the centres. The process's shared one leads to the desktop's.
  using Factory = std::function<std::shared_ptr<UserNotificationCenter>(
      const std::string& identifier, std::int64_t type)>;

 protected:
  static std::shared_ptr<UserNotificationCenterDelegate> delegateFor(const std::string& identifier);
};

}  // namespace tallow
