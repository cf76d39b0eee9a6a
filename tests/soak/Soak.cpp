// tallow-soak --kills N | --minutes M: what scripts/soak runs. Prints what it did in numbers, one
// "name value" to a line; what went wrong is on standard error, and then it exits with 1.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <iterator>
#include <optional>
#include <random>
#include <string>
#include <thread>

#include "tests/soak/Callers.h"
#include "tests/soak/Ledger.h"

namespace tallow {
namespace {

using std::chrono::steady_clock;

constexpr int kCallers = 24;
// For threads and freed memory to go when nobody calls, and for requests to time out that hang.
constexpr std::chrono::seconds kQuiet{10};
constexpr std::chrono::seconds kSettlePatience{120};
constexpr std::size_t kSpareDescriptors = 2;
constexpr std::size_t kSpareThreads = 1;
constexpr std::size_t kSpareKilobytes = 2048;

// What a store can do wrong, each for a few answers.
constexpr const char* kMisbehaviours[] = {
    R"({"bag": {"delayMs": 2000, "times": 2}})",
    R"({"bag": {"hang": true, "times": 1}})",
    R"({"bag": {"truncateAt": 200, "times": 3}})",
    R"({"bag": {"stallAt": 100, "times": 1}})",
    R"({"bag": {"signature": "flip", "times": 3}})",
    R"({"bag": {"chain": "expired", "times": 3}})",
    R"({"bag": {"nest": 100000, "times": 3}})",
    R"({"bag": {"size": 20000000, "times": 2}})",
    R"({"bag": {"status": 503, "times": 5}})",
    R"({"bag": {"flipBodyByte": 900, "times": 3}})",
    R"({"bag": {"redirectTo": "/redirect/loop", "times": 3}})",
    R"({"ping": {"hang": true, "times": 2}})",
    R"({"ping": {"setCookie": ["a=b; Domain=example.com", "c=d; Max-Age=x", "\u0001"], "times": 5}})",
    R"({"logout": {"hang": true, "times": 2}})",
    R"({"logout": {"status": 500, "times": 3}})",
    R"({"eligibility": {"text": "{\"music\": [", "times": 4}})",
    R"({"passwordSettings": {"nest": 200000, "times": 2}})",
    R"({"passwordSettings": {"truncateAt": 10, "times": 2}})",
    R"({"enabledMediaTypes": {"text": "no list", "times": 2}})",
    R"({"pushAgent": {"hang": true, "times": 1}})",
    R"({"registerSuccess": {"delayMs": 3000, "times": 2}})",
    R"({"page": {"identity": {"order": "provision"}, "times": 3}})",
};

struct Numbers {
  std::uint64_t storeKills = 0, peerKills = 0, misbehaviours = 0, fullDisks = 0, crashes = 0;
};

class Soak {
 public:
  Soak() {
    for (int number = 0; number < SoakWorld::kClients; ++number)
      _ledgers.emplace_back(_world, _calls, number);
  }

  // Ends the service so many times, each at a random moment of the changes.
  bool kill(std::uint64_t times) {
    const auto began = steady_clock::now();
    while (_world.kills() < times)
      if (!killService()) return finish(false);
    const double seconds = std::chrono::duration<double>(steady_clock::now() - began).count();
    std::printf("soak_kills_took_s %.0f\n", seconds);
    return finish(true);
  }

  // Half of the time with kills of the service, the other half without, so that a process lives
  // long enough to show what it does not give back, once it has seen everything.
  bool soak(std::chrono::seconds time) {
    if (!misbehave(time / 2, true) || !misbehave(time / 8, false)) return finish(false);
    const auto before = resourcesWhenQuiet(nullptr);
    if (!misbehave(time * 3 / 8, false)) return finish(false);
    const auto after = resourcesWhenQuiet(before ? &*before : nullptr);
    noteCrash();
    if (!before || !after) return finish(stuck("the service's resources"));
    std::printf(
        "soak_descriptors_before_after %zu %zu\nsoak_threads_before_after %zu %zu\n"
        "soak_private_kb_before_after %zu %zu\n",
        before->descriptors, after->descriptors, before->threads, after->threads,
        before->privateKilobytes, after->privateKilobytes);
    return finish(isBack(*before, *after));
  }

 private:
  static unsigned long long number(std::uint64_t value) { return value; }

  bool killService() {
    Ledger& one = _ledgers[_random() % _ledgers.size()];
    if (!one.waitForChanges(_random() % 20)) return stuck("changes");
    noteCrash();
    if (!_world.killService()) return true;
    _process = 0;
    for (Ledger& ledger : _ledgers)
      if (!ledger.waitForLook(_world.kills())) return stuck("the look after a kill");
    return true;
  }
  static bool stuck(const char* what) {
    std::fprintf(stderr, "soak: waited too long for %s\n", what);
    return false;
  }
  // It leaves only when it is killed.
  void noteCrash() {
    const pid_t now = _world.service();
    if (_process != 0 && now != _process) {
      ++_numbers.crashes;
      std::fprintf(stderr, "soak: the service %d has ended by itself\n", _process);
    }
    _process = now;
  }

