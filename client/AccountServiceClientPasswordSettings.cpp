// The client's calls that are about password settings.

#include "client/AccountServiceClient.h"
#include "client/ClientCalls.h"

namespace tallow {

Result<AccountServiceClient::PasswordSettings> AccountServiceClient::passwordSettings() {
  return ask(*_connection, [](ServiceSession& service) {
    auto [settings, error] = service.getPasswordSettings();
    PasswordSettings answer;
    if (!settings.empty()) answer.settings = std::move(settings.front().value);
    answer.error = firstOf(error);
    return answer;
  });
}

Result<AccountServiceClient::PasswordSettingsUpdate> AccountServiceClient::updatePasswordSettings(
    const std::optional<Dictionary>& settings) {
  return ask(*_connection, [&](ServiceSession& service) {
    auto [success, error] = service.updatePasswordSettings(wire::optionalDictionary(settings));
    return PasswordSettingsUpdate{success, firstOf(error)};
  });
}

}  // namespace tallow
