#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "platform/Base/Error.h"
#include "platform/Base/Value.h"
#include "src/ClientRegistry.h"

namespace tallow {

class HSOperation;

// The password settings of one store client's account: a dictionary that the store keeps. What is
// in it passes through unread in both directions. Holds no state but its client. Found through
// passwordSettingsControllerForClient, which owns it. Any thread may call; nothing here waits.
//
// An answer that is no property list at all fails with the request's own error (2).
class PasswordSettingsController final : public ClientController {
 public:
  static constexpr const char* kClassName = "PasswordSettingsController";

  // Settings are nil, or empty, where they could not be read; the error says why.
  using SettingsReply =
      std::function<void(std::optional<Dictionary> settings, std::optional<Error> error)>;
  using UpdateReply = std::function<void(bool success, std::optional<Error> error)>;

  // Null for a client without an identifier.
  static std::shared_ptr<PasswordSettingsController> passwordSettingsControllerForClient(
      const std::shared_ptr<const HSStoreClient>& client);
  static ClientRegistry<PasswordSettingsController>& registry();

  static std::shared_ptr<PasswordSettingsController> initWithStoreClient(
      std::shared_ptr<const HSStoreClient> client);

  // The reply runs on a thread of the main operation queue; it may be empty. Given back is what is
  // under way, for who may want to cancel it.
  std::shared_ptr<HSOperation> getPasswordSettings(SettingsReply reply) const;
  // The same. A person may be asked to sign in first, so this may take as long as they do. Nil
  // settings fail without an error.
  std::shared_ptr<HSOperation> updatePasswordSettings(std::optional<Dictionary> settings,
                                                      UpdateReply reply) const;

 private:
  explicit PasswordSettingsController(std::shared_ptr<const HSStoreClient> client);
};

}  // namespace tallow
