#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/Base/Data.h"
#include "platform/VendBase/HSOperation.h"
#include "platform/VendBase/HSStoreURLOperation.h"

namespace tallow {

// Tells the store about this device's push token, and about which kinds of media the signed-in
// account wants downloaded by themselves. Owns what such requests and their answers look like, and
// the record of which token has been announced for which device and account, so that a token is
// sent only once.
//
// Made for one request, run once on the main operation queue. Errors: kHSErrorNoBagEntry; what the
// store answers (its status or failureType as the code); those of the requests.
class RegisterPushNotificationOperation final : public HSOperation,
                                                private HSStoreURLOperationDelegate {
 public:
  static constexpr const char* kClassName = "RegisterPushNotificationOperation";

  // Keys of the request dictionary.
  static constexpr const char* kRegisterTypeKey = "1";
  static constexpr const char* kDeviceTokenKey = "2";
  static constexpr const char* kMediaTypeMaskKey = "3";

  enum RegisterType : std::uint64_t {
    kDisableAutoDownloads = 0,
    kEnableAutoDownloads = 1,
    kRegisterTokenOnly = 2,
  };

  // A number that is missing is 0.
  RegisterPushNotificationOperation(const Dictionary& initWithRequestDictionary,
                                    std::shared_ptr<const HSStoreClient> storeClient);

  std::uint64_t registerType() const { return _registerType; }
  const std::optional<Data>& deviceToken() const { return _deviceToken; }
  void setDeviceToken(std::optional<Data> token) { _deviceToken = std::move(token); }
  std::uint64_t mediaTypeMask() const { return _mediaTypeMask; }
  void setMediaTypeMask(std::uint64_t mask) { _mediaTypeMask = mask; }

  // Always nil, and asked by nobody: what the store answers is judged here and passed on to nobody.
  std::optional<Dictionary> copyResponseDictionary() const { return std::nullopt; }

  // The names of what is enabled for the account, asked of the store while the caller waits; nil
  // when they cannot be had. *error is set where there is one.
  std::optional<Array> enabledMediaTypesWithError(std::optional<Error>* error);

 protected:
  void run() override;

 private:
  void _runRegisterSuccessRequest();
  void _runRegisterMediaTypesRequest();
  Data _requestBodyDataForRegisterSuccessOperation(const Value& push);
  Data _requestBodyDataForRegisterMediaTypesOperation() const;

  bool _isRegisterSuccessAlreadySent() const;
  bool _isFirstTimeRegisterSuccess() const;
  void _setRegisterSuccessSent() const;
  void _resetRegisterSuccessSent() const;

  void operationFinishedWithOutput(HSStoreURLOperation& operation, const Value& output) override;

  // A success with an error is none.
  void fail(std::optional<Error> error);
  bool isFine() const { return success() && !error(); }
  // The URL under `urlKey` in a dictionary of the bag; without one the operation has failed.
  std::optional<URL> urlForKey(const char* urlKey, const Value& entry);
  // Sends the body to the URL. False, and the operation has failed, when no answer came.
  bool post(const URL& url, Data body, std::optional<bool> needsAuthentication);
  // The key of this device and the primary account in the record of announced tokens.
  std::string pairKey() const;

  const std::uint64_t _registerType;
  std::optional<Data> _deviceToken;
  std::uint64_t _mediaTypeMask;
};

}  // namespace tallow
