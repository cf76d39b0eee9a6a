#include "platform/VendBase/HSDevice.h"

#include <systemd/sd-id128.h>

#include <array>
#include <cctype>
#include <memory>
#include <string>

#include "platform/Base/SharedInstance.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {

namespace {

// Names this service in the derivation, so that no other program's id for the machine equals ours.
// Stores know machines by what comes out: never to be changed.
constexpr sd_id128_t kApplicationID =
    SD_ID128_MAKE(5e, 0b, 93, 7c, a4, 1f, 4d, 62, 8b, 38, c9, 70, 16, e5, 2a, d4);

std::optional<std::string> readGUID() {
  sd_id128_t derived;
  if (const int status = sd_id128_get_machine_app_specific(kApplicationID, &derived); status < 0) {
    logLevel(1, "%@: The machine has no usable id, requests go without a GUID (error %d)",
             HSDevice::kClassName, -status);
    return std::nullopt;
  }
  std::array<char, SD_ID128_STRING_MAX> text;
  std::string guid = sd_id128_to_string(derived, text.data());
  for (char& digit : guid)
    digit = static_cast<char>(std::toupper(static_cast<unsigned char>(digit)));
  return guid;
}

class SystemDevice final : public HSDevice {
 public:
  std::optional<std::string> guid() override { return _guid; }

 private:
  const std::optional<std::string> _guid = readGUID();  // does not change while the machine runs
};

}  // namespace

HSDevice& HSDevice::shared() {
  return SharedInstance<HSDevice>::get([] { return std::make_unique<SystemDevice>(); });
}

}  // namespace tallow
