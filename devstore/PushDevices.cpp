#include "devstore/PushDevices.h"

namespace tallow::devstore {

void PushDevices::announce(const std::string& guid) {
  const std::lock_guard lock(_lock);
  _devices.try_emplace(guid);
}

bool PushDevices::setMediaTypes(const std::string& guid, const Array& mediaTypes) {
  const std::lock_guard lock(_lock);
  const auto found = _devices.find(guid);
  if (found == _devices.end()) return false;
  found->second = mediaTypes;
  return true;
}

std::optional<Array> PushDevices::mediaTypes(const std::string& guid) const {
  const std::lock_guard lock(_lock);
  const auto found = _devices.find(guid);
  return found == _devices.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace tallow::devstore
