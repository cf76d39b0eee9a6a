#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/Base/Value.h"

namespace tallow {

inline constexpr const char* kPRRequestQueueHarlowStoreIdentifier = "com.vantor.harlow.store";

// One queue of requests for permission to buy, kept by the purchase-permission service on the bus
// (interfaces/com.vantor.PRRequestQueue.xml). Any thread may call; nothing waits.
class PRRequestQueue {
 public:
  static constexpr const char* kClassName = "PRRequestQueue";  // in log lines

  static std::shared_ptr<PRRequestQueue> _requestQueueForIdentifier(const std::string& identifier);
  virtual ~PRRequestQueue() = default;

  // Hands a store push over, whole. A service that is not there, or refuses it, is logged.
  virtual void _didReceiveStorePushNotificationWithPayload(const Dictionary& payload) = 0;

  // What makes the queues. The process's shared one leads to the bus.
  using Factory = std::function<std::shared_ptr<PRRequestQueue>(const std::string& identifier)>;
};

}  // namespace tallow
