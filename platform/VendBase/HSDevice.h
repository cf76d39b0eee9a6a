#pragma once

#include <optional>
#include <string>

namespace tallow {

// Facts about this machine.
class HSDevice {
 public:
  static constexpr const char* kClassName = "HSDevice";  // in log lines

  virtual ~HSDevice() = default;
  static HSDevice& shared();

  // The machine's GUID as store requests carry it: derived from the machine id in a way that does
  // not reveal it (sd_id128_get_machine_app_specific), 32 upper-case hexadecimal digits. nullopt
  // when the machine has no id.
  virtual std::optional<std::string> guid() = 0;
};

}  // namespace tallow
