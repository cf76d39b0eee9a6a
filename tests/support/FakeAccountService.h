#pragma once

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/Concurrency/SerialQueue.h"
#include "platform/VendBase/HSAccountService.h"
#include "platform/VendBase/HSServiceProxy.h"

namespace tallow {

// An account service for tests of code that asks or feeds one. Answers on the calling thread with
// what the test has set before, unless it is told to keep its answers; writes down every call and
// everything handed in. Calls may come from any thread. Of what is not written down here, the reply
// is dropped.
class FakeAccountService final : public HSAccountService {
 public:
  using OptionalText = std::optional<std::string>;
  using OptionalError = std::optional<Error>;
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
  OptionalError loadError;
  std::vector<Account> knownAccounts;
  Account signedInAccount;
  std::optional<Dictionary> passwordSettings;
  OptionalError passwordSettingsError;
  // Called at the start of every operation with its name: may block, to play a service that is
  // busy. While it is set, what is handed in runs on one queue of the service's own, questions on
  // another.
  std::function<void(const std::string& operation)> onCall;
  // Operations whose reply is dropped unanswered.
  std::vector<std::string> unanswered;

  // What it was asked: "valueForURLBagKey key".
  std::vector<std::string> calls() const { return copyOf(_calls); }
  void waitForCalls(std::size_t count) const {
    std::unique_lock lock(_lock);
    _called.wait(lock, [&] { return _taken >= count; });
  }
  // Answers are kept until answerKept() or dropKept().
  void keepAnswers(bool keep) {
    const std::lock_guard guard(_lock);
    _keeps = keep;
  }
  void answerKept() {
    for (const auto& answer : takeKept()) answer();
  }
  void dropKept() { takeKept(); }

  std::vector<ConsumedHeaders> consumed() const { return copyOf(_consumed); }
  std::vector<HeaderQuestion> headerQuestions() const { return copyOf(_headerQuestions); }
  std::vector<OptionalText> storeFrontsSet() const { return copyOf(_storeFrontsSet); }
  OptionalText storeFrontID() const { return copyOf(_storeFrontID); }
  void setStoreFront(OptionalText id) { _storeFrontID = std::move(id); }
  std::vector<Dictionary> protocols() const { return copyOf(_protocols); }
  std::vector<std::shared_ptr<HSURLBagObserver>> observers;
  std::vector<std::shared_ptr<HSAccountStoreObserver>> accountObservers;

