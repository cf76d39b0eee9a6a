#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/Base/Error.h"
#include "platform/Base/URL.h"
#include "platform/Base/Value.h"
#include "platform/VendBase/HSURLBagObserver.h"

namespace tallow {

// The protocol that the service exports to store processes, and that the store library itself uses
// inside the process through HSServiceProxy. Over the bus it is the interface
// com.vantor.HSAccountService (interfaces/com.vantor.HSAccountService.xml, same names).
//
// Every operation returns at once and answers through its last argument, which may be empty and is
// then skipped. Operations without a result call `reply()` when their work is done. A reply comes
// exactly once, on any thread; one that is dropped unanswered tells the caller so.
// A nil URL is std::nullopt. Any thread may call.
class HSAccountService {
 public:
  using Done = std::function<void()>;
  template <class... Results>
  using Reply = std::function<void(Results...)>;

  virtual ~HSAccountService() = default;

  // Bag
  virtual void valueForURLBagKey(std::string key, Reply<Value> reply) = 0;
  virtual void urlIsTrustedByURLBag(std::optional<URL> url, Reply<bool> reply) = 0;
  virtual void needsSilentOrvActionForURL(std::optional<URL> url, Reply<bool> reply) = 0;
  virtual void loadURLBagWithType(
      std::uint64_t bagType,
      Reply<bool /*valid*/, bool /*success*/, std::optional<Error>> reply) = 0;
  virtual void invalidateAllBags(Done reply) = 0;
  virtual void regexWithKey(std::string key, std::string matchesString, Reply<bool> reply) = 0;
  virtual void isValid(Reply<bool> reply) = 0;
  virtual void dictionary(Reply<std::optional<Dictionary>> reply) = 0;
  virtual void addURLBagObserver(std::shared_ptr<HSURLBagObserver> observer, Done reply) = 0;
  virtual void removeURLBagObserver(std::shared_ptr<HSURLBagObserver> observer, Done reply) = 0;
  virtual void shouldSendGUIDWithRequestForURL(std::optional<URL> url, Reply<bool> reply) = 0;

  // Cookies and request headers
  virtual void consumeCookiesWithHTTPHeaders(Dictionary headers, std::optional<URL> fromURL,
                                             Done reply) = 0;
  virtual void httpHeadersForURL(std::optional<URL> url, std::optional<std::uint64_t> forDSID,
                                 bool includeOrvHeaders, Reply<Dictionary> reply) = 0;
  virtual void deleteAllCookies(Done reply) = 0;

  // Storefront
  virtual void storeFront(Reply<std::optional<std::string>> reply) = 0;
  virtual void setStoreFrontID(std::optional<std::string> storeFrontID, Done reply) = 0;
};

}  // namespace tallow
