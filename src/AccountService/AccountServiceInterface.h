#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/VendBase/HSServiceClientInterface.h"
#include "src/Bag.h"

namespace tallow {

class AccountStore;

// What one caller can ask of the service. Almost every operation is thin: it hops onto the
// connection's serial request queue, finds the per-client object that holds the state, performs one
// call, and hands the result to the reply. What this class owns is the rule of which headers the
// service hands out for a request.
//
// An operation that cannot wait (the objects it needs are there and idle, the bag is valid) runs at
// once on the calling thread where the request queue is idle: a queue hop and back would cost more
// than the answer. The order of one caller's calls holds either way.
class AccountServiceInterface final : public HSServiceClientInterface {
 public:
  static constexpr const char* kClassName = "AccountServiceInterface";

  explicit AccountServiceInterface(std::shared_ptr<const HSStoreClient> storeClient);

  void valueForURLBagKey(std::string key, Reply<Value> reply) override;
  void urlIsTrustedByURLBag(std::optional<URL> url, Reply<bool> reply) override;
  void needsSilentOrvActionForURL(std::optional<URL> url, Reply<bool> reply) override;
  void loadURLBagWithType(std::uint64_t bagType,
                          Reply<bool, bool, std::optional<Error>> reply) override;
  void invalidateAllBags(Done reply) override;
  void regexWithKey(std::string key, std::string matchesString, Reply<bool> reply) override;
  void isValid(Reply<bool> reply) override;
  void dictionary(Reply<std::optional<Dictionary>> reply) override;
  void addURLBagObserver(std::shared_ptr<HSURLBagObserver> observer, Done reply) override;
  void removeURLBagObserver(std::shared_ptr<HSURLBagObserver> observer, Done reply) override;
  void shouldSendGUIDWithRequestForURL(std::optional<URL> url, Reply<bool> reply) override;

  void consumeCookiesWithHTTPHeaders(Dictionary headers, std::optional<URL> fromURL,
                                     Done reply) override;
  void httpHeadersForURL(std::optional<URL> url, std::optional<std::uint64_t> forDSID,
                         bool includeOrvHeaders, Reply<Dictionary> reply) override;
  void deleteAllCookies(Done reply) override;

  void storeFront(Reply<std::optional<std::string>> reply) override;
  void setStoreFrontID(std::optional<std::string> storeFrontID, Done reply) override;

  void accounts(Reply<std::vector<Account>> reply) override;
  void strongTokenForAccount(Account account, Reply<std::optional<std::string>> reply) override;
  void authIsExpired(Reply<bool> reply) override;
  void primaryAccount(Reply<Account> reply) override;
  void accountWithDSID(std::optional<std::uint64_t> dsID, Reply<Account> reply) override;
  void accountWithVantorID(std::optional<std::string> vantorID, Reply<Account> reply) override;
  void addAccountWithAuthenticationResponse(HSAuthenticationResponse response, bool makePrimary,
                                            Reply<Account> reply) override;
  void addAccount(Account account, Done reply) override;
  void signInWithContext(HSAuthenticationContext context,
                         Reply<bool, Account, std::optional<Error>> reply) override;
  void signOut(Done reply) override;
  void parseCreditStringForProtocol(Dictionary protocol, Done reply) override;
  void addAccountStoreObserver(std::shared_ptr<HSAccountStoreObserver> observer,
                               Done reply) override;
  void removeAccountStoreObserver(std::shared_ptr<HSAccountStoreObserver> observer,
                                  Done reply) override;
  void eligibilityForService(std::uint64_t service, Reply<std::optional<bool>> reply) override;
  void getEligibilityForService(std::uint64_t service,
                                Reply<bool, std::optional<Error>> reply) override;
  void retailStoreDemoMode(
      Reply<bool, std::optional<std::string>, std::optional<std::string>, bool> reply) override;
  void nimboDSID(Reply<std::optional<std::string>> reply) override;
  void recommendedVantorIDForAccountSignIn(Reply<std::optional<std::string>> reply) override;

