#include "platform/Preferences/Preferences.h"

#include "platform/Base/Directories.h"
#include "platform/Base/SharedInstance.h"
#include "platform/Preferences/SQLitePreferences.h"

namespace tallow {

Value Preferences::copyAppValue(std::string_view key, std::string_view domain) {
  for (const Host host : {Host::Current, Host::Any}) {
    Value value = copyValue(key, domain, User::Current, host);
    if (!value.isNil()) return value;
  }
  return copyValue(key, domain, User::Any, Host::Any);
}

bool Preferences::getAppBooleanValue(std::string_view key, std::string_view domain, bool* exists) {
  const std::optional<bool> flag = copyAppValue(key, domain).boolValue();
  if (exists != nullptr) *exists = flag.has_value();
  return flag.value_or(false);
}

Preferences& Preferences::shared() {
  return SharedInstance<Preferences>::get([] {
    return std::make_unique<SQLitePreferences>(
        SQLitePreferences::configurationFor(Directories::shared()));
  });
}

}  // namespace tallow
