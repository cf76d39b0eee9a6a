#include "platform/MerrowKit/MKRetailDemoMode.h"

#include <memory>

#include "platform/Base/SharedInstance.h"
#include "platform/Preferences/Preferences.h"
#include "platform/VendBase/DefaultsKeys.h"

namespace tallow {

namespace {

Value preference(const char* key) {
  Preferences& preferences = Preferences::shared();
  Value value = preferences.copyAppValue(key, kDaemonDefaultsID);
  if (!value.isNil()) return value;
  return preferences.copyValue(key, kDaemonDefaultsID, Preferences::User::Any,
                               Preferences::Host::Current);
}

bool flag(const char* key) {
  return preference(key).boolValue().value_or(false);
}

std::optional<std::string> text(const char* key) {
  const Value value = preference(key);
  return value.string() != nullptr ? std::optional(*value.string()) : std::nullopt;
}

class PreferencesDemoMode final : public MKRetailDemoMode {
 public:
  Settings settings() override {
    // Member by member: they are read in this order.
    Settings read;
    read.demoMode = flag(kDefaultsHarlowDemoModeKey);
    read.accountName = text(kDefaultsHarlowDemoAccountName);
    read.accountPassword = text(kDefaultsHarlowDemoAccountPassword);
    read.autoLogin = flag(kDefaultsHarlowDemoAutoLogin);
    return read;
  }
};

}  // namespace

MKRetailDemoMode& MKRetailDemoMode::shared() {
  return SharedInstance<MKRetailDemoMode>::get(
      [] { return std::make_unique<PreferencesDemoMode>(); });
}

}  // namespace tallow
