// The operations of the exported object that are about password settings.

#include "platform/XPC/AccountServiceCalls.h"

namespace tallow {

void AccountServiceObject::getPasswordSettings(
    sdbus::Result<std::vector<WireDictionary>, std::vector<WireError>>&& result) {
  _call(std::move(result), {}, [](Caller& caller, auto reply) {
    caller.service().getPasswordSettings(
        [reply](std::optional<Dictionary> settings, const std::optional<Error>& error) {
          reply->answer(wire::optionalDictionary(std::move(settings)), wire::optionalError(error));
        });
  });
}

void AccountServiceObject::updatePasswordSettings(
    sdbus::Result<bool, std::vector<WireError>>&& result, std::vector<WireDictionary> settings) {
  Arguments arguments;
  std::optional<Dictionary> given;
  if (auto only = arguments.atMostOne("settings", std::move(settings)))
    given = arguments.dictionary("settings", *std::move(only));
  _call(std::move(result), std::move(arguments),
        [given = std::move(given)](Caller& caller, auto reply) mutable {
          caller.service().updatePasswordSettings(
              std::move(given), [reply](bool success, const std::optional<Error>& error) {
                reply->answer(success, wire::optionalError(error));
              });
        });
}

}  // namespace tallow
