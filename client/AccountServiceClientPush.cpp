// The client's calls that are about pushes and device set-up.

#include <tuple>

#include "client/AccountServiceClient.h"
#include "client/ClientCalls.h"

namespace tallow {

namespace {

// For calls that answer whether they went well, and if not, why.
template <class Call>
std::optional<Error> tellOfSuccess(ServiceConnection& connection, Call call) {
  const Result<std::optional<Error>> answer = ask(connection, [&](ServiceSession& service) {
    auto [success, error] = call(service);
    if (success) return std::optional<Error>();
    const std::optional<Error> given = firstOf(error);
    return given ? given
                 : std::optional(makeError(AccountServiceClient::kErrorDomain,
                                           AccountServiceClient::kFailed,
                                           "The service does not say why it failed."));
  });
  return answer ? *answer : answer.error();
}

}  // namespace

std::optional<Error> AccountServiceClient::registerDeviceTokenForEnvironmentNamed(
    const std::string& environmentName) {
  return tellOfSuccess(*_connection, [&](ServiceSession& service) {
    return service.registerDeviceTokenForEnvironmentNamed(environmentName);
  });
}

Result<AccountServiceClient::MediaTypes> AccountServiceClient::getEnabledMediaTypes() {
  return ask(*_connection, [](ServiceSession& service) {
    auto [success, error, mask] = service.getEnabledMediaTypes();
    return MediaTypes{success, firstOf(error), mask};
  });
}

std::optional<Error> AccountServiceClient::enableAutoDownloadForEnvironmentNamed(
    const std::string& environmentName) {
  return tellOfSuccess(*_connection, [&](ServiceSession& service) {
    return service.enableAutoDownloadForEnvironmentNamed(environmentName);
  });
}

std::optional<Error> AccountServiceClient::disableAutoDownload() {
  return tellOfSuccess(*_connection,
                       [](ServiceSession& service) { return service.disableAutoDownload(); });
}

Result<bool> AccountServiceClient::isRegisteredForAccount(std::uint64_t dsID, std::int64_t mask) {
  return ask(*_connection, [&](ServiceSession& service) {
    return std::get<2>(service.isRegisteredForAccount(dsID, mask));
  });
}

std::optional<Error> AccountServiceClient::handlePushNotificationMessage(
    const Dictionary& message) {
  return tell(*_connection, [&](ServiceSession& service) {
    service.handlePushNotificationMessage(wire::dictionary(message));
  });
}

std::optional<Error> AccountServiceClient::completeSetupWithResponse(const Dictionary& response) {
  return tellOfSuccess(*_connection, [&](ServiceSession& service) {
    return service.completeSetupWithResponse(wire::dictionary(response));
  });
}

}  // namespace tallow
