#include "bench/PasswordSettingsFigures.h"

#include <curl/curl.h>

#include <string>

namespace tallow::bench {

namespace {

constexpr const char* kBody =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict><key>guid</key>"
    "<string>0123456789ABCDEF0123456789ABCDEF</string></dict></plist>";

const char* environment(const char* name) {
  const char* const value = std::getenv(name);
  if (value == nullptr) fail(name, "is not set");
  return value;
}

// The same request as the service's, and nothing around it.
class BareRequest {
 public:
  BareRequest() : _url(std::string(environment("TALLOW_DEVSTORE_HTTPS")) + kPath) {
    curl_easy_setopt(_curl.get(), CURLOPT_URL, _url.c_str());
    curl_easy_setopt(_curl.get(), CURLOPT_CAINFO, environment("TALLOW_DEVSTORE_CA"));
    curl_easy_setopt(_curl.get(), CURLOPT_POSTFIELDS, kBody);
    curl_easy_setopt(_curl.get(), CURLOPT_ACCEPT_ENCODING, "gzip");
    curl_easy_setopt(_curl.get(), CURLOPT_HTTPHEADER, _headers.get());
    curl_easy_setopt(_curl.get(), CURLOPT_WRITEFUNCTION, &BareRequest::take);
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
  static std::size_t take(const char* bytes, std::size_t size, std::size_t count, void* to) {
    static_cast<std::string*>(to)->append(bytes, size * count);
    return size * count;
  }
  struct Cleanup {
    void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
  };
  const std::string _url;
  std::string _answer;
  struct FreeList {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
  };
  std::unique_ptr<curl_slist, FreeList> _headers{curl_slist_append(nullptr, "Content-Type:")};
  std::unique_ptr<CURL, Cleanup> _curl{curl_easy_init()};
};

}  // namespace

void measurePasswordSettings(Bus& bus) {
  BareRequest bare;
  print("password_settings_get_over_http",
        ratioInTurns(
            1000,
            [&] {
              if (!bus.getsPasswordSettings()) fail("getPasswordSettings", "no settings");
            },
            [&] { bare.send(); }),
        "ratio");
}

}  // namespace tallow::bench
