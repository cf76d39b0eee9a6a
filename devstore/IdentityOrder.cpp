#include "devstore/IdentityOrder.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "devstore/JSONReader.h"
#include "devstore/ReceivedRequest.h"

namespace tallow::devstore {

namespace {

constexpr const char* kNames[] = {"reset", "provision", "sync"};  // in the order of the actions

std::optional<IdentityOrder::Action> actionNamed(std::string_view name) {
  const auto* const found = std::find(std::begin(kNames), std::end(kNames), name);
  if (found == std::end(kNames)) return std::nullopt;
  return static_cast<IdentityOrder::Action>(found - std::begin(kNames));
}

}  // namespace

std::optional<IdentityOrder> IdentityOrder::read(JSONReader& reader) {
  const nlohmann::json* const object = reader.member("identity");
  if (object == nullptr) return std::nullopt;
  JSONReader inner(*object, reader.place("identity"));
  IdentityOrder order;
  const auto action = actionNamed(inner.string("order").value_or(""));
  if (!action) inner.fail("order", "must be one of reset, provision, sync");
  order.action = action.value_or(Action::Provision);
  if (const auto dsID = inner.integer("dsid", 0, std::numeric_limits<std::int64_t>::max()))
    order.dsID = static_cast<std::uint64_t>(*dsID);
  if (inner.boolean("anonymous").value_or(false)) order.dsID = kAnonymous;
  reader.adopt(inner.complaint());
  return order;
}

Result<std::optional<IdentityOrder>> IdentityOrder::ofQuery(const ReceivedRequest& request) {
  const auto complaint = [](const char* text) { return makeError("DevStore", 0, text); };
  const std::string* const text = request.parameter("order");
  if (text == nullptr) return std::optional<IdentityOrder>();
  const auto action = actionNamed(*text);
  if (!action) return complaint("order: must be one of reset, provision, sync");
  IdentityOrder order;
  order.action = *action;
  if (const std::string* const dsID = request.parameter("dsid")) {
    const auto [end, error] =
        std::from_chars(dsID->data(), dsID->data() + dsID->size(), order.dsID);
    if (error != std::errc() || end != dsID->data() + dsID->size())
      return complaint("dsid: must be a whole number");
  }
  if (request.parameter("anonymous") != nullptr) order.dsID = kAnonymous;
  return std::optional(order);
}

}  // namespace tallow::devstore
