// tallow-bench: measures the running service over its bus and prints `name value unit` lines. Every
// time is given as a ratio to something taken in the same run, since machines are noisy. To be run
// in a private world by scripts/bench, which pins bus, service and this program to one processor.

#include <signal.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr const char* kService = "com.vantor.tallowd";
constexpr const char* kPath = "/com/vantor/tallowd";
constexpr const char* kInterface = "com.vantor.HSAccountService";
constexpr const char* kMinimal = "com.vantor.tallowd.bench.Minimal";
// A host that the bag asks no identity headers for: an answer with them is measured on its own.
constexpr const char* kCookieURL = "https://127.0.0.1/store/page";
constexpr int kCookies = 100;

using Microseconds = std::chrono::duration<double, std::micro>;

[[noreturn]] void fail(const char* what, const char* why) {
  std::fprintf(stderr, "tallow-bench: %s: %s\n", what, why);
  std::exit(1);
}

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

class Bus {
 public:
  Bus() {
    sd_bus* bus = nullptr;
    if (sd_bus_open_user(&bus) < 0) fail("the bus", "cannot connect");
    _bus.reset(bus);
  }

  // Calls and waits; the answer is dropped.
  template <class... Arguments>
  void call(const char* service, const char* path, const char* interface, const char* method,
            const char* signature, Arguments... arguments) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    if (sd_bus_call_method(_bus.get(), service, path, interface, method, &error, &reply, signature,
                           arguments...) < 0)
      fail(method, error.message != nullptr ? error.message : "no answer");
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
  }
  void ping() { call(kService, kPath, "org.freedesktop.DBus.Peer", "Ping", ""); }
  void headers(bool identity = false) {
    call(kService, kPath, kInterface, "httpHeadersForURL", "satb", kCookieURL, 0, int{identity});
  }

  // The process behind a name; 0 when nobody has it.
  pid_t ownerOf(const char* name) {
    sd_bus_message* reply = nullptr;
    std::uint32_t pid = 0;
    if (sd_bus_call_method(_bus.get(), "org.freedesktop.DBus", "/", "org.freedesktop.DBus",
                           "GetConnectionUnixProcessID", nullptr, &reply, "s", name) >= 0)
      sd_bus_message_read(reply, "u", &pid);
    sd_bus_message_unref(reply);
    return static_cast<pid_t>(pid);
  }
  // Ends the name's owner as a crash would and returns when the name is free.
  void killOwnerOf(const char* name) {
    if (const pid_t pid = ownerOf(name)) ::kill(pid, SIGKILL);
    while (ownerOf(name) != 0) std::this_thread::yield();
  }

 private:
  struct Close {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
  };
  std::unique_ptr<sd_bus, Close> _bus;
};

double timed(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return Microseconds(std::chrono::steady_clock::now() - start).count();
}

void print(const char* name, double value, const char* unit) {
  std::printf("%s %.2f %s\n", name, value, unit);
  std::fflush(stdout);
}

void fillJar(Bus& bus) {
  for (int i = 0; i < kCookies; ++i) {
    const std::string cookie = "name" + std::to_string(i) + "=0123456789abcdef; Path=/path" +
                               std::to_string(i % 10) + "; Max-Age=86400";
    bus.call(kService, kPath, kInterface, "consumeCookiesWithHTTPHeaders", "a{sv}s", 1,
             "Set-Cookie", "s", cookie.c_str(), kCookieURL);
  }
  for (int i = 0; i < 5; ++i) {
    const std::string cookie = "page" + std::to_string(i) + "=0123456789abcdef; Path=/";
    bus.call(kService, kPath, kInterface, "consumeCookiesWithHTTPHeaders", "a{sv}s", 1,
             "Set-Cookie", "s", cookie.c_str(), kCookieURL);
  }
  bus.call(kService, kPath, kInterface, "loadURLBagWithType", "t", std::uint64_t{1});
}

// Pings and header answers in turn, so that both see the same machine.
void measureHeaders(Bus& bus) {
  constexpr int kRounds = 4000;
  for (int i = 0; i < 200; ++i) {
    bus.ping();
    bus.headers(true);
  }
  std::vector<double> pings, headers;
  for (int i = 0; i < kRounds; ++i) {
    pings.push_back(timed([&] { bus.ping(); }));
    headers.push_back(timed([&] { bus.headers(true); }));
  }
  print("headers_p50_over_ping", median(headers) / median(pings), "ratio");
}

double callsPerSecond(std::vector<std::unique_ptr<Bus>>& clients, int callsEach,
                      const std::function<void(Bus&)>& call) {
  const double microseconds = timed([&] {
    std::vector<std::thread> threads;
    for (auto& client : clients)
      threads.emplace_back([&] {
        for (int i = 0; i < callsEach; ++i) call(*client);
      });
    for (std::thread& thread : threads) thread.join();
  });
  return static_cast<double>(clients.size()) * callsEach * 1e6 / microseconds;
}

void measureManyClients() {
  constexpr int kClients = 16;
  constexpr int kRounds = 9;
  constexpr int kCallsEach = 200;
  std::vector<std::unique_ptr<Bus>> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.push_back(std::make_unique<Bus>());
    clients.back()->headers(true);
  }
  std::vector<double> ratios;
  for (int round = 0; round < kRounds; ++round) {
    const double pings = callsPerSecond(clients, kCallsEach, [](Bus& bus) { bus.ping(); });
    const double headers = callsPerSecond(clients, kCallsEach, [](Bus& bus) { bus.headers(true); });
    ratios.push_back(headers / pings);
  }
  print("headers_16_clients_over_ping", median(ratios), "ratio");
}

void measureColdStart(Bus& bus) {
  constexpr int kRounds = 21;
  std::vector<double> ratios;
  for (int round = 0; round < kRounds; ++round) {
    bus.killOwnerOf(kService);
    const double tallowd = timed([&] { bus.headers(true); });
    bus.killOwnerOf(kMinimal);
    const double minimal = timed([&] { bus.call(kMinimal, "/minimal", kMinimal, "answer", ""); });
    ratios.push_back(tallowd / minimal);
  }
  print("cold_start_over_minimal", median(ratios), "ratio");
}

double kilobytesOf(pid_t pid, const std::string& field) {
  std::ifstream rollup("/proc/" + std::to_string(pid) + "/smaps_rollup");
  for (std::string line; std::getline(rollup, line);)
    if (line.starts_with(field + ":")) return std::strtod(line.c_str() + field.size() + 1, nullptr);
  fail("memory", "cannot be read");
}

// After the first header answer of a fresh process, from the persisted bag.
void measureMemory(Bus& bus) {
  bus.killOwnerOf(kService);
  bus.headers(true);
  const pid_t pid = bus.ownerOf(kService);
  print("idle_private_kb", kilobytesOf(pid, "Private_Dirty"), "kB");
  print("idle_rss_kb", kilobytesOf(pid, "Rss"), "kB");
}

}  // namespace

int main() {
  Bus bus;
  fillJar(bus);
  measureHeaders(bus);
  measureManyClients();
  measureColdStart(bus);
  measureMemory(bus);
}
