#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/SilentAccountService.h"

namespace tallow {

// An account service that answers from what the test has put into it, at once unless it is told to
// keep its answers. One per connection.
class FakeAccountService final : public SilentAccountService {
 public:
  // What the service was asked: "valueForURLBagKey key".
  std::vector<std::string> calls() const {
    const std::lock_guard lock(_mutex);
    return _calls;
  }
  void waitForCalls(std::size_t count) const {
    std::unique_lock lock(_mutex);
    _called.wait(lock, [&] { return _calls.size() >= count; });
  }

  // Answers are kept until answerKept() or dropKept().
  void keepAnswers(bool keep) {
    const std::lock_guard lock(_mutex);
    _keeps = keep;
  }
  void answerKept() {
    for (const auto& answer : takeKept()) answer();
  }
  void dropKept() { takeKept(); }
  std::vector<std::function<void()>> takeKept() {
    const std::lock_guard lock(_mutex);
    return std::exchange(_kept, {});
  }

  Value bagValue;
  Dictionary headers;
  std::optional<std::string> storeFrontID;
  std::optional<Error> loadError;
  std::vector<std::shared_ptr<HSURLBagObserver>> observers;
  Dictionary consumedHeaders;
  Account account;
  std::vector<std::shared_ptr<HSAccountStoreObserver>> accountObservers;

  void valueForURLBagKey(std::string key, Reply<Value> reply) override {
    _answer("valueForURLBagKey " + key, [=, this] { reply(bagValue); });
  }
  void urlIsTrustedByURLBag(std::optional<URL> url, Reply<bool> reply) override {
    _answer("urlIsTrustedByURLBag " + _text(url), [=] { reply(url.has_value()); });
  }
  void needsSilentOrvActionForURL(std::optional<URL> url, Reply<bool> reply) override {
    _answer("needsSilentOrvActionForURL " + _text(url), [=] { reply(url.has_value()); });
  }
  void loadURLBagWithType(std::uint64_t bagType,
                          Reply<bool, bool, std::optional<Error>> reply) override {
    _answer("loadURLBagWithType " + std::to_string(bagType),
            [=, this] { reply(!loadError, true, loadError); });
  }
  void invalidateAllBags(Done reply) override { _answer("invalidateAllBags", reply); }
  void regexWithKey(std::string key, std::string matchesString, Reply<bool> reply) override {
    _answer("regexWithKey " + key + " " + matchesString, [=] { reply(true); });
  }
  void isValid(Reply<bool> reply) override {
    _answer("isValid", [=] { reply(true); });
  }
  void dictionary(Reply<std::optional<Dictionary>> reply) override {
    _answer("dictionary", [=, this] {
      reply(bagValue.dictionary() == nullptr ? std::nullopt
                                             : std::optional(*bagValue.dictionary()));
    });
  }
  void addURLBagObserver(std::shared_ptr<HSURLBagObserver> observer, Done reply) override {
    observers.push_back(std::move(observer));
    _answer("addURLBagObserver", reply);
  }
  void removeURLBagObserver(std::shared_ptr<HSURLBagObserver> observer, Done reply) override {
    std::erase(observers, observer);
    _answer("removeURLBagObserver", reply);
  }
  void shouldSendGUIDWithRequestForURL(std::optional<URL> url, Reply<bool> reply) override {
    _answer("shouldSendGUIDWithRequestForURL " + _text(url), [=] { reply(url.has_value()); });
  }
  void consumeCookiesWithHTTPHeaders(Dictionary newHeaders, std::optional<URL> fromURL,
                                     Done reply) override {
    consumedHeaders = std::move(newHeaders);
    _answer("consumeCookiesWithHTTPHeaders " + _text(fromURL), reply);
  }
  void httpHeadersForURL(std::optional<URL> url, std::optional<std::uint64_t> forDSID,
                         bool includeOrvHeaders, Reply<Dictionary> reply) override {
    _answer("httpHeadersForURL " + _text(url) + (forDSID ? " " + std::to_string(*forDSID) : "") +
                (includeOrvHeaders ? " orv" : ""),
            [=, this] { reply(headers); });
  }
  void deleteAllCookies(Done reply) override { _answer("deleteAllCookies", reply); }
  void storeFront(Reply<std::optional<std::string>> reply) override {
    _answer("storeFront", [=, this] { reply(storeFrontID); });
  }
  void setStoreFrontID(std::optional<std::string> newID, Done reply) override {
    storeFrontID = newID;
    _answer("setStoreFrontID " + newID.value_or("nil"), reply);
  }

  void primaryAccount(Reply<Account> reply) override {
    _answer("primaryAccount", [=, this] { reply(account); });
  }
  void accountWithDSID(std::optional<std::uint64_t> dsID, Reply<Account> reply) override {
    _answer("accountWithDSID " + std::to_string(dsID.value_or(0)),
            [=, this] { reply(account && account->dsID() == dsID ? account : nullptr); });
  }
  void addAccount(Account newAccount, Done reply) override {
    account = std::move(newAccount);
    _answer("addAccount", reply);
  }
  void addAccountWithAuthenticationResponse(HSAuthenticationResponse response, bool makePrimary,
                                            Reply<Account> reply) override {
    account = std::make_shared<HSStoreAccount>();
    account->mergeValuesFromAuthenticationResponse(response);
    _answer(makePrimary ? "makePrimary" : "add", [=, this] { reply(account); });
  }
  void strongTokenForAccount(Account, Reply<std::optional<std::string>> reply) override {
    _answer("strongTokenForAccount",
            [=, this] { reply(account ? account->token() : std::nullopt); });
  }
  void addAccountStoreObserver(std::shared_ptr<HSAccountStoreObserver> observer,
                               Done reply) override {
    accountObservers.push_back(std::move(observer));
    _answer("addAccountStoreObserver", reply);
  }
  void removeAccountStoreObserver(std::shared_ptr<HSAccountStoreObserver> observer,
                                  Done reply) override {
    std::erase(accountObservers, observer);
    _answer("removeAccountStoreObserver", reply);
  }

  std::optional<Dictionary> passwordSettings;
  std::optional<Error> passwordSettingsError;
  void getPasswordSettings(Reply<std::optional<Dictionary>, std::optional<Error>> reply) override {
    reply(passwordSettings, passwordSettingsError);
  }
  void updatePasswordSettings(std::optional<Dictionary> settings,
                              Reply<bool, std::optional<Error>> reply) override {
    passwordSettings = std::move(settings);
    reply(!passwordSettingsError, passwordSettingsError);
  }

 private:
  static std::string _text(const std::optional<URL>& url) {
    return url ? url->absoluteString() : "nil";
  }

  void _answer(std::string call, std::function<void()> answer) {
    {
      const std::lock_guard lock(_mutex);
      _calls.push_back(std::move(call));
      if (_keeps) _kept.push_back(std::exchange(answer, nullptr));
      _called.notify_all();
    }
    if (answer) answer();
  }

  mutable std::mutex _mutex;
  mutable std::condition_variable _called;
  bool _keeps = false;
  std::vector<std::function<void()>> _kept;
  std::vector<std::string> _calls;
};

}  // namespace tallow