  bool misbehave(std::chrono::seconds time, bool withKills) {
    const Callers callers(_world, _calls, kCallers, _random());
    for (const auto end = steady_clock::now() + time; steady_clock::now() < end;) {
      std::this_thread::sleep_for(std::chrono::milliseconds(_random() % 600));
      noteCrash();
      if (!oneEvent(withKills)) return false;
    }
    _world.stage(R"({"reset": true})");
    return true;
  }
  bool oneEvent(bool withKills) {
    constexpr const char* kPeers[] = {"com.vantor.quillonpushagent-xpc",
                                      "com.vantor.downloadservice", "com.vantor.grantwell"};
    switch (_random() % 20) {
      case 0:
      case 1:
      case 2:
        return !withKills || killService();
      case 3:
        _world.killStore();
        ++_numbers.storeKills;
        return true;
      case 4:
        _numbers.peerKills += _world.killPeer(kPeers[_random() % std::size(kPeers)]);
        return true;
      case 5:
        return fillDiskForAWhile();
      case 6:
        _world.stage(R"({"reset": true})");
        return true;
      default:
        _world.stage(kMisbehaviours[_random() % std::size(kMisbehaviours)]);
        ++_numbers.misbehaviours;
        return true;
    }
  }
  // What is acknowledged meanwhile is in memory, and is written with the next change after it.
  bool fillDiskForAWhile() {
    if (!_world.hasDisk()) return true;
    _world.fillDisk();
    std::this_thread::sleep_for(std::chrono::milliseconds(500 + _random() % 1500));
    _world.freeDisk();
    ++_numbers.fullDisks;
    for (Ledger& ledger : _ledgers)
      if (!ledger.waitForWholeRound()) return stuck("changes after a full disk");
    return true;
  }

  // Of a service that nobody calls; with `aim`, as soon as no more is held than that.
  std::optional<SoakWorld::Resources> resourcesWhenQuiet(const SoakWorld::Resources* aim) {
    for (Ledger& ledger : _ledgers) ledger.pause();
    std::this_thread::sleep_for(kQuiet);
    auto found = SoakWorld::resourcesOf(_world.service());
    for (const auto latest = steady_clock::now() + kSettlePatience;
         aim != nullptr && found && !isBack(*aim, *found) && steady_clock::now() < latest;) {
      std::this_thread::sleep_for(std::chrono::seconds(1));
      found = SoakWorld::resourcesOf(_world.service());
    }
    for (Ledger& ledger : _ledgers) ledger.resume();
    return found;
  }
  static bool isBack(const SoakWorld::Resources& before, const SoakWorld::Resources& now) {
    return now.descriptors <= before.descriptors + kSpareDescriptors &&
           now.threads <= before.threads + kSpareThreads &&
           now.privateKilobytes <= before.privateKilobytes * 5 / 4 + kSpareKilobytes;
  }

  bool finish(bool isFine) {
    if (!isFine) std::fprintf(stderr, "soak: not everything came back to where it was\n");
    std::uint64_t changes = 0, lost = 0;
    for (Ledger& ledger : _ledgers) {
      ledger.end();
      changes += ledger.changes();
      lost += ledger.lost();
    }
    std::printf(
        "soak_service_kills %llu\nsoak_store_kills %llu\nsoak_peer_kills %llu\n"
        "soak_misbehaviours %llu\nsoak_full_disks %llu\nsoak_acknowledged_changes %llu\n"
        "soak_lost %llu\nsoak_crashes %llu\n",
        number(_world.kills()), number(_numbers.storeKills), number(_numbers.peerKills),
        number(_numbers.misbehaviours), number(_numbers.fullDisks), number(changes), number(lost),
        number(_numbers.crashes));
    _calls.print();
    return isFine && lost == 0 && _numbers.crashes == 0 && _calls.hung() == 0;
  }

  SoakWorld _world;
  SoakCalls _calls;
  Numbers _numbers;
  std::mt19937_64 _random{std::random_device{}()};
  pid_t _process = 0;
  std::deque<Ledger> _ledgers;
};

}  // namespace
}  // namespace tallow

int main(int argumentCount, char** arguments) {
  const std::string what = argumentCount == 3 ? arguments[1] : "";
  const long count = argumentCount == 3 ? std::strtol(arguments[2], nullptr, 10) : 0;
  if ((what != "--kills" && what != "--minutes") || count <= 0) {
    std::fprintf(stderr, "usage: tallow-soak --kills N | --minutes M\n");
    return 2;
  }
  tallow::Soak soak;
  const bool isFine = what == "--kills" ? soak.kill(static_cast<std::uint64_t>(count))
                                        : soak.soak(std::chrono::minutes(count));
  return isFine ? EXIT_SUCCESS : EXIT_FAILURE;
}
