#pragma once

#include <string>
#include <string_view>

#include "platform/Base/Result.h"
#include "platform/Base/URL.h"
#include "platform/HTTP/HTTPTransport.h"

namespace tallow {

// One step of a store request: what goes to one URL, before the standard headers are added. A plain
// value of the operation that sends it. Knows the rules by which a redirect makes the next step
// (RFC 9110 section 15.4); whether the bag trusts where it leads is for the operation to ask.
struct HSRequestHop {
  explicit HSRequestHop(URL to) : url(std::move(to)) {}

  URL url;
  std::string method = "GET";
  HTTPHeaderList headers;
  Data body;

  // Whether the response sends its reader elsewhere: 301, 302, 303, 307 or 308 with a Location.
  static bool isRedirect(const HTTPResponse& response);

  // The next step. Refused: a Location that is no http or https URL (kHSErrorInvalidResponse), one
  // that leads from https to http (kHSErrorInsecureRedirect). POST becomes GET, without its body,
  // for 301 and 302, every method but HEAD for 303. Credentials that the request itself carried do
  // not follow to another scheme, host or port.
  Result<HSRequestHop> hopAfterRedirect(const HTTPResponse& response) const;

  // Without regard to case.
  bool hasHeader(std::string_view name) const;
  // Adds the header unless there is one of that name, or `value` cannot travel: it is empty or has
  // control characters in it. False in the last case.
  bool addHeader(std::string_view name, std::string_view value);

 private:
  void removeHeader(std::string_view name);
};

}  // namespace tallow
