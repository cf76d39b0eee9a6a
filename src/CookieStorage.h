#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Base/URL.h"
#include "platform/Base/Value.h"
#include "platform/Concurrency/SerialQueue.h"
#include "platform/Cookies/CookieJar.h"
#include "src/ClientRegistry.h"

namespace tallow {

// The cookie jar of one store client: keeps the cookies that store servers set, in the client's own
// file, and turns them into the "Cookie" request header for a URL. Storing cookies invalidates the
// client's current bag, because the bag that the server hands out may depend on them.
// Found through storageForClient, which owns it. Any thread may call; the jar itself is only
// touched on the request queue, but for making it durable.
class CookieStorage final : public ClientController,
                            public std::enable_shared_from_this<CookieStorage> {
 public:
  static constexpr const char* kClassName = "CookieStorage";

  static std::shared_ptr<CookieStorage> storageForClient(
      const std::shared_ptr<const HSStoreClient>& client);
  // The same, only if it is there already and can be had without waiting; else null.
  static std::shared_ptr<CookieStorage> storageForClientIfAtHand(
      const std::shared_ptr<const HSStoreClient>& client);
  static ClientRegistry<CookieStorage>& registry();

  // Null when the client's cookie file cannot be opened. A storage whose folder cannot be made
  // exists but has no jar: it yields empty headers.
  static std::shared_ptr<CookieStorage> initWithStoreClient(
      std::shared_ptr<const HSStoreClient> client);

  // Either one entry "Cookie", or empty.
  Dictionary httpHeadersForURL(const std::optional<URL>& url);
  // The same if the queue is idle; nullopt when answering would mean waiting.
  std::optional<Dictionary> httpHeadersForURLIfIdle(const std::optional<URL>& url);

  // Takes in the Set-Cookie headers of a response. When this returns, what is stored survives the
  // end of the process, however it ends, and the client's bag is invalid. That it survives a power
  // cut, too, is seen to right afterwards: a disk may take milliseconds for that, and nobody has to
  // wait for it.
  //
  // The cookies of device set-up were handed over, not fetched from the URL: each counts as set
  // over https by the domain that it names, the URL only serves those that name none.
  enum class Origin { Response, DeviceSetUp };
  void consumeCookiesWithHTTPHeaders(const std::optional<Dictionary>& headers,
                                     const std::optional<URL>& fromURL,
                                     Origin origin = Origin::Response);

  // Whether taking these headers in would have anything to do, and so may wait for the disk.
  static bool setsCookies(const Dictionary& headers);

  // Empties the jar, as lastingly as new cookies are stored. Unlike those this leaves the bags
  // alone: a bag that was fetched with cookies stays good for requests without them.
  void deleteAllCookies();

  // Names that a reduced jar would keep. Nothing in the service filters by it; it is a query only.
  static const std::vector<std::string_view>& _defaultCookieStoreWhitelist();
  static bool _defaultCookieIsWhitelistedWithName(std::optional<std::string_view> name);

  // Writes what is only in memory, of all clients; false, logged, where the disk still refuses.
  static bool writeWhatWasRefused();

  // For status reports; 0 without a jar.
  std::size_t cookieCount() const;

 private:
  explicit CookieStorage(std::shared_ptr<const HSStoreClient> client);
  bool open();
  std::vector<CookiePointer> cookiesForURLOnQueue(const URL& url);
  // Makes what has been written durable, once for all that is written until then.
  void synchronizeSoon();
  void addGroupCookies(const URL& url, std::vector<CookiePointer>& cookies) const;

  SerialQueue _requestQueue;
  std::atomic<bool> _willSynchronize{false};
  // Set when the jar is opened; what is asked of it goes through _requestQueue, but for
  // synchronising.
  std::shared_ptr<CookieJar> _cookieStorage;
};

}  // namespace tallow
