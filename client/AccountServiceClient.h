#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Base/Result.h"

namespace tallow {

class ServiceConnection;

// A store process's way to the account service: the calls of com.vantor.HSAccountService as typed
// C++. Each call waits for its answer, for at most the time that the interface documents for it.
//
// The first call connects to the bus, which starts the service. A bus or a service that goes away
// fails the calls that wait just then; the next call finds the one that runs by then, and whom the
// client acts for and its observer are carried over to it.
//
// Any thread may call; several at once. The observer is called on the client's own thread, and must
// not call back into the client.
//
// Errors: domain kErrorDomain, code one of ErrorCode; the localized description is the service's or
// the bus's own text, user-info key kErrorNameKey holds the name of the error on the bus.
class AccountServiceClient {
 public:
  enum class Instance { Agent, Daemon };  // session bus, system bus
  enum ErrorCode {
    kUnreachable = 1,  // no bus, no service, or no answer in time
    kRefused = 2,      // the service does not serve this process
    kInvalidArgument = 3,
    kFailed = 4,  // any other answer that is an error
    kTaken = 5,   // somebody else is already what this process wants to be
  };
  static constexpr const char* kErrorDomain = "com.vantor.tallowd.Client";
  static constexpr const char* kErrorNameKey = "name";

  struct BagLoad {
    bool valid = false;          // there is a valid bag now
    bool success = false;        // it was valid before, and nothing had to be loaded
    std::optional<Error> error;  // why loading it failed
  };
  struct MediaTypes {
    bool success = false;
    std::optional<Error> error;
    std::int64_t mask = 0;  // as the service knows it now, also after a failure
  };
  struct SignIn {
    bool success = false;
    std::optional<Dictionary> account;
    std::optional<Error> error;  // none where the person did not want to
  };
  struct Eligibility {
    bool eligible = false;
    std::optional<Error> error;
  };
  struct DemoMode {
    bool demoMode = false;
    std::optional<std::string> name, password;
    bool autoLogin = false;
  };
  struct PasswordSettings {
    std::optional<Dictionary> settings;  // empty, or none, where they could not be read
    std::optional<Error> error;
  };
  struct PasswordSettingsUpdate {
    bool success = false;
    std::optional<Error> error;
  };
  using BagObserver = std::function<void(bool success, const std::optional<Error>& error)>;

  using AccountObserver = std::function<void(const std::optional<Dictionary>& account)>;

  explicit AccountServiceClient(Instance instance);
  ~AccountServiceClient();
  AccountServiceClient(const AccountServiceClient&) = delete;
  AccountServiceClient& operator=(const AccountServiceClient&) = delete;

  // From now on this client acts as the store client with the identifier, where its descriptor lets
  // it. On an error it stays who it was.
  std::optional<Error> actAs(const std::string& identifier);

  // Bag. A nil value is the nil Value.
  Result<Value> valueForURLBagKey(const std::string& key);
  Result<bool> urlIsTrustedByURLBag(const std::string& url);
  Result<bool> needsSilentOrvActionForURL(const std::string& url);
  Result<BagLoad> loadURLBagWithType(std::uint64_t bagType);
  std::optional<Error> invalidateAllBags();
  Result<bool> regexWithKey(const std::string& key, const std::string& matchesString);
  Result<bool> isValid();
  Result<std::optional<Dictionary>> dictionary();
  Result<bool> shouldSendGUIDWithRequestForURL(const std::string& url);
  // Hears of every update of the bag from now on. One observer a client; an empty one removes it.
  std::optional<Error> observeURLBag(BagObserver observer);

  // Cookies and request headers
  std::optional<Error> consumeCookiesWithHTTPHeaders(const Dictionary& headers,
                                                     const std::string& fromURL);
  Result<Dictionary> httpHeadersForURL(const std::string& url, std::optional<std::uint64_t> forDSID,
                                       bool includeOrvHeaders);
  std::optional<Error> deleteAllCookies();

  // Storefront
  Result<std::optional<std::string>> storeFront();
  std::optional<Error> setStoreFrontID(const std::optional<std::string>& storeFrontID);

  // Push and device set-up. Where the store, or the push agent, is asked, the error of its no is
  // the result, too (its domain is not kErrorDomain then).
  std::optional<Error> registerDeviceTokenForEnvironmentNamed(const std::string& environmentName);
  Result<MediaTypes> getEnabledMediaTypes();
  std::optional<Error> enableAutoDownloadForEnvironmentNamed(const std::string& environmentName);
  std::optional<Error> disableAutoDownload();
  Result<bool> isRegisteredForAccount(std::uint64_t dsID, std::int64_t mask);
  std::optional<Error> handlePushNotificationMessage(const Dictionary& message);
  std::optional<Error> completeSetupWithResponse(const Dictionary& response);

  // Accounts, as the records that the interface describes: "dsid", an unsigned 64-bit number,
  // "identifier", the name, and more. The token is only in the answer of strongToken().
  Result<std::vector<Dictionary>> accounts();
  Result<std::optional<Dictionary>> primaryAccount();
  Result<std::optional<Dictionary>> accountWithDSID(std::uint64_t dsID);
  Result<std::optional<Dictionary>> accountWithVantorID(const std::string& vantorID);
  // Of the primary account.
  Result<std::optional<std::string>> strongToken();
  Result<bool> authIsExpired();
  Result<std::optional<Dictionary>> addAccountWithAuthenticationResponse(const Dictionary& response,
                                                                         bool makePrimary);
  std::optional<Error> addAccount(const Dictionary& account);
  // Waits for a person: up to eleven minutes.
  Result<SignIn> signInWithContext(const Dictionary& context);
  std::optional<Error> signOut();
  std::optional<Error> parseCreditStringForProtocol(const Dictionary& protocol);
  Result<std::optional<bool>> eligibilityForService(std::uint64_t service);
  Result<Eligibility> getEligibilityForService(std::uint64_t service);
  Result<DemoMode> retailStoreDemoMode();
  Result<std::optional<std::string>> nimboDSID();
  Result<std::optional<std::string>> recommendedVantorIDForAccountSignIn();
  // Hears of every change of the primary account from now on, also of one that happened while the
  // service was restarted. As observeURLBag.
  std::optional<Error> observeAccounts(AccountObserver observer);

  // Password settings. A change waits for a person whom the store wants to sign in: for up to a
  // day.
  Result<PasswordSettings> passwordSettings();
  Result<PasswordSettingsUpdate> updatePasswordSettings(const std::optional<Dictionary>& settings);

  // What the service says of itself: one JSON object, for people.
  Result<std::string> describe();
  // The name that the bus has given this client, as which the service knows it.
  Result<std::string> uniqueName();

 private:
  std::unique_ptr<ServiceConnection> _connection;
};

}  // namespace tallow
