#include "platform/HTTP/HTTPTransport.h"

#include <algorithm>
#include <future>

#include "platform/Base/ASCII.h"
#include "platform/Base/Format.h"
#include "platform/Base/SharedInstance.h"
#include "platform/HTTP/CurlTransport.h"

namespace tallow {
namespace {

constexpr std::string_view kTokenCharacters =
    "!#$%&'*+-.^_`|~0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";

bool isToken(std::string_view text) {
  return !text.empty() && text.find_first_not_of(kTokenCharacters) == std::string_view::npos;
}

bool hasControlCharacter(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f;
  });
}

bool framesTheMessage(std::string_view headerName) {
  const std::string name = ascii::lowercased(headerName);
  return name == "host" || name == "content-length" || name == "transfer-encoding";
}

}  // namespace

HTTPTransport& HTTPTransport::shared() {
  return SharedInstance<HTTPTransport>::get(
      [] { return std::make_unique<CurlTransport>(CurlTransport::Options::fromEnvironment()); });
}

void HTTPTransport::startAndHelp(HTTPRequest request, const Started& started,
                                 Completion completion) {
  const auto exchange = start(std::move(request), std::move(completion));
  if (started) started(exchange);
}

Result<HTTPResponse> HTTPTransport::perform(HTTPRequest request, const Started& started) {
  // Shared with the completion, which may still be returning when the waiting thread goes on.
  const auto promise = std::make_shared<std::promise<Result<HTTPResponse>>>();
  std::future<Result<HTTPResponse>> answer = promise->get_future();
  startAndHelp(std::move(request), started,
               [promise](Result<HTTPResponse> result) { promise->set_value(std::move(result)); });
  return answer.get();
}

std::optional<Error> HTTPTransport::refusalOf(const HTTPRequest& request) {
  const auto refusal = [](std::string description) {
    return makeError(HTTPTransport::kErrorDomain, kBadRequest, std::move(description));
  };
  const std::string scheme = ascii::lowercased(request.url.scheme());
  if (scheme != "http" && scheme != "https")
    return refusal(format("A URL of the scheme \"%s\" cannot be loaded.", request.url.scheme()));
  if (request.url.host().empty()) return refusal("The URL names no host.");
  if (!isToken(request.method)) return refusal("The request's method is malformed.");
  for (const auto& [name, value] : request.headers) {
    if (!isToken(name)) return refusal("The name of a request header is malformed.");
    if (hasControlCharacter(value))
      return refusal(format("The request header %s has control characters in its value.", name));
    if (framesTheMessage(name))
      return refusal(format("The request header %s is the transport's own.", name));
  }
  return std::nullopt;
}

}  // namespace tallow
