#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Base/Result.h"
#include "platform/Base/URL.h"

namespace tallow {

using HTTPHeaderList = std::vector<std::pair<std::string, std::string>>;

struct HTTPRequest {
  explicit HTTPRequest(URL requestURL) : url(std::move(requestURL)) {}

  URL url;
  std::string method = "GET";
  // Names that are no token, values with control characters, and the headers that frame a message
  // (Host, Content-Length, Transfer-Encoding, which are the transport's own) are refused, never
  // sent.
  HTTPHeaderList headers;
  Data body;
  bool bypassCaches = false;  // asks every cache on the way for a fresh answer
  double connectTimeoutSeconds = 5;
  double totalTimeoutSeconds = 60;
  std::size_t maxBodyBytes = 16u << 20;  // of the body as decoded, whatever its encoding
};

struct HTTPResponse {
  explicit HTTPResponse(URL requestURL) : url(std::move(requestURL)) {}

  URL url;  // that of the request
  int statusCode = 0;
  HTTPHeaderList headers;  // in the order and spelling received
  Data body;

  // The first header of exactly this name.
  std::optional<std::string> header(std::string_view exactName) const;
  // Every name once, as first spelled; several lines of one name joined with ", ", but those of
  // Set-Cookie as an array of strings when there is more than one.
  Dictionary headerDictionary() const;

  // max-age of Cache-Control in seconds (RFC 9111 sections 4.2.1 and 5.2.2): the first valid
  // directive of any Cache-Control line. An integer below zero is given as it is, one past 2^31 as
  // 2^31. Nothing else is looked at: no-store and no-cache leave a max-age beside them as it is.
  // nullopt when the response states none.
  std::optional<double> cacheControlMaxAgeSeconds() const;
};

// One HTTP exchange at a time or many at once, over one pool of connections for the process.
// Redirects are never followed here: who asked judges them. A response with any status code is a
// response, not an error. Callable from any thread.
//
// Errors: domain kErrorDomain, code one of ErrorCode.
class HTTPTransport {
 public:
  static constexpr const char* kErrorDomain = "HTTP";
  enum ErrorCode {
    kCannotConnect = 1,
    kTimedOut = 2,
    kTLS = 3,
    kBodyTooLarge = 4,
    kConnectionLost = 5,
    kCancelled = 6,
    kBadRequest = 7,
    kOther = 8,
  };
  using Completion = std::function<void(Result<HTTPResponse>)>;

  class Exchange {
   public:
    virtual ~Exchange() = default;
    virtual void cancel() = 0;  // the completion still runs, with kCancelled
  };

  virtual ~HTTPTransport() = default;
  static HTTPTransport& shared();

  // The completion runs exactly once, on the transport's own thread or that of somebody in
  // perform(); it must not block.
  virtual std::shared_ptr<Exchange> start(HTTPRequest request, Completion completion) = 0;
  // Waits for the answer. Not in a completion. `started` is given the exchange, to cancel it by.
  using Started = std::function<void(std::shared_ptr<Exchange>)>;
  Result<HTTPResponse> perform(HTTPRequest request, const Started& started = nullptr);

 protected:
  // Starts the exchange for somebody who will wait for its end: a transport may use their thread.
  virtual void startAndHelp(HTTPRequest request, const Started& started, Completion completion);
  // Why this request must not be sent (kBadRequest), or nullopt.
  static std::optional<Error> refusalOf(const HTTPRequest& request);
};

}  // namespace tallow
