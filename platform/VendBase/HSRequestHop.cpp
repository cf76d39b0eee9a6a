#include "platform/VendBase/HSRequestHop.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include "platform/Base/ASCII.h"
#include "platform/VendBase/HSError.h"

namespace tallow {

namespace {

const std::string* locationOf(const HTTPResponse& response) {
  for (const auto& [name, value] : response.headers)
    if (ascii::equalIgnoringCase(name, "Location")) return &value;
  return nullptr;
}

// Unlike the bag's rules, which compare schemes as written, this one only ever refuses: "HTTP" is
// as insecure as "http".
bool isScheme(const URL& url, std::string_view scheme) {
  return ascii::equalIgnoringCase(url.scheme(), scheme);
}

bool sameOrigin(const URL& a, const URL& b) {
  return ascii::equalIgnoringCase(a.scheme(), b.scheme()) &&
         a.canonicalHost() == b.canonicalHost() && a.port() == b.port();
}

bool becomesGet(int statusCode, std::string_view method) {
  if (statusCode == 303) return method != "HEAD";
  return (statusCode == 301 || statusCode == 302) && method == "POST";
}

constexpr std::array kCredentialHeaders = {"Authorization", "Cookie", "Proxy-Authorization"};
constexpr std::array kContentHeaders = {"Content-Type",     "Content-Length",   "Content-Encoding",
                                        "Content-Language", "Content-Location", "Digest",
                                        "Last-Modified",    "Transfer-Encoding"};

}  // namespace

bool HSRequestHop::isRedirect(const HTTPResponse& response) {
  switch (response.statusCode) {
    case 301:
    case 302:
    case 303:
    case 307:
    case 308:
      return locationOf(response) != nullptr;
    default:
      return false;
  }
}

Result<HSRequestHop> HSRequestHop::hopAfterRedirect(const HTTPResponse& response) const {
  const std::string* location = locationOf(response);
  const std::optional<URL> target =
      location != nullptr ? url.resolving(*location) : std::optional<URL>();
  if (!target || !(isScheme(*target, "https") || isScheme(*target, "http")))
    return HSError(kHSErrorInvalidResponse, std::nullopt,
                   "The store redirects to something that is no web address");
  if (isScheme(url, "https") && !isScheme(*target, "https"))
    return HSError(kHSErrorInsecureRedirect, std::nullopt,
                   "The store redirects from a secure to an insecure address");

  HSRequestHop next = *this;
  next.url = *target;
  if (becomesGet(response.statusCode, method)) {
    next.method = "GET";
    next.body = Data();
    for (const char* name : kContentHeaders) next.removeHeader(name);
  }
  if (!sameOrigin(url, *target))
    for (const char* name : kCredentialHeaders) next.removeHeader(name);
  return next;
}

bool HSRequestHop::hasHeader(std::string_view name) const {
  return std::any_of(headers.begin(), headers.end(), [&](const auto& header) {
    return ascii::equalIgnoringCase(header.first, name);
  });
}

bool HSRequestHop::addHeader(std::string_view name, std::string_view value) {
  const bool canTravel = !value.empty() && std::none_of(value.begin(), value.end(), [](char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
  });
  if (canTravel && !hasHeader(name)) headers.emplace_back(name, value);
  return canTravel;
}

void HSRequestHop::removeHeader(std::string_view name) {
  std::erase_if(headers,
                [&](const auto& header) { return ascii::equalIgnoringCase(header.first, name); });
}

}  // namespace tallow
