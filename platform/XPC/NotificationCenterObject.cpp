#include "platform/XPC/NotificationCenterObject.h"

#include "platform/VendBase/VBLogManager.h"
#include "platform/XPC/DistributedNotificationCenter.h"

namespace tallow {

NotificationCenterObject::NotificationCenterObject(sdbus::IConnection& connection, const char* path)
    : AdaptorInterfaces(connection, sdbus::ObjectPath{path}) {
  registerAdaptor();
  DistributedNotificationCenter::setOutlet(
      [this](const std::string& name, const std::string& object) { _post(name, object); });
}

NotificationCenterObject::~NotificationCenterObject() {
  DistributedNotificationCenter::setOutlet(nullptr);
  unregisterAdaptor();
}

void NotificationCenterObject::_post(const std::string& name, const std::string& object) {
  try {
    emitPosted(name, object);
  } catch (const sdbus::Error& error) {
    logLevel(1, "DistributedNotificationCenter: cannot post %@: %@", name, error.getMessage());
  }
}

}  // namespace tallow
