#include "platform/VendBase/HSURLRequest.h"

#include <curl/curl.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <string_view>

namespace tallow {

namespace {

struct CurlFree {
  void operator()(char* text) const { curl_free(text); }
};

// Everything but unreserved characters (RFC 3986 section 2.3) escaped. Empty for text too long to
// be part of any URL.
std::string percentEncoded(std::string_view text) {
  if (text.empty() || text.size() > std::numeric_limits<int>::max() / 4) return {};
  const std::unique_ptr<char, CurlFree> escaped(
      curl_easy_escape(nullptr, text.data(), static_cast<int>(text.size())));
  return escaped ? std::string(escaped.get()) : std::string();
}

}  // namespace

std::optional<URL> HSURLRequest::primaryURL() const {
  if (_urls.empty()) return std::nullopt;
  return _urls.front();
}

std::optional<URL> HSURLRequest::urlToSend() const {
  if (_urls.empty() || queryStringDictionary.empty()) return primaryURL();
  auto pairs = queryStringDictionary;
  std::stable_sort(pairs.begin(), pairs.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  std::string query;
  for (const auto& [name, value] : pairs) {
    if (!query.empty()) query += '&';
    query += percentEncoded(name) + '=' + percentEncoded(value);
  }
  return _urls.front().urlByAddingStringToQueryString(query);
}

}  // namespace tallow
