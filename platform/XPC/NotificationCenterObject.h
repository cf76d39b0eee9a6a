#pragma once

#include "bus/com.vantor.DistributedNotificationCenter_adaptor.h"
#include "platform/XPC/SDBus.h"

namespace tallow {

// What distributed notifications are sent from: the object at `path`. Owned by the listener; while
// it lives, it is the outlet of DistributedNotificationCenter.
class NotificationCenterObject final
    : public sdbus::AdaptorInterfaces<com::vantor::DistributedNotificationCenter_adaptor> {
 public:
  NotificationCenterObject(sdbus::IConnection& connection, const char* path);
  ~NotificationCenterObject();
  NotificationCenterObject(const NotificationCenterObject&) = delete;
  NotificationCenterObject& operator=(const NotificationCenterObject&) = delete;

 private:
  void _post(const std::string& name, const std::string& object);
};

}  // namespace tallow
