#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/Base/URL.h"
#include "platform/Base/Value.h"
#include "platform/HTTP/HTTPTransport.h"

namespace tallow {

// What a store URL operation is to send. A plain value.
class HSURLRequest {
 public:
  enum CachePolicy { kUseProtocolCachePolicy = 0, kReloadIgnoringLocalCacheData = 1 };

  HSURLRequest() = default;  // for an operation that takes its URL from the bag
  explicit HSURLRequest(URL url) : _urls{std::move(url)} {}

  // For an answer about this very machine, as it is now: past every cache, with the machine's GUID
  // in the query where it has one.
  static HSURLRequest uncachedWithGUID();

  // The URLs tried, in order: the one the request was made with, then those of followed redirects.
  const std::vector<URL>& urls() const { return _urls; }
  void setURLs(std::vector<URL> urls) { _urls = std::move(urls); }
  // The URL that the request was made with; nullopt when it has none yet.
  std::optional<URL> primaryURL() const;
  // That URL with the query dictionary added: what goes out first.
  std::optional<URL> urlToSend() const;

  std::string method = "GET";
  Data body;
  HTTPHeaderList headers;
  CachePolicy cachePolicy = kUseProtocolCachePolicy;
  bool alwaysSendGUID = false;      // the machine GUID, whatever the bag allows
  bool suppressOrvHeaders = false;  // no machine-identity headers
  // Added to the query, percent-encoded, in key order.
  std::vector<std::pair<std::string, std::string>> queryStringDictionary;

 private:
  std::vector<URL> _urls;
};

}  // namespace tallow
