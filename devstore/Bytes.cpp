#include "devstore/Bytes.h"

#include <cstdint>
#include <utility>
#include <vector>

namespace tallow::devstore {

Data withFlippedBit(const Data& data, std::size_t index) {
  std::vector<std::uint8_t> bytes(data.span().begin(), data.span().end());
  if (index < bytes.size()) bytes[index] ^= 1;
  return Data(std::move(bytes));
}

}  // namespace tallow::devstore
