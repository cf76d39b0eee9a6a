#include "src/RegisterPushNotificationOperation.h"

#include <utility>

#include "platform/MerrowKit/MKMachine.h"
#include "platform/Preferences/Preferences.h"
#include "platform/PropertyList/PropertyList.h"
#include "platform/VendBase/DefaultsKeys.h"
#include "platform/VendBase/HSDevice.h"
#include "platform/VendBase/HSError.h"
#include "platform/VendBase/MediaTypeMask.h"
#include "platform/VendBase/StoreProtocolKeys.h"
#include "platform/VendBase/VBLogManager.h"
#include "src/AccountService/AccountStore.h"

namespace tallow {

namespace {

constexpr const char* kTitle = "Register for push notification";
constexpr const char* kFailedToRegister = "Failed to register";

// What the store answers to media types for a device that it does not know, or no longer.
constexpr std::int64_t kUnknownDevice = -2;

// Entries are only sent when there is something in them.
void addTo(Dictionary& body, const char* key, const std::optional<std::string>& text) {
  if (text && !text->empty()) body = body.setting(key, *text);
}

Data encodedBody(const Dictionary& body, const char* logFileName) {
  VBLogManager& log = VBLogManager::sharedManager();
  logLevel(3,
           "%@: Encoding dictionary for POST body:", RegisterPushNotificationOperation::kClassName);
  log.logPropertyList(3, body, "%s", logFileName);
  return PropertyList::encode(body, PropertyList::Format::XML);
}

Value recordedTokens() {
  Preferences& preferences = Preferences::shared();
  preferences.synchronize(kDaemonDefaultsID, Preferences::User::Current, Preferences::Host::Any);
  return preferences.copyValue(kDefaultsAutoPushRegisteredDeviceTokensKey, kDaemonDefaultsID,
                               Preferences::User::Current, Preferences::Host::Any);
}

void logFailedWrite() {
  // The key's name in the singular is what has always been logged.
  logLevel(1, "%@: could not write kDefaultsAutoPushRegisteredDeviceTokenKey",
           RegisterPushNotificationOperation::kClassName);
}

void synchronizeRecord() {
  if (!Preferences::shared().synchronize(kDaemonDefaultsID, Preferences::User::Current,
                                         Preferences::Host::Any))
    logFailedWrite();
}

}  // namespace

RegisterPushNotificationOperation::RegisterPushNotificationOperation(
    const Dictionary& initWithRequestDictionary, std::shared_ptr<const HSStoreClient> storeClient)
    : HSOperation(std::move(storeClient)),
      _registerType(initWithRequestDictionary[kRegisterTypeKey].unsignedValue()),
      _mediaTypeMask(initWithRequestDictionary[kMediaTypeMaskKey].unsignedValue()) {
  setRequiredBagType(1);
  if (const Data* const token = initWithRequestDictionary[kDeviceTokenKey].data())
    _deviceToken = *token;
}

void RegisterPushNotificationOperation::run() {
  switch (_registerType) {
    case kRegisterTokenOnly:
      return _runRegisterSuccessRequest();
    case kDisableAutoDownloads:
      return _runRegisterMediaTypesRequest();
    case kEnableAutoDownloads:
      break;
    default:
      return;
  }
  const bool wasAlreadySent = _isRegisterSuccessAlreadySent();
  _runRegisterSuccessRequest();
  if (!isFine()) return;
  _runRegisterMediaTypesRequest();
  if (!error() || error()->code != kUnknownDevice || !wasAlreadySent) return;

  // The token stood in the record as announced, yet the store does not know the device: announce it
  // once more. Only once.
  logLevel(1, "%@: _runRegisterMediaTypesRequest failed with -2, will try again %@", kClassName,
           *error());
  setError(std::nullopt);
  setSuccess(true);
  _resetRegisterSuccessSent();
  _runRegisterSuccessRequest();
  if (isFine()) _runRegisterMediaTypesRequest();
}

void RegisterPushNotificationOperation::fail(std::optional<Error> error) {
  setSuccess(false);
  setError(std::move(error));
}

std::optional<URL> RegisterPushNotificationOperation::urlForKey(const char* urlKey,
                                                                const Value& entry) {
  if (const Dictionary* const urls = entry.dictionary()) {
    const std::string* const text = (*urls)[urlKey].string();
    if (std::optional<URL> url = text != nullptr ? URL::parse(*text) : std::nullopt) return url;
  }
  fail(HSError(kHSErrorNoBagEntry, "No bag entry",
               format("Could not find key '%@' in bag.", urlKey)));
  // The same line for either URL: it stands as it is.
  logLevel(1, "%@: Could not find register-success: %@", kClassName, *error());
  return std::nullopt;
}

bool RegisterPushNotificationOperation::post(const URL& url, Data body,
                                             std::optional<bool> needsAuthentication) {
  const auto operation = std::make_shared<HSStoreURLOperation>(storeClient());
  operation->setRequiredBagType(requiredBagType());
  operation->setDelegate(this);
  if (needsAuthentication) operation->setNeedsAuthentication(*needsAuthentication);
  operation->setDataProvider(HSPropertyListProvider::providerWithStoreClient(storeClient()));
  HSURLRequest request(url);
  request.method = "POST";
  request.body = std::move(body);
  operation->setRequest(std::move(request));
  std::optional<Error> failure;
  const bool ran = runSubOperation(*operation, &failure);
  operation->setDelegate(nullptr);
  if (!ran) fail(std::move(failure));
  return ran;
}

void RegisterPushNotificationOperation::_runRegisterSuccessRequest() {
  // One look: the bag may be another by the time that the body is made.
  const Value push = valueForURLBagKey("push-notifications");
  const std::optional<URL> url = urlForKey("register-success", push);
  if (!url) return;
  if (_isRegisterSuccessAlreadySent()) {
    setError(std::nullopt);
    setSuccess(true);
    logLevel(1, "%@: Skip register-success: DeviceToken already sent %@", kClassName, _deviceToken);
    return;
  }
  if (!post(*url, _requestBodyDataForRegisterSuccessOperation(push), /*needsAuthentication=*/false))
    return;
  // Whatever the store has answered: that it was told is what is recorded. If it refused the token,
  // the media types will fail with -2, and the token is announced again.
  if (!_isFirstTimeRegisterSuccess())
    serviceProxy().downloadService()->checkAutomaticDownloadQueue(nullptr);
  _setRegisterSuccessSent();
}

void RegisterPushNotificationOperation::_runRegisterMediaTypesRequest() {
  const std::optional<URL> url =
      urlForKey("register-media-types", valueForURLBagKey("automatic-downloads2"));
  if (url) post(*url, _requestBodyDataForRegisterMediaTypesOperation(), std::nullopt);
}

Data RegisterPushNotificationOperation::_requestBodyDataForRegisterSuccessOperation(
    const Value& push) {
  Dictionary body{{"device-name", "Mac"}};
  if (const Dictionary* const entries = push.dictionary())
    addTo(body, "environment", (*entries)["environment"].stringOrNil());
  addTo(body, "guid", HSDevice::shared().guid());
  addTo(body, "serial-number", MKSerialNumber());
  if (_deviceToken && !_deviceToken->empty()) body = body.setting("token", *_deviceToken);
  return encodedBody(body, "RequestBodyRegisterSuccess");
}

Data RegisterPushNotificationOperation::_requestBodyDataForRegisterMediaTypesOperation() const {
  Dictionary body;
  addTo(body, "guid", HSDevice::shared().guid());
  if (_registerType == kEnableAutoDownloads) {
    const std::optional<Array> names = arrayWithMediaTypeMask(_mediaTypeMask);
    if (names && !names->empty()) body = body.setting("media-types", *names);
  } else if (_registerType == kDisableAutoDownloads) {
    body = body.setting("media-types", Array());
  }
  return encodedBody(body, "RequestBodyMediaTypes");
}

void RegisterPushNotificationOperation::operationFinishedWithOutput(HSStoreURLOperation& operation,
                                                                    const Value& output) {
  const std::optional<URL> url = operation.request().primaryURL();
  const std::string lastComponent = url ? url->lastPathComponent() : std::string();
  std::optional<Error> failure;
  if (const Dictionary* const answer = output.dictionary()) {
    logLevel(3, "%@: finishedWithOutput", kClassName);
    VBLogManager::sharedManager().logPropertyList(3, *answer, "ResponseBody_%@", lastComponent);
    const Value& status = (*answer)["status"];
    if (!status.isNumber()) {
      failure = HSError((*answer)[kStoreFailureTypeKey].intValue().value_or(0), kTitle,
                        (*answer)[kStoreCustomerMessageKey].stringOrNil());
    } else if (status.signedValue() != 0) {
      failure = HSError(status.signedValue(), kTitle, kFailedToRegister);
    } else {
      setSuccess(true);
    }
  } else {
    failure = operation.error() ? operation.error() : HSError(0, kTitle, kFailedToRegister);
  }
  if (failure) fail(std::move(failure));
  if (error()) {
    logLevel(3, "%@: finishedWithOutput for %@ failed", kClassName, lastComponent);
    logLevel(3, "%@", *error());
  }
}

// The record of announced tokens

std::string RegisterPushNotificationOperation::pairKey() const {
  const auto store = AccountStore::accountStoreForClient(storeClient());
  const auto account = store ? store->primaryAccount() : nullptr;
  const std::optional<std::uint64_t> dsID = account ? account->dsID() : std::nullopt;
  return format("%@:%@", HSDevice::shared().guid(),
                dsID ? std::optional(std::to_string(*dsID)) : std::nullopt);
}

bool RegisterPushNotificationOperation::_isRegisterSuccessAlreadySent() const {
  const Value record = recordedTokens();
  const Dictionary* const tokens = record.dictionary();
  if (tokens == nullptr || !_deviceToken) return false;
  const Data* const sent = (*tokens)[pairKey()].data();
  return sent != nullptr && *sent == *_deviceToken;
}

// Asks for the device alone, whatever the account. An array of texts that begin with a device's
// GUID is the record's older form.
bool RegisterPushNotificationOperation::_isFirstTimeRegisterSuccess() const {
  const std::optional<std::string> guid = HSDevice::shared().guid();
  if (!guid) return true;
  const Value record = recordedTokens();
  if (const Array* const list = record.array()) {
    for (const Value& element : *list) {
      const std::string* const text = element.string();
      if (text != nullptr && text->starts_with(*guid)) return false;
    }
  } else if (const Dictionary* const tokens = record.dictionary()) {
    for (const Dictionary::Entry& entry : *tokens)
      if (entry.key.starts_with(*guid)) return false;
  }
  return true;
}

void RegisterPushNotificationOperation::_setRegisterSuccessSent() const {
  if (!_deviceToken || !HSDevice::shared().guid() || _isRegisterSuccessAlreadySent()) return;
  const std::string pair = pairKey();
  // In one transaction: another operation may be recording another pair.
  const auto change = [&](Preferences::Editor& editor) {
    const Value record = editor.value(kDefaultsAutoPushRegisteredDeviceTokensKey);
    const Dictionary* const tokens = record.dictionary();
    editor.setValue(kDefaultsAutoPushRegisteredDeviceTokensKey,
                    (tokens != nullptr ? *tokens : Dictionary()).setting(pair, *_deviceToken));
  };
  if (!Preferences::shared().update(kDaemonDefaultsID, change)) return logFailedWrite();
  synchronizeRecord();
}

void RegisterPushNotificationOperation::_resetRegisterSuccessSent() const {
  logLevel(1, "%@: removing kDefaultsAutoPushRegisteredDeviceTokenKey", kClassName);
  Preferences::shared().setValue(kDefaultsAutoPushRegisteredDeviceTokensKey, Value(),
                                 kDaemonDefaultsID, Preferences::User::Current,
                                 Preferences::Host::Any);
  synchronizeRecord();
}

std::optional<Array> RegisterPushNotificationOperation::enabledMediaTypesWithError(
    std::optional<Error>* error) {
  const auto store = AccountStore::accountStoreForClient(storeClient());
  const auto account = store ? store->primaryAccount() : nullptr;
  if (!account || !account->isSignedIn()) {
    if (error != nullptr) *error = HSError(kHSErrorNotSignedIn, "Not signed in", std::nullopt);
    return std::nullopt;
  }
  const auto operation =
      HSStoreURLOperation::propertyListOperationWithURLBagKey("enabled-media-types", storeClient());
  operation->setNeedsAuthentication(false);
  operation->setRequest(HSURLRequest::uncachedWithGUID());
  std::optional<Array> enabled;
  operation->setOutputHandler([&enabled](HSStoreURLOperation&, const Value& output) {
    const Dictionary* const answer = output.dictionary();
    const Array* const kinds =
        answer != nullptr ? (*answer)["enabled-media-kinds"].array() : nullptr;
    if (kinds != nullptr) enabled = *kinds;
  });
  runSubOperation(*operation, error);
  return enabled;
}

}  // namespace tallow
