#pragma once

#include <string.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace tallow {

// Bytes that leave nothing behind in memory when they go. Plain values; copies are wiped as well.
template <std::size_t N>
class SecretBytes {
 public:
  SecretBytes() = default;
  SecretBytes(const SecretBytes&) = default;
  SecretBytes& operator=(const SecretBytes&) = default;
  ~SecretBytes() { ::explicit_bzero(_bytes.data(), N); }

  std::span<std::uint8_t, N> writable() { return _bytes; }
  std::span<const std::uint8_t, N> span() const { return _bytes; }

 private:
  std::array<std::uint8_t, N> _bytes{};
};

// Memory that is wiped before it is given back.
template <class T>
struct WipingAllocator {
  using value_type = T;

  WipingAllocator() = default;
  template <class U>
  explicit WipingAllocator(const WipingAllocator<U>&) {}

  T* allocate(std::size_t count) { return std::allocator<T>().allocate(count); }
  void deallocate(T* memory, std::size_t count) {
    ::explicit_bzero(memory, count * sizeof(T));
    std::allocator<T>().deallocate(memory, count);
  }
  friend bool operator==(const WipingAllocator&, const WipingAllocator&) { return true; }
};

// The same of a length that is not known beforehand.
using SecretVector = std::vector<std::uint8_t, WipingAllocator<std::uint8_t>>;

}  // namespace tallow