  void valueForURLBagKey(std::string key, Reply<Value> reply) override {
    answer("valueForURLBagKey", key, reply, bagIsValid ? bag[key] : Value());
  }
  void urlIsTrustedByURLBag(std::optional<URL> url, Reply<bool> reply) override {
    answer("urlIsTrustedByURLBag", text(url), reply, bagIsValid && url && trusts(*url));
  }
  void needsSilentOrvActionForURL(std::optional<URL> url, Reply<bool> reply) override {
    answer("needsSilentOrvActionForURL", text(url), reply, url && needsOrvAction(*url));
  }
  void loadURLBagWithType(std::uint64_t type, Reply<bool, bool, OptionalError> reply) override {
    answer("loadURLBagWithType", std::to_string(type), reply, bagIsValid && !loadError, true,
           loadError);
  }
  void invalidateAllBags(Done reply) override { answer("invalidateAllBags", "", reply); }
  void regexWithKey(std::string key, std::string matches, Reply<bool> reply) override {
    answer("regexWithKey", key + " " + matches, reply, true);
  }
  void isValid(Reply<bool> reply) override { answer("isValid", "", reply, bagIsValid); }
  void dictionary(Reply<std::optional<Dictionary>> reply) override {
    answer("dictionary", "", reply, bag.empty() ? std::nullopt : std::optional(bag));
  }
  void addURLBagObserver(std::shared_ptr<HSURLBagObserver> observer, Done reply) override {
    observers.push_back(std::move(observer));
    answer("addURLBagObserver", "", reply);
  }
  void removeURLBagObserver(std::shared_ptr<HSURLBagObserver> observer, Done reply) override {
    std::erase(observers, observer);
    answer("removeURLBagObserver", "", reply);
  }
  void shouldSendGUIDWithRequestForURL(std::optional<URL> url, Reply<bool> reply) override {
    answer("shouldSendGUIDWithRequestForURL", text(url), reply,
           bagIsValid && url && allowsGUID(*url));
  }
  void consumeCookiesWithHTTPHeaders(Dictionary responseHeaders, std::optional<URL> fromURL,
                                     Done reply) override {
    on(_intake, [=, this] {
      enter("consumeCookiesWithHTTPHeaders", text(fromURL));
      add(_consumed, {responseHeaders, fromURL});
      leave("consumeCookiesWithHTTPHeaders", reply);
    });
  }
  void httpHeadersForURL(std::optional<URL> url, std::optional<std::uint64_t> forDSID,
                         bool includeOrvHeaders, Reply<Dictionary> reply) override {
    const HeaderQuestion question{std::move(url), forDSID, includeOrvHeaders};
    add(_headerQuestions, question);
    answer("httpHeadersForURL",
           text(question.url) + (forDSID ? " " + std::to_string(*forDSID) : "") +
               (includeOrvHeaders ? " orv" : ""),
           reply, headers(question));
  }
  void deleteAllCookies(Done reply) override { answer("deleteAllCookies", "", reply); }
  void storeFront(Reply<OptionalText> reply) override {
    answer("storeFront", "", reply, storeFrontID());
  }
  void setStoreFrontID(OptionalText id, Done reply) override {
    on(_intake, [=, this] {
      enter("setStoreFrontID", id.value_or("nil"));
      add(_storeFrontsSet, id);
      {
        const std::lock_guard guard(_lock);
        _storeFrontID = id;
      }
      leave("setStoreFrontID", reply);
    });
  }

  void accounts(Reply<std::vector<Account>> reply) override {
    answer("accounts", "", reply, knownAccounts);
  }
  void strongTokenForAccount(Account, Reply<OptionalText> reply) override {
    answer("strongTokenForAccount", "", reply,
           signedInAccount ? signedInAccount->token() : std::nullopt);
  }
  void authIsExpired(Reply<bool> reply) override {
    answer("authIsExpired", "", reply, !signedInAccount || !signedInAccount->hasValidStrongToken());
  }
  void primaryAccount(Reply<Account> reply) override {
    answer("primaryAccount", "", reply, signedInAccount);
  }
  void accountWithDSID(std::optional<std::uint64_t> dsID, Reply<Account> reply) override {
    Account found;
    for (const Account& account : knownAccounts)
      if (!found && account->dsID() == dsID) found = account;
    answer("accountWithDSID", std::to_string(dsID.value_or(0)), reply, found);
  }
  void addAccountWithAuthenticationResponse(HSAuthenticationResponse response, bool makePrimary,
                                            Reply<Account> reply) override {
    auto account = std::make_shared<HSStoreAccount>();
    account->mergeValuesFromAuthenticationResponse(response);
    knownAccounts.push_back(account);
    if (makePrimary) signedInAccount = account;
    answer("addAccountWithAuthenticationResponse", "", reply, account);
  }
  void addAccount(Account account, Done reply) override {
    knownAccounts.push_back(std::move(account));
    answer("addAccount", "", reply);
  }
  void signInWithContext(HSAuthenticationContext,
                         Reply<bool, Account, OptionalError> reply) override {
    answer("signInWithContext", "", reply, signedInAccount != nullptr, signedInAccount,
           OptionalError());
  }
  void signOut(Done reply) override {
    signedInAccount = nullptr;
    answer("signOut", "", reply);
  }
  void parseCreditStringForProtocol(Dictionary protocol, Done reply) override {
    enter("parseCreditStringForProtocol", "");
    add(_protocols, std::move(protocol));
    leave("parseCreditStringForProtocol", reply);
  }
  void addAccountStoreObserver(std::shared_ptr<HSAccountStoreObserver> observer,
                               Done reply) override {
    accountObservers.push_back(std::move(observer));
    answer("addAccountStoreObserver", "", reply);
  }
  void removeAccountStoreObserver(std::shared_ptr<HSAccountStoreObserver> observer,
                                  Done reply) override {
    std::erase(accountObservers, observer);
    answer("removeAccountStoreObserver", "", reply);
  }
  void getPasswordSettings(Reply<std::optional<Dictionary>, OptionalError> reply) override {
    answer("getPasswordSettings", "", reply, passwordSettings, passwordSettingsError);
  }
  void updatePasswordSettings(std::optional<Dictionary> settings,
                              Reply<bool, OptionalError> reply) override {
    passwordSettings = std::move(settings);
    answer("updatePasswordSettings", "", reply, !passwordSettingsError, passwordSettingsError);
  }

