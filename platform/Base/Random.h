#pragma once

#include <cstdint>
#include <span>

namespace tallow {

// The one source of randomness; cryptographically strong. Callable from any thread.
class Random {
 public:
  virtual ~Random() = default;
  virtual void fill(std::span<std::uint8_t> bytes) = 0;
  // Uniform in [0, 1).
  double unit();

  static Random& shared();
};

}  // namespace tallow
