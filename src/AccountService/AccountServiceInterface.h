#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/VendBase/HSServiceClientInterface.h"
#include "src/Bag.h"

namespace tallow {

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

  // For callers inside the process: the same question, answered on the calling thread.
  bool shouldSendGUIDWithRequestForURL(const std::optional<URL>& url) const;

 private:
  // The client's bag of its required type, looked up afresh each time; null when there is none.
  std::shared_ptr<Bag> _bag() const;
  // The contents of that bag if it is valid and at hand without waiting.
  std::optional<Dictionary> bagDictionaryIfAtHand() const;

  // Submits `work` to the request queue; it keeps this object alive until it has run.
  template <class Work>
  void onRequestQueue(Work work);
  // Runs `tryNow` at once if the request queue is idle; when it says that it could not answer
  // without waiting (false), or the queue is busy, submits `work`.
  template <class TryNow, class Work>
  void nowOrOnRequestQueue(TryNow tryNow, Work work);

  Dictionary composedHeadersForURL(const std::optional<URL>& url, std::optional<std::uint64_t> dsID,
                                   bool includeOrvHeaders) const;
  // The headers if no part of them means waiting, else nullopt.
  std::optional<Dictionary> composedHeadersIfAtHand(const std::optional<URL>& url,
                                                    bool includeOrvHeaders) const;
};

}  // namespace tallow
