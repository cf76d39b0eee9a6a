#include "platform/QelAccounts/ACAccountStore.h"

#include <memory>

#include "platform/Base/SharedInstance.h"
#include "platform/Preferences/Preferences.h"

namespace tallow {

namespace {

class PreferencesAccountStore final : public ACAccountStore {
 public:
  std::optional<std::string> icaRecommendedVantorIDForAccountSignInWithTypeIdentifier(
      std::string_view typeIdentifier) override {
    const Value names =
        Preferences::shared().copyAppValue("RecommendedVantorIDs", "com.vantor.accounts");
    if (names.dictionary() == nullptr) return std::nullopt;
    const std::string* name = (*names.dictionary())[typeIdentifier].string();
    return name != nullptr ? std::optional(*name) : std::nullopt;
  }
};

}  // namespace

ACAccountStore& ACAccountStore::shared() {
  return SharedInstance<ACAccountStore>::get(
      [] { return std::make_unique<PreferencesAccountStore>(); });
}

}  // namespace tallow
