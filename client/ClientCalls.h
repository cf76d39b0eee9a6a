#pragma once

#include <optional>
#include <utility>
#include <vector>

#include "client/ServiceConnection.h"
#include "platform/XPC/WireTypes.h"

// What the calls of AccountServiceClient, which are spread over several files, have in common.

namespace tallow {

inline WireDictionary wireDictionary(const Dictionary& dictionary) {
  WireDictionary wire;
  wire.value = dictionary;
  return wire;
}

// The bus's or the service's error as the client reports it.
Error clientErrorFrom(const sdbus::Error& error);

// Calls that answer with something, and calls that answer with nothing; exceptions end here.
template <class Call>
auto ask(ServiceConnection& connection, Call call)
    -> Result<decltype(call(std::declval<ServiceSession&>()))> {
  try {
    return connection.call(call);
  } catch (const sdbus::Error& error) {
    return clientErrorFrom(error);
  }
}
template <class Action>
std::optional<Error> attempt(Action action) {
  try {
    action();
    return std::nullopt;
  } catch (const sdbus::Error& error) {
    return clientErrorFrom(error);
  }
}
template <class Call>
std::optional<Error> tell(ServiceConnection& connection, Call call) {
  return attempt([&] { connection.call(call); });
}

inline std::optional<Error> firstError(std::vector<WireError>& errors) {
  return errors.empty() ? std::nullopt : std::optional(std::move(errors.front().value));
}

}  // namespace tallow
