#include "platform/VendBase/HSURLRequest.h"

#include <algorithm>

#include "platform/VendBase/HSDevice.h"

namespace tallow {

HSURLRequest HSURLRequest::uncachedWithGUID() {
  HSURLRequest request;
  request.cachePolicy = kReloadIgnoringLocalCacheData;
  if (const auto guid = HSDevice::shared().guid())
    request.queryStringDictionary = {{"guid", *guid}};
  return request;
}

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
    query += URL::percentEncoded(name) + '=' + URL::percentEncoded(value);
  }
  return _urls.front().urlByAddingStringToQueryString(query);
}

}  // namespace tallow
