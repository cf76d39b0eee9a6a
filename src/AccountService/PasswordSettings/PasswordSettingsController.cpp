#include "src/AccountService/PasswordSettings/PasswordSettingsController.h"

#include <utility>

#include "platform/VendBase/HSOperationQueue.h"
#include "src/AccountService/PasswordSettings/GetPasswordSettingsOperation.h"
#include "src/AccountService/PasswordSettings/UpdatePasswordSettingsOperation.h"

namespace tallow {

ClientRegistry<PasswordSettingsController>& PasswordSettingsController::registry() {
  // Without the s: who looks for this line in old logs looks for these words. Nothing depends on
  // what the client's descriptor says, so no change of it replaces a controller.
  static auto& registry =
      *new ClientRegistry<PasswordSettingsController>({"passwordSettingControllerForClient:", ""});
  return registry;
}

std::shared_ptr<PasswordSettingsController>
PasswordSettingsController::passwordSettingsControllerForClient(
    const std::shared_ptr<const HSStoreClient>& client) {
  return registry().entryForClient(client);
}

std::shared_ptr<PasswordSettingsController> PasswordSettingsController::initWithStoreClient(
    std::shared_ptr<const HSStoreClient> client) {
  return std::shared_ptr<PasswordSettingsController>(
      new PasswordSettingsController(std::move(client)));
}

PasswordSettingsController::PasswordSettingsController(std::shared_ptr<const HSStoreClient> client)
    : ClientController(std::move(client)) {}

std::shared_ptr<HSOperation> PasswordSettingsController::getPasswordSettings(
    SettingsReply reply) const {
  const auto operation = std::make_shared<GetPasswordSettingsOperation>(storeClient());
  operation->setCompletionHandler(
      [reply = std::move(reply)](HSOperation& finished, bool, const std::optional<Error>& error) {
        if (!reply) return;
        // Whether it succeeded is not told: an empty dictionary or none, and the error, say enough.
        reply(static_cast<GetPasswordSettingsOperation&>(finished).passwordSettings(), error);
      });
  HSOperationQueue::mainQueue().addOperation(operation);
  return operation;
}

std::shared_ptr<HSOperation> PasswordSettingsController::updatePasswordSettings(
    std::optional<Dictionary> settings, UpdateReply reply) const {
  const auto operation = std::make_shared<UpdatePasswordSettingsOperation>(storeClient());
  operation->setPasswordSettings(std::move(settings));
  operation->setCompletionHandler(
      [reply = std::move(reply)](HSOperation&, bool success, const std::optional<Error>& error) {
        if (reply) reply(success, error);
      });
  HSOperationQueue::mainQueue().addOperation(operation);
  return operation;
}

}  // namespace tallow
