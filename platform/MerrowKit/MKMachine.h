#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace tallow {

// What the store's framework knows of this machine. Each fact is read anew at each question, so
// that one which could not be read early is there later. Any thread.
class MKMachine {
 public:
  virtual ~MKMachine() = default;
  // This machine. Where it does not tell its serial number or address to this process (only root
  // may read the one), what the preferences state in its stead.
  static MKMachine& shared();
  // The machine as the kernel describes it below `root` ("/" outside tests).
  static std::unique_ptr<MKMachine> make(const std::filesystem::path& root);

  // The serial number that the firmware states: from the SMBIOS tables (which only root may read),
  // else from the device tree. Nil where neither tells, and for what makers leave in when they have
  // set none.
  virtual std::optional<std::string> serialNumber() = 0;
  // The address burnt into the first wired or wireless network interface, as twelve upper-case
  // hexadecimal digits. Addresses that software has made up do not count; nil when there is no
  // other.
  virtual std::optional<std::string> romAddress() = 0;
  // Whether the system runs from its recovery partition: the kernel was told so, or the root file
  // system lies on a partition that is named so. False where the machine does not tell.
  virtual bool isOnRecoveryPartition() = 0;
};

inline std::optional<std::string> MKSerialNumber() {
  return MKMachine::shared().serialNumber();
}
inline std::optional<std::string> MKROMAddress() {
  return MKMachine::shared().romAddress();
}
inline bool MKOnRecoveryPartition() {
  return MKMachine::shared().isOnRecoveryPartition();
}

}  // namespace tallow
