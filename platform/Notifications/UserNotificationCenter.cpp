#include "platform/Notifications/UserNotificationCenter.h"

#include <map>
#include <mutex>
#include <utility>

#include "platform/Base/SharedInstance.h"
#include "platform/Notifications/DesktopNotificationCenter.h"

namespace tallow {

namespace {

struct Centers {
  std::mutex lock;
  std::map<std::string, std::shared_ptr<UserNotificationCenter>> centers;
  std::map<std::string, UserNotificationCenter::DelegateProvider> providers;
};

Centers& allCenters() {
  static Centers& centers = *new Centers;
  return centers;
}

std::shared_ptr<UserNotificationCenter> desktopCenter(const std::string& identifier,
                                                      std::int64_t /*type*/) {
  Centers& all = allCenters();
  const std::lock_guard lock(all.lock);
  auto& center = all.centers[identifier];
  if (!center) center = std::make_shared<DesktopNotificationCenter>(identifier);
  return center;
}

}  // namespace

std::shared_ptr<UserNotificationCenter> UserNotificationCenter::_centerForIdentifier(
    const std::string& identifier, std::int64_t type) {
  return SharedInstance<Factory>::get([] { return std::make_unique<Factory>(desktopCenter); })(
      identifier, type);
}

void UserNotificationCenter::setDelegateProvider(const std::string& identifier,
                                                 DelegateProvider provider) {
  Centers& all = allCenters();
  const std::lock_guard lock(all.lock);
  all.providers[identifier] = std::move(provider);
}

std::shared_ptr<UserNotificationCenterDelegate> UserNotificationCenter::delegateFor(
    const std::string& identifier) {
  DelegateProvider provider;
  {
    Centers& all = allCenters();
    const std::lock_guard lock(all.lock);
    const auto found = all.providers.find(identifier);
    if (found != all.providers.end()) provider = found->second;
  }
  return provider ? provider() : nullptr;
}

}  // namespace tallow
