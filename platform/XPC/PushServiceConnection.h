#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/Base/Data.h"

namespace tallow {

// A connection to the push agent, another process of the system, which holds the device's push
// token. The bus starts the agent at the first question, and again when it has ended.
//
// Owned by whoever asks. Any thread.
class PushServiceConnection {
 public:
  static constexpr const char* kClassName = "PushServiceConnection";  // in log lines

  using Handler = std::function<void()>;
  // Called exactly once for each question, on any thread; it must not block. Not successful and
  // without a token when the agent is not there, goes away, or does not answer in time.
  using TokenReply = std::function<void(bool success, std::optional<Data> token)>;

  // The agent under that name, on the bus that this process serves. Nothing is sent before
  // resume().
  static std::shared_ptr<PushServiceConnection> initWithMachServiceName(std::string serviceName);
  virtual ~PushServiceConnection() = default;

  // Before resume(). Called each time the agent has left the bus; or could not be reached at all.
  // On any thread, and not once the connection has been dropped.
  virtual void setInterruptionHandler(Handler handler) = 0;
  virtual void setInvalidationHandler(Handler handler) = 0;
  virtual void resume() = 0;

  // A nil name is passed on as it is: the agent has to refuse it.
  virtual void getDeviceTokenForEnvironmentNamed(std::optional<std::string> environmentName,
                                                 TokenReply reply) = 0;

  // What makes the connections. The process's shared one leads to the bus.
  using Factory = std::function<std::shared_ptr<PushServiceConnection>(std::string serviceName)>;
};

}  // namespace tallow
