#include "platform/XPC/DistributedNotificationCenter.h"

#include <memory>
#include <mutex>
#include <utility>

#include "platform/Base/SharedInstance.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {

namespace {

struct CurrentOutlet {
  std::mutex lock;
  DistributedNotificationCenter::Outlet outlet;
};

CurrentOutlet& currentOutlet() {
  static CurrentOutlet& current = *new CurrentOutlet;
  return current;
}

class BusNotificationCenter final : public DistributedNotificationCenter {
 public:
  void postNotificationName(const std::string& name, const std::string& object) override {
    CurrentOutlet& current = currentOutlet();
    // Held meanwhile, so that setOutlet returns when the one before is not in use any more.
    const std::lock_guard guard(current.lock);
    if (current.outlet)
      current.outlet(name, object);
    else
      logLevel(2, "DistributedNotificationCenter: no bus to post %@ on", name);
  }
};

}  // namespace

DistributedNotificationCenter& DistributedNotificationCenter::shared() {
  return SharedInstance<DistributedNotificationCenter>::get(
      [] { return std::make_unique<BusNotificationCenter>(); });
}

void DistributedNotificationCenter::setOutlet(Outlet outlet) {
  CurrentOutlet& current = currentOutlet();
  const std::lock_guard guard(current.lock);
  current.outlet = std::move(outlet);
}

}  // namespace tallow
