#include "platform/XPC/PushServiceConnection.h"

#include <utility>
#include <vector>

#include "platform/Base/SharedInstance.h"
#include "platform/VendBase/HSError.h"
#include "platform/VendBase/VBLogManager.h"
#include "platform/XPC/BusDaemon.h"
#include "platform/XPC/PeerConnection.h"

namespace tallow {

namespace {

constexpr const char* kPath = "/com/vantor/quillonpushagent";
constexpr const char* kInterface = "com.vantor.PushServiceProtocol";

using Tokens = std::vector<std::vector<std::uint8_t>>;  // at most one

class BusPushServiceConnection final
    : public PushServiceConnection,
      public std::enable_shared_from_this<BusPushServiceConnection> {
 public:
  explicit BusPushServiceConnection(std::string serviceName)
      : _serviceName(std::move(serviceName)) {}
  ~BusPushServiceConnection() override {
    // Perhaps in the match's own handler, which must not lose what it runs on.
    if (!_ownerWatch) return;
    _bus->post([match = std::make_shared<sdbus::Slot>(std::move(_ownerWatch))] {});
  }

  void setInterruptionHandler(Handler handler) override { _interrupted = std::move(handler); }
  void setInvalidationHandler(Handler handler) override { _invalidated = std::move(handler); }

  void resume() override {
    _bus = PeerConnection::bus();
    if (!_bus) return _tell(_invalidated);
    _bus->post([weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->_watchOwner();
    });
  }

  void getDeviceTokenForEnvironmentNamed(std::optional<std::string> environmentName,
                                         TokenReply reply) override {
    std::vector<std::string> environment;
    if (environmentName) environment.push_back(*std::move(environmentName));
    const PeerConnection::Address agent{"push agent", _serviceName.c_str(), kPath, kInterface};
    // Keeps the connection until the agent has answered.
    std::function<void(std::optional<Error>, bool, Tokens)> answered =
        [self = shared_from_this(), reply = std::move(reply)](const std::optional<Error>& error,
                                                              bool success, Tokens tokens) {
          if (error && PeerConnection::cannotBeReached(*error)) self->_tell(self->_invalidated);
          std::optional<Data> token;
          if (!error && !tokens.empty()) token = Data(std::move(tokens.front()));
          reply(!error && success, std::move(token));
        };
    PeerConnection::call<bool, Tokens>(agent, "getDeviceTokenForEnvironmentNamed",
                                       PeerConnection::kUsualPatience, std::move(answered),
                                       std::move(environment));
  }

 private:
  void _watchOwner() {
    try {
      _ownerWatch =
          bus::watchOwner(_bus->connection(), _serviceName,
                          [weak = weak_from_this()](const std::string& before, const std::string&) {
                            // An agent that has just been started is no loss.
                            const auto self = weak.lock();
                            if (self && !before.empty()) self->_tell(self->_interrupted);
                          });
    } catch (const sdbus::Error& error) {
      logLevel(1, "%@: cannot watch %@: %@", PushServiceConnection::kClassName, _serviceName,
               error.getMessage());
      _tell(_invalidated);
    }
  }

  static void _tell(const Handler& handler) {
    if (handler) handler();
  }

  const std::string _serviceName;
  std::shared_ptr<BusConnection> _bus;  // set by resume()
  Handler _interrupted, _invalidated;   // fixed by resume()
  sdbus::Slot _ownerWatch;              // reading thread
};

}  // namespace

std::shared_ptr<PushServiceConnection> PushServiceConnection::initWithMachServiceName(
    std::string serviceName) {
  return SharedInstance<Factory>::get([] {
    return std::make_unique<Factory>([](std::string name) {
      return std::make_shared<BusPushServiceConnection>(std::move(name));
    });
  })(std::move(serviceName));
}

}  // namespace tallow
