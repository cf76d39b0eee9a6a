// The operations of the exported object that are about pushes and device set-up.

#include "platform/XPC/AccountServiceCalls.h"

namespace tallow {

namespace {

// The answer to whether something went well.
auto successReply(std::shared_ptr<PendingReply<bool, std::vector<WireError>>> reply) {
  return [reply = std::move(reply)](bool success, const std::optional<Error>& error) {
    reply->answer(success, wire::optionalError(error));
  };
}

}  // namespace

void AccountServiceObject::registerDeviceTokenForEnvironmentNamed(
    sdbus::Result<bool, std::vector<WireError>>&& result, std::string environmentName) {
  Arguments arguments;
  arguments.text("environmentName", environmentName);
  _call(std::move(result), std::move(arguments),
        [environmentName = std::move(environmentName)](Caller& caller, auto reply) mutable {
          caller.service().registerDeviceTokenForEnvironmentNamed(std::move(environmentName),
                                                                  successReply(std::move(reply)));
        });
}

void AccountServiceObject::getEnabledMediaTypes(
    sdbus::Result<bool, std::vector<WireError>, std::int64_t>&& result) {
  _call(std::move(result), {}, [](Caller& caller, auto reply) {
    caller.service().getEnabledMediaTypes(
        [reply](bool success, const std::optional<Error>& error, std::int64_t mask) {
          reply->answer(success, wire::optionalError(error), mask);
        });
  });
}

void AccountServiceObject::enableAutoDownloadForEnvironmentNamed(
    sdbus::Result<bool, std::vector<WireError>>&& result, std::string environmentName) {
  Arguments arguments;
  arguments.text("environmentName", environmentName);
  _call(std::move(result), std::move(arguments),
        [environmentName = std::move(environmentName)](Caller& caller, auto reply) mutable {
          caller.service().enableAutoDownloadForEnvironmentNamed(std::move(environmentName),
                                                                 successReply(std::move(reply)));
        });
}

void AccountServiceObject::disableAutoDownload(
    sdbus::Result<bool, std::vector<WireError>>&& result) {
  _call(std::move(result), {}, [](Caller& caller, auto reply) {
    caller.service().disableAutoDownload(successReply(std::move(reply)));
  });
}

void AccountServiceObject::isRegisteredForAccount(
    sdbus::Result<bool, std::vector<WireError>, bool>&& result, std::uint64_t dsID,
    std::int64_t andMask) {
  _call(std::move(result), {}, [dsID, andMask](Caller& caller, auto reply) {
    caller.service().isRegisteredForAccount(
        dsID, andMask, [reply](bool success, const std::optional<Error>& error, bool isRegistered) {
          reply->answer(success, wire::optionalError(error), isRegistered);
        });
  });
}

void AccountServiceObject::handlePushNotificationMessage(sdbus::Result<>&& result,
                                                         WireDictionary message) {
  Arguments arguments;
  auto taken = arguments.dictionary("message", std::move(message));
  _call(
      std::move(result), std::move(arguments),
      [taken = std::move(taken)](Caller& caller, auto reply) mutable {
        caller.service().handlePushNotificationMessage(std::move(taken),
                                                       [reply] { reply->answer(); });
      },
      Caller::kMaxWaitingPushes);
}

void AccountServiceObject::completeSetupWithResponse(
    sdbus::Result<bool, std::vector<WireError>>&& result, WireDictionary response) {
  Arguments arguments;
  auto taken = arguments.dictionary("response", std::move(response));
  _call(std::move(result), std::move(arguments),
        [taken = std::move(taken)](Caller& caller, auto reply) mutable {
          caller.service().completeSetupWithResponse(std::move(taken),
                                                     successReply(std::move(reply)));
        });
}

}  // namespace tallow
