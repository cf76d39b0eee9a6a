#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client/ServiceConnection.h"
#include "platform/XPC/WireTypes.h"

// What the calls of AccountServiceClient, which are spread over several files, have in common.

namespace tallow {

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

// What travels as a list of at most one.
inline std::optional<std::string> firstOf(std::vector<std::string> texts) {
  return texts.empty() ? std::nullopt : std::optional(std::move(texts.front()));
}
template <class Wire>
auto firstOf(std::vector<Wire> values) -> std::optional<decltype(Wire::value)> {
  if (values.empty()) return std::nullopt;
  return std::move(values.front().value);
}

}  // namespace tallow
