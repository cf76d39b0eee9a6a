#include "bench/BenchPasswordSettings.h"

#include <curl/curl.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr int kRounds = 1000;
constexpr int kWarmUp = 50;
constexpr const char* kBody =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict><key>guid</key>"
    "<string>0123456789ABCDEF0123456789ABCDEF</string></dict></plist>";

[[noreturn]] void fail(const char* what, const char* why) {
  std::fprintf(stderr, "tallow-bench: %s: %s\n", what, why);
  std::exit(1);
}

double median(std::vector<double>& values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

template <class Work>
double timed(Work work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
      .count();
}

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
  std::unique_ptr<CURL, Cleanup> _curl{curl_easy_init()};
};

class Service {
 public:
  Service() {
    sd_bus* bus = nullptr;
    if (sd_bus_open_user(&bus) < 0) fail("the bus", "cannot connect");
    _bus.reset(bus);
  }
  void getPasswordSettings() {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    if (sd_bus_call_method(_bus.get(), "com.vantor.tallowd", "/com/vantor/tallowd",
                           "com.vantor.HSAccountService", "getPasswordSettings", &error, &reply,
                           "") < 0)
      fail("getPasswordSettings", error.message != nullptr ? error.message : "no answer");
    // One dictionary: the settings have been read.
    if (sd_bus_message_enter_container(reply, 'a', "a{sv}") < 0 ||
        sd_bus_message_at_end(reply, 0) != 0)
      fail("getPasswordSettings", "no settings");
    sd_bus_message_unref(reply);
  }

 private:
  struct Close {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
  };
  std::unique_ptr<sd_bus, Close> _bus;
};

}  // namespace

void measurePasswordSettings() {
  BareRequest bare;
  Service service;
  std::vector<double> bareTimes;
  std::vector<double> serviceTimes;
  // In turn, so that both see the same machine.
  for (int i = -kWarmUp; i < kRounds; ++i) {
    const double bareTime = timed([&] { bare.send(); });
    const double serviceTime = timed([&] { service.getPasswordSettings(); });
    if (i < 0) continue;
    bareTimes.push_back(bareTime);
    serviceTimes.push_back(serviceTime);
  }
  std::printf("password_settings_get_over_http %.2f ratio\n",
              median(serviceTimes) / median(bareTimes));
  std::fflush(stdout);
}
