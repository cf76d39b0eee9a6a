#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/VendBase/HSAccountService.h"
#include "platform/VendBase/HSServiceProxy.h"
#include "tests/support/SilentAccountService.h"

namespace tallow {

// An account service for tests of code that asks or feeds one. Answers on the calling thread, with
// what the test has set; writes down every call, by operation name, and everything handed in.
// The answers are set before use; calls may come from any thread.
class FakeAccountService final : public SilentAccountService {
 public:
  struct ConsumedHeaders {
    Dictionary headers;
    std::optional<URL> fromURL;
  };
  struct HeaderQuestion {
    std::optional<URL> url;
    std::optional<std::uint64_t> dsid;
    bool includeOrvHeaders;
  };

  // Answers. A bag that is "not there" answers nil and false.
  Dictionary bag;
  bool bagIsValid = true;
  std::function<bool(const URL&)> trusts = [](const URL&) { return true; };
  std::function<bool(const URL&)> allowsGUID = [](const URL&) { return false; };
  std::function<Dictionary(const HeaderQuestion&)> headers = [](const HeaderQuestion&) {
    return Dictionary();
  };
  std::function<bool(const URL&)> needsOrvAction = [](const URL&) { return false; };
  std::optional<Error> loadError;
  std::optional<Dictionary> passwordSettings;
  std::optional<Error> passwordSettingsError;
  // Called at the start of every operation, on the calling thread, with the operation's name: may
  // block, to play a service that is busy.
  std::function<void(const std::string& operation)> onCall;
  // Operations whose reply is dropped unanswered.
  std::vector<std::string> unanswered;

  std::vector<std::string> calls() const { return copyOf(_calls); }
  std::vector<ConsumedHeaders> consumed() const { return copyOf(_consumed); }
  std::vector<HeaderQuestion> headerQuestions() const { return copyOf(_headerQuestions); }
  std::vector<std::optional<std::string>> storeFrontsSet() const { return copyOf(_storeFrontsSet); }
  std::optional<std::string> storeFrontID() const { return copyOf(_storeFrontID); }
  void setStoreFront(std::optional<std::string> id) { _storeFrontID = std::move(id); }

  void valueForURLBagKey(std::string key, Reply<Value> reply) override {
    answer("valueForURLBagKey", reply, bagIsValid ? bag[key] : Value());
  }
  void urlIsTrustedByURLBag(std::optional<URL> url, Reply<bool> reply) override {
    answer("urlIsTrustedByURLBag", reply, bagIsValid && url && trusts(*url));
  }
  void needsSilentOrvActionForURL(std::optional<URL> url, Reply<bool> reply) override {
    answer("needsSilentOrvActionForURL", reply, url && needsOrvAction(*url));
  }
  void loadURLBagWithType(std::uint64_t /*bagType*/,
                          Reply<bool, bool, std::optional<Error>> reply) override {
    answer("loadURLBagWithType", reply, bagIsValid, !loadError, loadError);
  }
  void invalidateAllBags(Done reply) override { answer("invalidateAllBags", reply); }
  void regexWithKey(std::string /*key*/, std::string /*matchesString*/,
                    Reply<bool> reply) override {
    answer("regexWithKey", reply, false);
  }
  void isValid(Reply<bool> reply) override { answer("isValid", reply, bagIsValid); }
  void dictionary(Reply<std::optional<Dictionary>> reply) override {
    answer("dictionary", reply, std::optional<Dictionary>(bag));
  }
  void addURLBagObserver(std::shared_ptr<HSURLBagObserver> /*observer*/, Done reply) override {
    answer("addURLBagObserver", reply);
  }
  void removeURLBagObserver(std::shared_ptr<HSURLBagObserver> /*observer*/, Done reply) override {
    answer("removeURLBagObserver", reply);
  }
  void shouldSendGUIDWithRequestForURL(std::optional<URL> url, Reply<bool> reply) override {
    answer("shouldSendGUIDWithRequestForURL", reply, bagIsValid && url && allowsGUID(*url));
  }
  void consumeCookiesWithHTTPHeaders(Dictionary responseHeaders, std::optional<URL> fromURL,
                                     Done reply) override {
    enter("consumeCookiesWithHTTPHeaders");
    {
      const std::lock_guard guard(_lock);
      _consumed.push_back({std::move(responseHeaders), std::move(fromURL)});
    }
    leave("consumeCookiesWithHTTPHeaders", reply);
  }
  void httpHeadersForURL(std::optional<URL> url, std::optional<std::uint64_t> forDSID,
                         bool includeOrvHeaders, Reply<Dictionary> reply) override {
    const HeaderQuestion question{std::move(url), forDSID, includeOrvHeaders};
    {
      const std::lock_guard guard(_lock);
      _headerQuestions.push_back(question);
    }
    answer("httpHeadersForURL", reply, headers(question));
  }
  void deleteAllCookies(Done reply) override { answer("deleteAllCookies", reply); }
  void storeFront(Reply<std::optional<std::string>> reply) override {
    answer("storeFront", reply, storeFrontID());
  }
  void setStoreFrontID(std::optional<std::string> storeFrontID, Done reply) override {
    enter("setStoreFrontID");
    {
      const std::lock_guard guard(_lock);
      _storeFrontID = storeFrontID;
      _storeFrontsSet.push_back(std::move(storeFrontID));
    }
    leave("setStoreFrontID", reply);
  }

