#pragma once

#include <functional>
#include <string>

namespace tallow {

// Notifications to whoever on the bus listens, without an addressee: the signal Posted of
// com.vantor.DistributedNotificationCenter, sent from the object that the service is. Any thread.
class DistributedNotificationCenter {
 public:
  virtual ~DistributedNotificationCenter() = default;
  static DistributedNotificationCenter& shared();

  // Returns without waiting for anybody. Where the service is not on a bus nobody can listen: then
  // it is logged and lost.
  virtual void postNotificationName(const std::string& name, const std::string& object) = 0;

  // By the listener: how notifications leave the process; empty when they no longer can.
  using Outlet = std::function<void(const std::string& name, const std::string& object)>;
  static void setOutlet(Outlet outlet);
};

}  // namespace tallow
