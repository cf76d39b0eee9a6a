#pragma once

#include <signal.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

// What the figures that are taken over the bus have in common.
namespace tallow::bench {

inline constexpr const char* kService = "com.vantor.tallowd";
inline constexpr const char* kPath = "/com/vantor/tallowd";
inline constexpr const char* kInterface = "com.vantor.HSAccountService";

[[noreturn]] inline void fail(const char* what, const char* why) {
  std::fprintf(stderr, "tallow-bench: %s: %s\n", what, why);
  std::exit(1);
}

inline double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// A caller of its own.
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
  void headers(const char* url) {
    call(kService, kPath, kInterface, "httpHeadersForURL", "satb", url, 0, 1);
  }

  // Asks for headers with the identity for the DSID; returns how many of the answer's identify the
  // machine.
  int identityHeaders(const char* url, std::uint64_t dsID) {
    sd_bus_message* reply = nullptr;
    if (sd_bus_call_method(_bus.get(), kService, kPath, kInterface, "httpHeadersForURL", nullptr,
                           &reply, "satb", url, 1, dsID, 1) < 0)
      fail("httpHeadersForURL", "no answer");
    int count = 0;
    const char *name = nullptr, *value = nullptr;
    sd_bus_message_enter_container(reply, 'a', "{ss}");
    while (sd_bus_message_read(reply, "{ss}", &name, &value) > 0)
      count += std::string_view(name).starts_with("X-Vantor-") ? 1 : 0;
    sd_bus_message_unref(reply);
    return count;
  }

  // Reads the password settings; false when the answer holds none.
  bool getsPasswordSettings() {
    sd_bus_message* reply = nullptr;
    if (sd_bus_call_method(_bus.get(), kService, kPath, kInterface, "getPasswordSettings", nullptr,
                           &reply, "") < 0)
      fail("getPasswordSettings", "no answer");
    const bool hasSettings = sd_bus_message_enter_container(reply, 'a', "a{sv}") >= 0 &&
                             sd_bus_message_at_end(reply, 0) == 0;
    sd_bus_message_unref(reply);
    return hasSettings;
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

// In microseconds.
inline double timed(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
      .count();
}

inline void print(const char* name, double value, const char* unit) {
  std::printf("%s %.2f %s\n", name, value, unit);
  std::fflush(stdout);
}

// The median of what each costs, taken in turns so that both see the same machine.
inline double ratioInTurns(int rounds, const std::function<void()>& work,
                           const std::function<void()>& yardstick) {
  for (int i = 0; i < rounds / 20; ++i) {
    yardstick();
    work();
  }
  std::vector<double> yardsticks, works;
  for (int i = 0; i < rounds; ++i) {
    yardsticks.push_back(timed(yardstick));
    works.push_back(timed(work));
  }
  return median(works) / median(yardsticks);
}

}  // namespace tallow::bench
