#include "platform/Notifications/UserNotificationCenter.h"

#include <map>
#include <mutex>
#include <utility>

#include "platform/Notifications/DesktopNotificationCenter.h"

namespace tallow {

namespace {

struct Centers {
  std::mutex lock;
  std::map<std::string, std::shared_ptr<UserNotificationCenter>> centers;
  std::map<std::string, UserNotificationCenter::DelegateProvider> providers;
  UserNotificationCenter::Factory factory;
};

Centers& allCenters() {
  static Centers& centers = *new Centers;
  return centers;
}

}  // namespace

std::shared_ptr<UserNotificationCenter> UserNotificationCenter::_centerForIdentifier(
    const std::string& identifier, std::int64_t type) {
  Centers& all = allCenters();
  const std::lock_guard lock(all.lock);
  if (all.factory) return all.factory(identifier, type);
  auto& center = all.centers[identifier];
  if (!center) center = std::make_shared<DesktopNotificationCenter>(identifier);
  return center;
}

void UserNotificationCenter::setDelegateProvider(const std::string& identifier,
                                                 DelegateProvider provider) {
  Centers& all = allCenters();
  const std::lock_guard lock(all.lock);
  all.providers[identifier] = std::move(provider);
}

UserNotificationCenter::Factory UserNotificationCenter::setFactory(Factory factory) {
  Centers& all = allCenters();
  const std::lock_guard lock(all.lock);
  return std::exchange(all.factory, std::move(factory));
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
