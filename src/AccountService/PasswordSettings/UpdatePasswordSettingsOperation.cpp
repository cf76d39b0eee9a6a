#include "src/AccountService/PasswordSettings/UpdatePasswordSettingsOperation.h"

#include <string>
#include <vector>

#include "platform/MerrowKit/MKMachine.h"
#include "platform/PropertyList/PropertyList.h"
#include "platform/VendBase/HSDevice.h"
#include "platform/VendBase/HSError.h"
#include "platform/VendBase/StoreProtocolKeys.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {

namespace {

// What the sign-in is for, by the store's own numbers.
constexpr std::int64_t kAuthenticationReason = 7;

}  // namespace

void UpdatePasswordSettingsOperation::run() {
  if (!_passwordSettings) {
    setSuccess(false);
    return;
  }
  // No limit on the repetitions: a store that goes on asking is answered as long as a person goes
  // on signing in. Closing the dialog ends it.
  for (Request request = _newOperation();; request = _newOperation()) {
    setError(std::nullopt);
    std::optional<Error> error;
    const bool hasRun = runSubOperation(*request.operation, &error);
    if (!hasRun || error) {
      fail(std::move(error));
      return;
    }
    if (const auto dsID = authenticatedDSID(request);
        dsID && request.provider->didProcessDialog()) {
      logLevel(1, "%@:didProcessDialog and has authenticatedDSID %@", kClassName, *dsID);
      continue;
    }
    const Dictionary* const answer = request.provider->output().dictionary();
    if (answer != nullptr && answer->contains(kStoreFailureTypeKey)) {
      // The store's words become the title: that is what people are shown.
      fail(HSError(kHSErrorInvalidResponse, (*answer)[kStoreCustomerMessageKey].stringOrNil(),
                   std::nullopt));
      return;
    }
    setSuccess(true);
    return;
  }
}

UpdatePasswordSettingsOperation::Request UpdatePasswordSettingsOperation::_newOperation() const {
  Request made{std::make_shared<HSStoreURLOperation>(storeClient()),
               HSPropertyListProvider::providerWithStoreClient(storeClient())};
  made.operation->setNeedsAuthentication(false);
  made.operation->setURLBagKey("update-password-settings");
  made.operation->setShouldRetryOnSilentOrvAction(true);
  HSAuthenticationContext context;
  context.setAuthenticationReason(kAuthenticationReason);
  made.operation->setAuthenticationContext(std::move(context));
  HSURLRequest post;
  post.method = "POST";
  post.body = _requestBodyData();
  made.operation->setRequest(std::move(post));
  made.provider->setShouldProcessDialogs(true);
  made.operation->setDataProvider(made.provider);
  return made;
}

// One ordered list in which the first missing value ends it: a machine that does not tell its
// serial number sends no settings either. Stores know what to make of that.
Data UpdatePasswordSettingsOperation::_requestBodyData() const {
  const std::pair<const char*, Value> pairs[] = {{"guid", HSDevice::shared().guid()},
                                                 {"serial-no", MKSerialNumber()},
                                                 {"rom-addr", MKROMAddress()},
                                                 {"passwordSettings", _passwordSettings}};
  std::vector<Dictionary::Entry> entries;
  for (const auto& [key, value] : pairs) {
    if (value.isNil()) break;
    entries.push_back({key, value});
  }
  return PropertyList::encode(Dictionary(std::move(entries)), PropertyList::Format::XML);
}

std::optional<std::uint64_t> UpdatePasswordSettingsOperation::authenticatedDSID(
    const Request& request) {
  const std::uint64_t own = request.operation->authenticatedDSID().value_or(0);
  const std::uint64_t dsID =
      own != 0 ? own : request.provider->authenticatedAccountDSID().value_or(0);
  return dsID != 0 ? std::optional(dsID) : std::nullopt;
}

void UpdatePasswordSettingsOperation::fail(std::optional<Error> error) {
  setSuccess(false);
  setError(std::move(error));
}

}  // namespace tallow
