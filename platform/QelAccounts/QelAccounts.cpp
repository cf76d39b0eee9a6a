#include "platform/QelAccounts/QelAccounts.h"

#include <utility>

#include "platform/Base/SharedInstance.h"
#include "platform/Preferences/Preferences.h"

namespace tallow {

namespace {

class PreferencesAccount final : public QKAccount {
 public:
  explicit PreferencesAccount(Dictionary properties) : _properties(std::move(properties)) {}
  Value property(std::string_view name) const override { return _properties[name]; }

 private:
  const Dictionary _properties;
};

class PreferencesAccounts final : public QelAccounts {
 public:
  std::shared_ptr<const QKAccount> loggedInAccount() override {
    const Value properties =
        Preferences::shared().copyAppValue("LoggedInAccount", "com.vantor.QelAccounts");
    if (properties.dictionary() == nullptr) return nullptr;
    return std::make_shared<PreferencesAccount>(*properties.dictionary());
  }
};

}  // namespace

QelAccounts& QelAccounts::shared() {
  return SharedInstance<QelAccounts>::get([] { return std::make_unique<PreferencesAccounts>(); });
}

}  // namespace tallow
