// tallow-bench: measures the running service over its bus and prints `name value unit` lines. Every
// time is given as a ratio to something taken in the same run, since machines are noisy. To be run
// in a private world by scripts/bench, which pins bus, service and this program to one processor.

#include <fstream>
#include <set>
#include <string_view>
#include <utility>

#include "bench/AccountFigures.h"
#include "bench/BenchBus.h"
#include "bench/IdentityFigures.h"
#include "bench/PasswordSettingsFigures.h"
#include "bench/PushFigures.h"

namespace tallow::bench {

namespace {

// Idle threads leave after five.
constexpr std::chrono::seconds kUntilIdle{6};
constexpr const char* kMinimal = "com.vantor.tallowd.bench.Minimal";
// A host that the bag asks no identity headers for: an answer with them is measured on its own.
constexpr const char* kCookieURL = "https://127.0.0.1/store/page";
constexpr int kCookies = 100;

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

void measureHeaders(Bus& bus) {
  print("headers_p50_over_ping",
        ratioInTurns(
            4000, [&] { bus.headers(kCookieURL); }, [&] { bus.ping(); }),
        "ratio");
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
    clients.back()->headers(kCookieURL);
  }
  std::vector<double> ratios;
  for (int round = 0; round < kRounds; ++round) {
    const double pings = callsPerSecond(clients, kCallsEach, [](Bus& bus) { bus.ping(); });
    const double headers =
        callsPerSecond(clients, kCallsEach, [](Bus& bus) { bus.headers(kCookieURL); });
    ratios.push_back(headers / pings);
  }
  print("headers_16_clients_over_ping", median(ratios), "ratio");
}

void measureColdStart(Bus& bus) {
  constexpr int kRounds = 21;
  std::vector<double> ratios;
  for (int round = 0; round < kRounds; ++round) {
    bus.killOwnerOf(kService);
    const double tallowd = timed([&] { bus.headers(kCookieURL); });
    bus.killOwnerOf(kMinimal);
    const double minimal = timed([&] { bus.call(kMinimal, "/minimal", kMinimal, "answer", ""); });
    ratios.push_back(tallowd / minimal);
  }
  print("cold_start_over_minimal", median(ratios), "ratio");
}

// From the wish to have the service until its name has an owner.
void measureNameClaimed(Bus& bus) {
  constexpr int kRounds = 21;
  std::vector<double> milliseconds;
  for (int round = 0; round < kRounds; ++round) {
    bus.killOwnerOf(kService);
    milliseconds.push_back(timed([&] {
                             bus.call("org.freedesktop.DBus", "/", "org.freedesktop.DBus",
                                      "StartServiceByName", "su", kService, 0);
                           }) /
                           1e3);
  }
  print("name_claimed_ms", median(milliseconds), "ms");
}

double kilobytesOf(pid_t pid, const std::string& field) {
  std::ifstream rollup("/proc/" + std::to_string(pid) + "/smaps_rollup");
  for (std::string line; std::getline(rollup, line);)
    if (line.starts_with(field + ":")) return std::strtod(line.c_str() + field.size() + 1, nullptr);
  fail("memory", "cannot be read");
}

// Of a fresh process after its first header answer, from the persisted bag: what it has written to
// at once, what it keeps when the threads that loaded the bag have gone.
void measureMemory(Bus& bus) {
  bus.killOwnerOf(kService);
  bus.headers(kCookieURL);
  const pid_t pid = bus.ownerOf(kService);
  print("idle_private_kb", kilobytesOf(pid, "Private_Dirty"), "kB");
  std::this_thread::sleep_for(kUntilIdle);
  print("idle_rss_kb", kilobytesOf(pid, "Rss"), "kB");
}

// How much resident memory grows by, told for a million calls of the questions that a store client
// asks most, from fewer. Both ends are taken when idle threads have gone and freed memory is back.
void measureMemoryGrowth(Bus& bus) {
  constexpr int kCalls = 400'000;
  constexpr int kWarmUp = 120'000;
  const auto ask = [&](int calls) {
    for (int i = 0; i < calls; i += 4) {
      bus.headers(kCookieURL);
      bus.call(kService, kPath, kInterface, "valueForURLBagKey", "s", "buyProduct");
      bus.call(kService, kPath, kInterface, "urlIsTrustedByURLBag", "s", kCookieURL);
      bus.call(kService, kPath, kInterface, "primaryAccount", "");
    }
    std::this_thread::sleep_for(kUntilIdle);
    return kilobytesOf(bus.ownerOf(kService), "Rss");
  };
  const double before = ask(kWarmUp);
  print("rss_growth_per_million_calls_kb", (ask(kCalls) - before) * 1e6 / kCalls, "kB");
}

// How header answers grow with the number of callers at once.
void measureGrowth(Bus& bus) {
  bus.headers(kCookieURL);
  for (const int count : {1, 4, 16, 64, 256}) {
    std::vector<std::unique_ptr<Bus>> clients;
    // The first one of the 256 callers that a user may have is this program itself.
    for (int i = 0; i < std::min(count, 255); ++i) {
      clients.push_back(std::make_unique<Bus>());
      clients.back()->headers(kCookieURL);
    }
    const double perSecond =
        callsPerSecond(clients, 25'600 / count, [](Bus& each) { each.headers(kCookieURL); });
    print(("growth_headers_per_second/" + std::to_string(count)).c_str(), perSecond, "calls");
  }
}

}  // namespace

}  // namespace tallow::bench

// All figures but how they grow, or those of the groups that are named.
int main(int argc, char** argv) {
  using namespace tallow::bench;
  const std::pair<const char*, void (*)(Bus&)> groups[] = {
      {"headers", measureHeaders},
      {"identity", measureIdentityHeaders},
      {"push", measurePushes},
      {"accounts", measureAccountQuery},
      {"clients", [](Bus&) { measureManyClients(); }},
      {"password-settings", measurePasswordSettings},
      {"cold-start", measureColdStart},
      {"name", measureNameClaimed},
      {"memory", measureMemory},
      {"memory-growth", measureMemoryGrowth},
      {"growth", measureGrowth}};
  Bus bus;
  fillJar(bus);
  const std::set<std::string_view> wanted(argv + 1, argv + argc);
  for (const auto& [name, measure] : groups)
    if (wanted.contains(name) || (wanted.empty() && std::string_view(name) != "growth"))
      measure(bus);
}
