#include "devstore/Control.h"

#include <charconv>
#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "devstore/JSONValue.h"
#include "devstore/RequestLog.h"
#include "devstore/Staging.h"
#include "platform/Base/Base64.h"
#include "platform/Base/UTF8.h"
#include "platform/PropertyList/PropertyList.h"

namespace tallow::devstore {

namespace {

using nlohmann::json;

constexpr std::string_view kControlPath = "/control";
constexpr std::string_view kRequestsPath = "/control/requests";
constexpr std::uint32_t kLongestWait = 600'000;

// What came in may be no UTF-8; it is shown all the same.
Answer jsonAnswer(int status, const json& document) {
  return Answer::json(status, document.dump(2, ' ', false, json::error_handler_t::replace) + "\n");
}

Answer complaint(int status, std::string_view text) {
  return jsonAnswer(status, {{"error", text}});
}

json jsonFromBody(const Data& body) {
  if (body.empty()) return nullptr;
  if (const Result<Value> list = PropertyList::decode(body))
    return {{"plist", jsonFromValue(*list)}};
  if (isValidUTF8(body.view())) return {{"text", body.view()}};
  return {{"base64", base64Encode(body)}};
}

json jsonFromRequest(const ReceivedRequest& request) {
  json headers = json::object();
  for (const auto& [name, value] : request.headers) headers[name].push_back(value);
  return {{"method", request.method},
          {"scheme", request.secure ? "https" : "http"},
          {"path", request.path},
          {"query", request.query},
          {"headers", std::move(headers)},
          {"body", jsonFromBody(request.body)},
          {"time", request.time.secondsSince1970}};
}

// The number a parameter gives; `otherwise` when it is absent, nullopt when it is no number.
std::optional<std::uint32_t> numberParameter(const ReceivedRequest& request, std::string_view name,
                                             std::uint32_t otherwise) {
  const std::string* text = request.parameter(name);
  if (text == nullptr) return otherwise;
  std::uint32_t number = 0;
  const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), number);
  if (error != std::errc() || end != text->data() + text->size()) return std::nullopt;
  return number;
}

}  // namespace

bool Control::isForPath(std::string_view path) {
  return path == kControlPath || path.starts_with("/control/");
}

Answer Control::answer(const ReceivedRequest& request) {
  if (request.header("Origin") != nullptr) {
    return complaint(403, "the controls are not for web pages");
  }
  const bool reads = request.method == "GET" || request.method == "HEAD";
  if (request.path == kControlPath) {
    if (request.method == "POST") return stage(request);
    if (reads) return Answer::json(200, _staging.summary() + "\n");
    return complaint(405, "GET or POST /control");
  }
  if (request.path == kRequestsPath) {
    if (reads) return listRequests(request);
    if (request.method != "DELETE") return complaint(405, "GET or DELETE /control/requests");
    _requests.clear();
    return jsonAnswer(200, json::object());
  }
  return complaint(404, "there are /control and /control/requests");
}

Answer Control::stage(const ReceivedRequest& request) {
  if (const std::optional<std::string> error = _staging.apply(request.body.view())) {
    return complaint(400, *error);
  }
  return jsonAnswer(200, json::object());
}

Answer Control::listRequests(const ReceivedRequest& request) const {
  const std::string* path = request.parameter("path");
  const std::optional<std::uint32_t> atLeast = numberParameter(request, "atLeast", 0);
  const std::optional<std::uint32_t> timeout = numberParameter(request, "timeoutMs", 10'000);
  if (!atLeast) return complaint(400, "atLeast: must be a whole number");
  if (!timeout || *timeout > kLongestWait) {
    return complaint(400, "timeoutMs: must be a whole number up to 600000");
  }

  const std::string_view wanted = path != nullptr ? std::string_view(*path) : std::string_view();
  const bool enough = _requests.wait(wanted, *atLeast, std::chrono::milliseconds(*timeout));
  json list = json::array();
  for (const ReceivedRequest& received : _requests.requests(wanted)) {
    list.push_back(jsonFromRequest(received));
  }
  return jsonAnswer(enough ? 200 : 408,
                    {{"requests", std::move(list)}, {"dropped", _requests.dropped()}});
}

}  // namespace tallow::devstore
