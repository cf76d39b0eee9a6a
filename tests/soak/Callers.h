#pragma once

#include <atomic>
#include <cstdint>
#include <random>
#include <thread>
#include <vector>

#include "client/AccountServiceClient.h"
#include "tests/soak/SoakCalls.h"
#include "tests/soak/SoakWorld.h"

namespace tallow {

// Many programs that come, ask this and that at random, and go again, without a thought for what
// becomes of it but that each call ends in time. What a Ledger keeps account of they leave alone.
// On threads of their own, until destroyed.
class Callers {
 public:
  Callers(SoakWorld& world, SoakCalls& calls, int count, std::uint64_t seed);
  ~Callers();
  Callers(const Callers&) = delete;
  Callers& operator=(const Callers&) = delete;

 private:
  void run(std::uint64_t seed);
  void callOnce(AccountServiceClient& client, std::uint64_t what);

  SoakWorld& _world;
  SoakCalls& _calls;
  std::atomic<bool> _isEnding{false};
  std::vector<std::thread> _threads;
};

}  // namespace tallow
