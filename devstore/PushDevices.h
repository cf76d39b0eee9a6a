#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "platform/Base/Value.h"

namespace tallow::devstore {

// The devices that have announced a push token, by GUID, and what each has downloaded by itself.
// Shared by the push endpoints of one store; any thread.
class PushDevices {
 public:
  void announce(const std::string& guid);
  // False for a device that has not been announced.
  bool setMediaTypes(const std::string& guid, const Array& mediaTypes);
  // Nil likewise.
  std::optional<Array> mediaTypes(const std::string& guid) const;

 private:
  mutable std::mutex _lock;
  std::map<std::string, Array> _devices;  // guarded by _lock
};

}  // namespace tallow::devstore
