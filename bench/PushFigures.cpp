#include "bench/PushFigures.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <string>
#include <thread>

namespace tallow::bench {

namespace {

constexpr std::uint64_t kDSID = 123;
constexpr int kBurst = 10'000;

sd_bus* connect() {
  sd_bus* bus = nullptr;
  if (sd_bus_open_user(&bus) < 0) fail("the bus", "cannot connect");
  return bus;
}

// Counts the requests to look for downloads, on a connection and a thread of its own.
class DownloadService {
 public:
  DownloadService() {
    sd_bus_add_filter(_bus, nullptr, &DownloadService::received, this);
    if (sd_bus_request_name(_bus, "com.vantor.downloadservice", 0) < 0)
      fail("com.vantor.downloadservice", "the name is taken");
    std::thread([this] {
      while (sd_bus_process(_bus, nullptr) >= 0) sd_bus_wait(_bus, UINT64_MAX);
    }).detach();
  }
  int checks() const { return _checks; }
  void waitFor(int checks) const {
    for (int seen = _checks; seen < checks; seen = _checks) _checks.wait(seen);
  }

 private:
  static int received(sd_bus_message* call, void* self, sd_bus_error*) {
    if (sd_bus_message_is_method_call(call, nullptr, "checkAutomaticDownloadQueue") <= 0) return 0;
    auto& checks = static_cast<DownloadService*>(self)->_checks;
    ++checks;
    checks.notify_all();
    sd_bus_reply_method_return(call, "");
    return 1;
  }
  sd_bus* const _bus = connect();
  std::atomic<int> _checks{0};
};

void deliver(Bus& bus) {
  bus.call(kService, kPath, kInterface, "handlePushNotificationMessage", "a{sv}", 2, "0", "t",
           kDSID, "1", "x", std::int64_t{2});
}

void measureDelivery(Bus& bus, const DownloadService& downloads) {
  constexpr int kRounds = 4000;
  constexpr int kWarmUp = 200;
  std::vector<double> deliveries, pings;
  for (int i = 0; i < kRounds + kWarmUp; ++i) {
    const int before = downloads.checks();
    const double delivery = timed([&] { deliver(bus); });
    // What the push has set off is no part of the ping after it.
    downloads.waitFor(before + 1);
    bus.ping();
    const double ping = timed([&] { bus.ping(); });
    if (i < kWarmUp) continue;
    deliveries.push_back(delivery);
    pings.push_back(ping);
  }
  print("push_deliver_p50_over_ping", median(deliveries) / median(pings), "ratio");
}

struct Burst {
  int answered = 0, refused = 0;
};

Burst sendBurst() {
  sd_bus* const bus = connect();
  Burst burst;
  const auto answered = [](sd_bus_message* reply, void* to, sd_bus_error*) {
    auto& counts = *static_cast<Burst*>(to);
    ++(sd_bus_message_is_method_error(reply, nullptr) > 0 ? counts.refused : counts.answered);
    return 0;
  };
  for (int i = 0; i < kBurst; ++i)
    sd_bus_call_method_async(bus, nullptr, kService, kPath, kInterface,
                             "handlePushNotificationMessage", answered, &burst, "a{sv}", 2, "0",
                             "t", kDSID, "1", "x", std::int64_t{2});
  while (burst.answered + burst.refused < kBurst)
    if (sd_bus_process(bus, nullptr) == 0) sd_bus_wait(bus, UINT64_MAX);
  sd_bus_flush_close_unref(bus);
  return burst;
}

double privateKilobytes(Bus& bus) {
  // Idle threads go, and memory comes back, some seconds after the last work.
  std::this_thread::sleep_for(std::chrono::seconds(6));
  std::ifstream file("/proc/" + std::to_string(bus.ownerOf(kService)) + "/smaps_rollup");
  for (std::string word; file >> word;)
    if (word == "Private_Dirty:" && file >> word) return std::stod(word);
  fail("memory", "cannot be read");
}

}  // namespace

void measurePushes(Bus& bus) {
  // Signed in, with a token.
  bus.call(kService, kPath, kInterface, "addAccountWithAuthenticationResponse", "a{sv}b", 2,
           "dsPersonId", "t", kDSID, "token", "s", "token", 1);
  DownloadService& downloads = *new DownloadService;  // for the rest of the process
  measureDelivery(bus, downloads);

  const double before = privateKilobytes(bus);
  const int checksBefore = downloads.checks();
  const Burst burst = sendBurst();
  if (burst.refused > 0) fail("push burst", "pushes have been refused");
  downloads.waitFor(checksBefore + kBurst);
  print("push_burst_answered", burst.answered, "pushes");
  print("push_burst_checked", downloads.checks() - checksBefore, "checks");
  print("push_burst_memory_after_over_before", privateKilobytes(bus) / before, "ratio");
}

}  // namespace tallow::bench
