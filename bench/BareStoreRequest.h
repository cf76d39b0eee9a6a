#pragma once

#include <curl/curl.h>

#include <memory>
#include <string>

#include "bench/BenchBus.h"

namespace tallow::bench {

// The request for the password settings as the HTTP library alone makes it, on a kept connection:
// what the service's own is measured against.
class BareStoreRequest {
 public:
  BareStoreRequest() : _url(std::string(environment("TALLOW_DEVSTORE_HTTPS")) + kPath) {
    curl_easy_setopt(_curl.get(), CURLOPT_URL, _url.c_str());
    curl_easy_setopt(_curl.get(), CURLOPT_CAINFO, environment("TALLOW_DEVSTORE_CA"));
    curl_easy_setopt(_curl.get(), CURLOPT_POSTFIELDS, kBody);
    curl_easy_setopt(_curl.get(), CURLOPT_ACCEPT_ENCODING, "gzip");
    curl_easy_setopt(_curl.get(), CURLOPT_HTTPHEADER, _headers.get());
    curl_easy_setopt(_curl.get(), CURLOPT_WRITEFUNCTION, &BareStoreRequest::take);
    curl_easy_setopt(_curl.get(), CURLOPT_WRITEDATA, &_answer);
  }
  void send() {
    _answer.clear();
    const CURLcode code = curl_easy_perform(_curl.get());
    if (code != CURLE_OK) fail("the store", curl_easy_strerror(code));
    if (_answer.find("passwordSettings") == std::string::npos) fail("the store", "no settings");
  }

 private:
  static constexpr const char* kPath = "/accounts/password-settings";
  static constexpr const char* kBody =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict><key>guid</key>"
      "<string>0123456789ABCDEF0123456789ABCDEF</string></dict></plist>";

  static const char* environment(const char* name) {
    const char* const value = std::getenv(name);
    if (value == nullptr) fail(name, "is not set");
    return value;
  }
  static std::size_t take(const char* bytes, std::size_t size, std::size_t count, void* to) {
    static_cast<std::string*>(to)->append(bytes, size * count);
    return size * count;
  }

  struct Cleanup {
    void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
  };
  struct FreeList {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
  };
  const std::string _url;
  std::string _answer;
  std::unique_ptr<curl_slist, FreeList> _headers{curl_slist_append(nullptr, "Content-Type:")};
  std::unique_ptr<CURL, Cleanup> _curl{curl_easy_init()};
};

}  // namespace tallow::bench
