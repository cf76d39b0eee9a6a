#include "src/AccountService/PasswordSettings/GetPasswordSettingsOperation.h"

#include <utility>

#include "platform/PropertyList/PropertyList.h"
#include "platform/VendBase/HSDevice.h"
#include "platform/VendBase/HSError.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {

namespace {
constexpr const char* kFailed = "GetPasswordSettings failed";
}  // namespace

void GetPasswordSettingsOperation::run() {
  const auto request = HSStoreURLOperation::propertyListOperationWithURLBagKey(
      "get-password-settings", storeClient());
  request->setNeedsAuthentication(false);
  HSURLRequest post;
  post.method = "POST";
  post.body = _requestBodyData();
  request->setRequest(std::move(post));
  request->setOutputHandler(
      [this](HSStoreURLOperation& from, const Value& output) { _takeOutput(from, output); });
  request->setCompletionHandler(
      [this](HSOperation&, bool success, const std::optional<Error>& error) {
        setSuccess(success);
        setError(error);
      });
  runSubOperation(*request, nullptr);
}

// A missing GUID leaves an empty dictionary.
Data GetPasswordSettingsOperation::_requestBodyData() {
  return PropertyList::encode(Dictionary{{"guid", HSDevice::shared().guid()}},
                              PropertyList::Format::XML);
}

void GetPasswordSettingsOperation::_takeOutput(HSStoreURLOperation& request, const Value& output) {
  const Dictionary* const response = output.dictionary();
  if (response == nullptr) {
    request.setSuccess(false);
    request.setError(HSError(kHSErrorInvalidResponse, kFailed, "Unknown response"));
    logLevel(1, "%@ output %@", kClassName, output);
    return;
  }
  if (const Dictionary* const settings = (*response)["passwordSettings"].dictionary()) {
    _passwordSettings = *settings;
    request.setSuccess(true);
  } else {
    request.setSuccess(false);
    // Title and message alike: whoever shows the one or the other shows something.
    request.setError(HSError(kHSErrorInvalidResponse, kFailed, kFailed));
    _passwordSettings.emplace();
    logLevel(1, "%@ response %@", kClassName, *response);
  }
  VBLogManager::sharedManager().logPropertyList(3, output, "GetPasswordSettings_%@",
                                                storeClient()->identifier);
}

}  // namespace tallow
