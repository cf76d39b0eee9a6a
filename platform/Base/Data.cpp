#include "platform/Base/Data.h"

#include <utility>

namespace tallow {

Data::Data(std::vector<std::uint8_t> bytes) {
  if (!bytes.empty()) {
    _bytes = std::make_shared<const std::vector<std::uint8_t>>(std::move(bytes));
  }
}

Data::Data(std::string_view bytes) : Data(std::vector<std::uint8_t>(bytes.begin(), bytes.end())) {}

Data::Data(std::span<const std::uint8_t> bytes)
    : Data(std::vector<std::uint8_t>(bytes.begin(), bytes.end())) {}

}  // namespace tallow
