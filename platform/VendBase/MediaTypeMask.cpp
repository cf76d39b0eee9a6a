#include "platform/VendBase/MediaTypeMask.h"

#include <vector>

namespace tallow {

std::int64_t mediaTypeMask(const Array& names) {
  std::int64_t mask = 0;
  for (const Value& element : names) {
    const std::string* const name = element.string();
    if (name == nullptr) continue;
    for (const auto& [known, type] : kMediaTypeNames) {
      if (*name == known) mask |= static_cast<std::int64_t>(type);
    }
  }
  return mask;
}

std::optional<Array> arrayWithMediaTypeMask(std::uint64_t mask) {
  if (mask == 0) return std::nullopt;
  std::vector<Value> names;
  for (const auto& [name, type] : kMediaTypeNames) {
    if ((mask & type) != 0) names.emplace_back(name);
  }
  return Array(std::move(names));
}

}  // namespace tallow
