#pragma once

#include <optional>
#include <string>

#include "platform/Base/SharedInstance.h"
#include "platform/MerrowKit/MKMachine.h"
#include "platform/VendBase/HSDevice.h"

namespace tallow {

// What this machine tells of itself, in a test's hands while it lives.
class FakeMachine final : public HSDevice, public MKMachine {
 public:
  std::optional<std::string> guid() override { return itsGUID; }
  std::optional<std::string> serialNumber() override { return itsSerial; }
  std::optional<std::string> romAddress() override { return itsROM; }
  bool isOnRecoveryPartition() override { return recovers; }

  std::optional<std::string> itsGUID = "0123456789ABCDEF", itsSerial = "SERIAL", itsROM = "ROM";
  bool recovers = false;

 private:
  ScopedShared<HSDevice> _device{*this};
  ScopedShared<MKMachine> _machine{*this};
};

}  // namespace tallow
