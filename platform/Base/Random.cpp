#include "platform/Base/Random.h"

#include <sys/random.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/Base/SharedInstance.h"

namespace tallow {

namespace {

// The kernel's generator: no library state to seed, nothing that a fork would duplicate.
class SystemRandom final : public Random {
 public:
  void fill(std::span<std::uint8_t> bytes) override {
    while (!bytes.empty()) {
      const ssize_t count = getrandom(bytes.data(), bytes.size(), 0);
      if (count < 0) {
        if (errno == EINTR) continue;
        std::perror("getrandom");  // only a kernel or sandbox without the call
        std::abort();
      }
      bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
  }
};

}  // namespace

double Random::unit() {
  std::array<std::uint8_t, sizeof(std::uint64_t)> bytes{};
  fill(bytes);
  std::uint64_t bits = 0;
  std::memcpy(&bits, bytes.data(), sizeof bits);
  return static_cast<double>(bits >> 11) * 0x1p-53;
}

Random& Random::shared() {
  return SharedInstance<Random>::get([] { return std::make_unique<SystemRandom>(); });
}

}  // namespace tallow
