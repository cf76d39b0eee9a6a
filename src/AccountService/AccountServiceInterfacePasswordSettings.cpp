// The operations of the interface that are about password settings.

#include <utility>

#include "src/AccountService/AccountServiceInterface.h"
#include "src/AccountService/PasswordSettings/PasswordSettingsController.h"

namespace tallow {

// A client without an identifier has no controller, and gets no answer. The controllers themselves
// make nobody wait.

void AccountServiceInterface::getPasswordSettings(
    Reply<std::optional<Dictionary>, std::optional<Error>> reply) {
  nowOrOnRequestQueue(
      [&] {
        const auto controller =
            PasswordSettingsController::registry().entryForClientIfAtHand(storeClient());
        if (controller) cancelWithCaller(controller->getPasswordSettings(reply));
        return controller != nullptr;
      },
      [this, reply] {
        if (const auto controller =
                PasswordSettingsController::passwordSettingsControllerForClient(storeClient()))
          cancelWithCaller(controller->getPasswordSettings(reply));
      });
}

void AccountServiceInterface::updatePasswordSettings(std::optional<Dictionary> settings,
                                                     Reply<bool, std::optional<Error>> reply) {
  onRequestQueue([this, settings = std::move(settings), reply] {
    if (const auto controller =
            PasswordSettingsController::passwordSettingsControllerForClient(storeClient()))
      cancelWithCaller(controller->updatePasswordSettings(settings, reply));
  });
}

}  // namespace tallow