  void getPasswordSettings(Reply<std::optional<Dictionary>, std::optional<Error>> reply) override;
  void updatePasswordSettings(std::optional<Dictionary> settings,
                              Reply<bool, std::optional<Error>> reply) override;

  // A client without an identifier has no push dispatch: then nothing is done, and the reply is
  // dropped.
  void registerDeviceTokenForEnvironmentNamed(std::string environmentName,
                                              Reply<bool, std::optional<Error>> reply) override;
  void getEnabledMediaTypes(Reply<bool, std::optional<Error>, std::int64_t> reply) override;
  void enableAutoDownloadForEnvironmentNamed(std::string environmentName,
                                             Reply<bool, std::optional<Error>> reply) override;
  void disableAutoDownload(Reply<bool, std::optional<Error>> reply) override;
  void isRegisteredForAccount(std::uint64_t dsID, std::int64_t andMask,
                              Reply<bool, std::optional<Error>, bool> reply) override;
  void handlePushNotificationMessage(Dictionary message, Done reply) override;
  void completeSetupWithResponse(Dictionary response,
                                 Reply<bool, std::optional<Error>> reply) override;

  // For callers inside the process: the same question, answered on the calling thread.
  bool shouldSendGUIDWithRequestForURL(const std::optional<URL>& url) const;

 private:
  // The client's bag of its required type, looked up afresh each time; null when there is none.
  std::shared_ptr<Bag> _bag() const;
  // The contents of that bag, loaded if need be; empty when there is none or it cannot be made
  // valid.
  Dictionary bagDictionary() const;
  // Each of the two without waiting, else nothing.
  std::shared_ptr<Bag> bagIfAtHand() const;
  std::optional<Dictionary> bagDictionaryIfAtHand() const;

  // The store of the client's accounts; null when there is none.
  std::shared_ptr<AccountStore> accountStore() const;

  // Whom a push that this caller hands in is for, in order.
  std::vector<std::shared_ptr<const HSStoreClient>> pushClients() const;
  // The same without reading files: as it was at most a second ago; else empty.
  std::vector<std::shared_ptr<const HSStoreClient>> pushClientsIfAtHand() const;
  // Turns what a set-up response says of the account into one; what is wrong with it reaches the
  // system log only.
  Account accountFromSetupResponse(const Dictionary& response) const;

  // Replies may be absent and are then skipped.
  template <class AnyReply, class... Results>
  static void send(const AnyReply& reply, Results&&... results) {
    if (reply) reply(std::forward<Results>(results)...);
  }
  // Submits `work` to the request queue; it keeps this object alive until it has run.
  template <class Work>
  void onRequestQueue(Work work) {
    requestQueue().async([self = shared_from_this(), work = std::move(work)] { work(); });
  }
  // Runs `tryNow` at once if the request queue is idle; when it says that it could not answer
  // without waiting (false), or the queue is busy, submits `work`.
  template <class TryNow, class Work>
  void nowOrOnRequestQueue(TryNow tryNow, Work work) {
    bool answered = false;
    requestQueue().trySync([&] { answered = tryNow(); });
    if (!answered) onRequestQueue(std::move(work));
  }

  Dictionary composedHeadersForURL(const std::optional<URL>& url, std::optional<std::uint64_t> dsID,
                                   bool includeOrvHeaders) const;
  // The headers if no part of them means waiting, else nullopt.
  std::optional<Dictionary> composedHeadersIfAtHand(const std::optional<URL>& url,
                                                    std::optional<std::uint64_t> dsID,
                                                    bool includeOrvHeaders) const;

  // What pushClients() has found last for a caller that is no store client.
  struct FoundClients {
    std::mutex lock;
    std::vector<std::shared_ptr<const HSStoreClient>> clients;
    double foundSeconds = 0;  // on the monotonic clock
  };
  mutable FoundClients _systemClients;
};

}  // namespace tallow
