#include "platform/Base/Data.h"

#include <utility>

#include "platform/Base/Secret.h"

namespace tallow {

Data::Data(std::vector<std::uint8_t> bytes) {
  if (!bytes.empty()) {
    _bytes = std::make_shared<const std::vector<std::uint8_t>>(std::move(bytes));
  }
}

Data::Data(std::string_view bytes) : Data(std::vector<std::uint8_t>(bytes.begin(), bytes.end())) {}

Data::Data(std::span<const std::uint8_t> bytes)
    : Data(std::vector<std::uint8_t>(bytes.begin(), bytes.end())) {}

Data Data::wipedAfterUse(std::vector<std::uint8_t> bytes) {
  struct Wiped {
    explicit Wiped(std::vector<std::uint8_t> taken) : bytes(std::move(taken)) {}
    ~Wiped() { Secret::wipe(bytes.data(), bytes.size()); }
    Wiped(const Wiped&) = delete;
    Wiped& operator=(const Wiped&) = delete;
    std::vector<std::uint8_t> bytes;
  };
  const auto wiped = std::make_shared<Wiped>(std::move(bytes));
  Data data;
  data._bytes = std::shared_ptr<const std::vector<std::uint8_t>>(wiped, &wiped->bytes);
  return data;
}

}  // namespace tallow
