#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

namespace tallow {

// An immutable run of bytes. Copies share the bytes; nothing is ever copied after construction.
// Safe to read from any thread at once.
class Data {
 public:
  Data() = default;
  explicit Data(std::vector<std::uint8_t> bytes);
  explicit Data(std::string_view bytes);
  explicit Data(std::span<const std::uint8_t> bytes);
  // Overwrites them when the last copy goes: for what holds a secret.
  static Data wipedAfterUse(std::vector<std::uint8_t> bytes);

  const std::uint8_t* bytes() const { return _bytes ? _bytes->data() : nullptr; }
  std::size_t length() const { return _bytes ? _bytes->size() : 0; }
  bool empty() const { return length() == 0; }
  std::span<const std::uint8_t> span() const { return {bytes(), length()}; }
  std::string_view view() const { return {reinterpret_cast<const char*>(bytes()), length()}; }

  friend bool operator==(const Data& a, const Data& b) { return a.view() == b.view(); }

 private:
  std::shared_ptr<const std::vector<std::uint8_t>> _bytes;
};

}  // namespace tallow