  // Accounts: what has been set before is what is answered.
  std::vector<Account> knownAccounts;
  Account signedInAccount;
  std::optional<Error> signInError;

  void accounts(Reply<std::vector<Account>> reply) override {
    answer("accounts", reply, knownAccounts);
  }
  void strongTokenForAccount(Account /*account*/,
                             Reply<std::optional<std::string>> reply) override {
    answer("strongTokenForAccount", reply,
           signedInAccount ? signedInAccount->token() : std::nullopt);
  }
  void authIsExpired(Reply<bool> reply) override {
    answer("authIsExpired", reply, !signedInAccount || !signedInAccount->hasValidStrongToken());
  }
  void primaryAccount(Reply<Account> reply) override {
    answer("primaryAccount", reply, signedInAccount);
  }
  void accountWithDSID(std::optional<std::uint64_t> dsID, Reply<Account> reply) override {
    Account found;
    for (const Account& account : knownAccounts)
      if (!found && account->dsID() == dsID) found = account;
    answer("accountWithDSID", reply, found);
  }
  void accountWithVantorID(std::optional<std::string> /*vantorID*/, Reply<Account> reply) override {
    answer("accountWithVantorID", reply, Account());
  }
  void addAccountWithAuthenticationResponse(HSAuthenticationResponse response, bool makePrimary,
                                            Reply<Account> reply) override {
    auto account = std::make_shared<HSStoreAccount>();
    account->mergeValuesFromAuthenticationResponse(response);
    knownAccounts.push_back(account);
    if (makePrimary) signedInAccount = account;
    answer("addAccountWithAuthenticationResponse", reply, account);
  }
  void addAccount(Account account, Done reply) override {
    knownAccounts.push_back(std::move(account));
    answer("addAccount", reply);
  }
  void signInWithContext(HSAuthenticationContext /*context*/,
                         Reply<bool, Account, std::optional<Error>> reply) override {
    answer("signInWithContext", reply, signedInAccount != nullptr, signedInAccount, signInError);
  }
  void signOut(Done reply) override {
    signedInAccount = nullptr;
    answer("signOut", reply);
  }
  void parseCreditStringForProtocol(Dictionary protocol, Done reply) override {
    enter("parseCreditStringForProtocol");
    {
      const std::lock_guard guard(_lock);
      _protocols.push_back(std::move(protocol));
    }
    leave("parseCreditStringForProtocol", reply);
  }
  std::vector<Dictionary> protocols() const { return copyOf(_protocols); }
  void addAccountStoreObserver(std::shared_ptr<HSAccountStoreObserver> /*observer*/,
                               Done reply) override {
    answer("addAccountStoreObserver", reply);
  }
  void removeAccountStoreObserver(std::shared_ptr<HSAccountStoreObserver> /*observer*/,
                                  Done reply) override {
    answer("removeAccountStoreObserver", reply);
  }
  void eligibilityForService(std::uint64_t /*service*/, Reply<std::optional<bool>> reply) override {
    answer("eligibilityForService", reply, std::optional<bool>());
  }
  void getEligibilityForService(std::uint64_t /*service*/,
                                Reply<bool, std::optional<Error>> reply) override {
    answer("getEligibilityForService", reply, false, std::optional<Error>());
  }
  void retailStoreDemoMode(
      Reply<bool, std::optional<std::string>, std::optional<std::string>, bool> reply) override {
    answer("retailStoreDemoMode", reply, false, std::nullopt, std::nullopt, false);
  }
  void nimboDSID(Reply<std::optional<std::string>> reply) override {
    answer("nimboDSID", reply, std::optional<std::string>());
  }
  void recommendedVantorIDForAccountSignIn(Reply<std::optional<std::string>> reply) override {
    answer("recommendedVantorIDForAccountSignIn", reply, std::optional<std::string>());
  }