  void accountWithVantorID(OptionalText, Reply<Account>) override {}
  void eligibilityForService(std::uint64_t, Reply<std::optional<bool>>) override {}
  void getEligibilityForService(std::uint64_t, Reply<bool, OptionalError>) override {}
  void retailStoreDemoMode(Reply<bool, OptionalText, OptionalText, bool>) override {}
  void nimboDSID(Reply<OptionalText>) override {}
  void recommendedVantorIDForAccountSignIn(Reply<OptionalText>) override {}
  void registerDeviceTokenForEnvironmentNamed(std::string, Reply<bool, OptionalError>) override {}
  void getEnabledMediaTypes(Reply<bool, OptionalError, std::int64_t>) override {}
  void enableAutoDownloadForEnvironmentNamed(std::string, Reply<bool, OptionalError>) override {}
  void disableAutoDownload(Reply<bool, OptionalError>) override {}
  void isRegisteredForAccount(std::uint64_t, std::int64_t,
                              Reply<bool, OptionalError, bool>) override {}
  void handlePushNotificationMessage(Dictionary, Done) override {}
  void completeSetupWithResponse(Dictionary, Reply<bool, OptionalError>) override {}

 private:
  static std::string text(const std::optional<URL>& url) {
    return url ? url->absoluteString() : "nil";
  }
  template <class T>
  T copyOf(const T& member) const {
    const std::lock_guard guard(_lock);
    return member;
  }
  template <class T>
  void add(std::vector<T>& list, T element) {
    const std::lock_guard guard(_lock);
    list.push_back(std::move(element));
  }
  std::vector<std::function<void()>> takeKept() {
    const std::lock_guard guard(_lock);
    return std::exchange(_kept, {});
  }
  void enter(const std::string& operation, const std::string& arguments) {
    add(_calls, arguments.empty() ? operation : operation + " " + arguments);
    if (onCall) onCall(operation);
  }
  template <class Reply, class... Results>
  void leave(const char* operation, const Reply& reply, Results... results) {
    const bool drops =
        !reply || std::find(unanswered.begin(), unanswered.end(), operation) != unanswered.end();
    {
      const std::lock_guard guard(_lock);
      ++_taken;
      _called.notify_all();
      if (_keeps && !drops) return _kept.push_back([=] { reply(results...); });
    }
    if (!drops) reply(std::move(results)...);
  }
  template <class Reply, class... Results>
  void answer(const char* operation, const std::string& arguments, const Reply& reply,
              Results... results) {
    on(_questions, [=, this] {
      enter(operation, arguments);
      leave(operation, reply, results...);
    });
  }
  template <class Work>
  void on(SerialQueue& queue, Work work) {
    if (onCall)
      queue.async(std::move(work));
    else
      work();
  }

  SerialQueue _questions{"FakeAccountService questions"};
  SerialQueue _intake{"FakeAccountService intake"};
  mutable std::mutex _lock;
  mutable std::condition_variable _called;
  std::size_t _taken = 0;  // calls whose answers have been kept, or are on their way
  bool _keeps = false;
  std::vector<std::function<void()>> _kept;
  std::vector<std::string> _calls;
  std::vector<ConsumedHeaders> _consumed;
  std::vector<HeaderQuestion> _headerQuestions;
  std::vector<OptionalText> _storeFrontsSet;
  OptionalText _storeFrontID;
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
