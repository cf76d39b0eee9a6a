#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace tallow {

// Writes fields one after the other into bytes that have room for them, numbers big-endian. To
// write more than fits is a programmer error.
class ByteWriter {
 public:
  explicit ByteWriter(std::span<std::uint8_t> into) : _rest(into) {}

  ByteWriter& bytes(std::span<const std::uint8_t> field) {
    std::copy(field.begin(), field.end(), _rest.first(field.size()).begin());
    _rest = _rest.subspan(field.size());
    return *this;
  }
  template <class Integer>
  ByteWriter& number(Integer value) {
    std::array<std::uint8_t, sizeof(Integer)> field;
    for (std::size_t i = 0; i < field.size(); ++i)
      field[i] = static_cast<std::uint8_t>(static_cast<std::uint64_t>(value) >>
                                           (8 * (field.size() - 1 - i)));
    return bytes(field);
  }

 private:
  std::span<std::uint8_t> _rest;
};

// Reads them back. To read more than is there is a programmer error: check the length first.
class ByteReader {
 public:
  explicit ByteReader(std::span<const std::uint8_t> from) : _rest(from) {}

  ByteReader& bytes(std::span<std::uint8_t> field) {
    const auto source = take(field.size());
    std::copy(source.begin(), source.end(), field.begin());
    return *this;
  }
  template <class Integer>
  ByteReader& number(Integer& value) {
    std::uint64_t read = 0;
    for (const std::uint8_t byte : take(sizeof(Integer))) read = read << 8 | byte;
    value = static_cast<Integer>(read);
    return *this;
  }
  std::span<const std::uint8_t> take(std::size_t count) {
    const auto taken = _rest.first(count);
    _rest = _rest.subspan(count);
    return taken;
  }

 private:
  std::span<const std::uint8_t> _rest;
};

}  // namespace tallow