  void getPasswordSettings(Reply<std::optional<Dictionary>, std::optional<Error>> reply) override {
    answer("getPasswordSettings", reply, passwordSettings, passwordSettingsError);
  }
  void updatePasswordSettings(std::optional<Dictionary> settings,
                              Reply<bool, std::optional<Error>> reply) override {
    answer("updatePasswordSettings", reply, settings.has_value(), passwordSettingsError);
  }

  // Push and device set-up succeed.
  void registerDeviceTokenForEnvironmentNamed(std::string,
                                              Reply<bool, std::optional<Error>> reply) override {
    answer("registerDeviceTokenForEnvironmentNamed", reply, true, std::nullopt);
  }
  void getEnabledMediaTypes(Reply<bool, std::optional<Error>, std::int64_t> reply) override {
    answer("getEnabledMediaTypes", reply, true, std::nullopt, 0);
  }
  void enableAutoDownloadForEnvironmentNamed(std::string,
                                             Reply<bool, std::optional<Error>> reply) override {
    answer("enableAutoDownloadForEnvironmentNamed", reply, true, std::nullopt);
  }
  void disableAutoDownload(Reply<bool, std::optional<Error>> reply) override {
    answer("disableAutoDownload", reply, true, std::nullopt);
  }
  void isRegisteredForAccount(std::uint64_t, std::int64_t,
                              Reply<bool, std::optional<Error>, bool> reply) override {
    answer("isRegisteredForAccount", reply, true, std::nullopt, false);
  }
  void handlePushNotificationMessage(Dictionary, Done reply) override {
    answer("handlePushNotificationMessage", reply);
  }
  void completeSetupWithResponse(Dictionary, Reply<bool, std::optional<Error>> reply) override {
    answer("completeSetupWithResponse", reply, true, std::nullopt);
  }

 private:
  template <class T>
  T copyOf(const T& member) const {
    const std::lock_guard guard(_lock);
    return member;
  }
  void enter(const char* operation) {
    {
      const std::lock_guard guard(_lock);
      _calls.emplace_back(operation);
    }
    if (onCall) onCall(operation);
  }
  template <class Reply, class... Results>
  void leave(const char* operation, const Reply& reply, Results&&... results) {
    for (const std::string& name : unanswered)
      if (name == operation) return;
    if (reply) reply(std::forward<Results>(results)...);
  }
  template <class Reply, class... Results>
  void answer(const char* operation, const Reply& reply, Results&&... results) {
    enter(operation);
    leave(operation, reply, std::forward<Results>(results)...);
  }

  mutable std::mutex _lock;
  std::vector<std::string> _calls;
  std::vector<ConsumedHeaders> _consumed;
  std::vector<HeaderQuestion> _headerQuestions;
  std::vector<std::optional<std::string>> _storeFrontsSet;
  std::optional<std::string> _storeFrontID;
  std::vector<Dictionary> _protocols;
};

// Makes every proxy of the process lead to `service` while it lives, and remembers for which
// clients a way was asked for.
class ScopedAccountService {
 public:
  explicit ScopedAccountService(std::shared_ptr<HSAccountService> service)
      : _previous(HSServiceProxy::setLocalAccountService(
            [clients = _clients, service](std::shared_ptr<const HSStoreClient> client) {
              const std::lock_guard guard(clients->lock);
              clients->list.push_back(std::move(client));
              return service;
            })) {}
  ~ScopedAccountService() { HSServiceProxy::setLocalAccountService(std::move(_previous)); }
  ScopedAccountService(const ScopedAccountService&) = delete;
  ScopedAccountService& operator=(const ScopedAccountService&) = delete;

  std::vector<std::shared_ptr<const HSStoreClient>> clients() const {
    const std::lock_guard guard(_clients->lock);
    return _clients->list;
  }

 private:
  struct Clients {
    std::mutex lock;
    std::vector<std::shared_ptr<const HSStoreClient>> list;
  };
  std::shared_ptr<Clients> _clients = std::make_shared<Clients>();
  HSServiceProxy::LocalAccountService _previous;
};

}  // namespace tallow
