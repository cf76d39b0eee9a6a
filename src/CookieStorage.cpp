#include "src/CookieStorage.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <numeric>
#include <utility>

#include "platform/Base/Directories.h"
#include "platform/Concurrency/WorkerPool.h"
#include "platform/Preferences/Preferences.h"
#include "platform/VendBase/DefaultsKeys.h"
#include "src/BagController.h"

namespace tallow {

namespace {

// Far more than a jar keeps of one host; whoever sends more has something else in mind.
constexpr std::size_t kMostCookiesAtOnce = 1024;

using CookiesByURL = std::vector<std::pair<URL, std::vector<ParsedCookie>>>;

// The cookies of a set-up response by the URL that counts as having set them: each one's own
// domain, or else `url`.
CookiesByURL byOwnDomain(std::vector<ParsedCookie> cookies, const URL& url) {
  std::map<std::string, std::vector<ParsedCookie>> byHost;
  for (ParsedCookie& cookie : cookies) {
    const auto& domain = cookie.domain;
    byHost[domain && !domain->empty() ? *domain : url.host()].push_back(std::move(cookie));
  }
  CookiesByURL made;
  for (auto& [host, ofHost] : byHost) {
    if (auto from = URL::parse("https://" + host + "/")) {
      made.emplace_back(*std::move(from), std::move(ofHost));
    } else {
      logLevel(1, "%@: Dropping %lu cookies of \"%@\", which is no host", CookieStorage::kClassName,
               ofHost.size(), host);
    }
  }
  return made;
}

constexpr std::string_view kGroupContainer = "com.vantor.Harlow";

bool sharesGroupCookies(const HSStoreClient& client) {
  return client.clientType == kHSStoreClientTypeMediaStore ||
         client.clientType == kHSStoreClientTypeMediaStoreAgent;
}

// One cookie a name: a later cookie of the same name takes the place of an earlier one. The jar's
// order puts longer paths first, so of two cookies the one with the shorter path is sent. That is
// what the store's servers have always been sent, so it stays.
std::vector<CookiePointer> lastOfEachName(const std::vector<CookiePointer>& cookies) {
  const auto nameOf = [&](std::size_t index) -> const std::string& { return cookies[index]->name; };
  std::vector<std::size_t> indexes(cookies.size());
  std::iota(indexes.begin(), indexes.end(), std::size_t{0});
  // Of each name, the last one first, so that it is the one that stays.
  std::sort(indexes.begin(), indexes.end(), [&](std::size_t a, std::size_t b) {
    const int order = nameOf(a).compare(nameOf(b));
    return order != 0 ? order < 0 : a > b;
  });
  const auto rest = std::unique(indexes.begin(), indexes.end(), [&](std::size_t a, std::size_t b) {
    return nameOf(a) == nameOf(b);
  });
  std::sort(indexes.begin(), rest);
  std::vector<CookiePointer> last;
  last.reserve(cookies.size());
  std::for_each(indexes.begin(), rest, [&](std::size_t index) {
    if (!nameOf(index).empty()) last.push_back(cookies[index]);
  });
  return last;
}

Dictionary requestHeaderFieldsWithCookies(const std::vector<CookiePointer>& cookies) {
  if (cookies.empty()) return {};
  return Dictionary{{"Cookie", cookieHeaderValue(cookies)}};
}

}  // namespace

ClientRegistry<CookieStorage>& CookieStorage::registry() {
  static auto& registry = *new ClientRegistry<CookieStorage>({"storeForClient:", "storage"});
  return registry;
}

std::shared_ptr<CookieStorage> CookieStorage::storageForClient(
    const std::shared_ptr<const HSStoreClient>& client) {
  return registry().entryForClient(client);
}

std::shared_ptr<CookieStorage> CookieStorage::storageForClientIfAtHand(
    const std::shared_ptr<const HSStoreClient>& client) {
  return registry().entryForClientIfAtHand(client);
}

std::shared_ptr<CookieStorage> CookieStorage::initWithStoreClient(
    std::shared_ptr<const HSStoreClient> client) {
  std::shared_ptr<CookieStorage> storage(new CookieStorage(std::move(client)));
  return storage->open() ? storage : nullptr;
}

CookieStorage::CookieStorage(std::shared_ptr<const HSStoreClient> client)
    : ClientController(client),
      _requestQueue(format("CookieStorage Request Queue (%@)", client->identifier)) {}

bool CookieStorage::open() {
  const std::filesystem::path directory = Directories::shared().dataHome / "Cookies";
  if (!ensureDirectoryExists(directory)) {
    logLevel(1,
             "%@: Failed to create cookie directory: %@. No cookies will be kept for this client",
             kClassName, directory.native());
    return true;  // a storage without a jar
  }

  if (Preferences::shared().getAppBooleanValue(kDefaultsUseSystemCookieStoreKey,
                                               kDaemonDefaultsID)) {
    logLevel(1, "%@: WARNING - Using system cookie store by preference", kClassName);
    _cookieStorage = CookieJar::shared();
    return true;
  }

  const std::string fileName = storeClient()->appPreferencesDomain + ".cookies";
  if (isSafePathComponent(fileName)) {
    Result<std::unique_ptr<CookieJar>> jar = CookieJar::open(directory / fileName);
    if (jar) {
      _cookieStorage = std::move(*jar);
      logLevel(3, "%@: Using cookie store at %@", kClassName, (directory / fileName).native());
      return true;
    }
  }
  logLevel(1, "%@: Failed to initialize cookie store", kClassName);
  return false;
}

std::vector<CookiePointer> CookieStorage::cookiesForURLOnQueue(const URL& url) {
  std::vector<CookiePointer> cookies;
  // Exactly "https", as written: any other spelling of the scheme gets no secure cookies.
  if (_cookieStorage)
    cookies = lastOfEachName(_cookieStorage->cookiesForURL(url, url.scheme() == "https"));
  if (sharesGroupCookies(*storeClient())) addGroupCookies(url, cookies);
  return cookies;
}

void CookieStorage::addGroupCookies(const URL& url, std::vector<CookiePointer>& cookies) const {
  logLevel(3, "%@: Copying global storage for glimmer", kClassName);
  const std::shared_ptr<CookieJar> group = CookieJar::sharedForGroupContainer(kGroupContainer);
  if (!group) return;
  const auto shared = group->cookiesForURL(url, url.scheme() == "https");
  if (VBLogManager::sharedManager().isEnabled(3))
    logLevel(3, "%@: cookiesForURL %@ %@", kClassName, url, cookieHeaderValue(shared));
  for (const CookiePointer& candidate : shared) {
    if (candidate->name.empty()) continue;
    const auto own = std::find_if(cookies.begin(), cookies.end(), [&](const CookiePointer& cookie) {
      return cookie->name == candidate->name;
    });
    // A shared cookie that never expires is later than any date; an own one that never expires has
    // no date that the shared one could be later than, so the shared one is taken there too.
    const bool candidateIsLater = own == cookies.end() || !candidate->expiresDate ||
                                  !(*own)->expiresDate ||
                                  *candidate->expiresDate >= *(*own)->expiresDate;
    if (!candidateIsLater) {
      logLevel(3, "%@: skipping cookie %@", kClassName, candidate->name);
      continue;
    }
    logLevel(3, "%@: using cookie %@", kClassName, candidate->name);
    if (own == cookies.end())
      cookies.push_back(candidate);
    else
      *own = candidate;
  }
}

Dictionary CookieStorage::httpHeadersForURL(const std::optional<URL>& url) {
  if (!url) return {};
  return requestHeaderFieldsWithCookies(
      _requestQueue.sync([&] { return cookiesForURLOnQueue(*url); }));
}

std::optional<Dictionary> CookieStorage::httpHeadersForURLIfIdle(const std::optional<URL>& url) {
  if (!url) return Dictionary();
  // The group's jar is shared with other processes and may make a reader wait.
  if (sharesGroupCookies(*storeClient())) return std::nullopt;
  std::vector<CookiePointer> cookies;
  if (!_requestQueue.trySync([&] { cookies = cookiesForURLOnQueue(*url); })) return std::nullopt;
  return requestHeaderFieldsWithCookies(cookies);
}

void CookieStorage::consumeCookiesWithHTTPHeaders(const std::optional<Dictionary>& headers,
                                                  const std::optional<URL>& fromURL,
                                                  Origin origin) {
  if (!headers) return;
  logLevel(3, "%@: consumeCookiesFromURL: %@ httpHeaders: %@", kClassName, fromURL, *headers);
  std::vector<std::string_view> lines = setCookieLines(*headers, kMostCookiesAtOnce + 1);
  if (lines.size() > kMostCookiesAtOnce) {
    logLevel(1, "%@: Taking only the first %lu cookies of a response", kClassName,
             kMostCookiesAtOnce);
    lines.pop_back();
  }
  std::vector<ParsedCookie> cookies;
  for (const std::string_view line : lines)
    if (auto cookie = parseSetCookie(line)) cookies.push_back(std::move(*cookie));
  if (cookies.empty() || !fromURL) return;

  const bool changed = _requestQueue.sync([&] {
    if (!_cookieStorage) return false;
    bool anyTaken = false;
    const CookiesByURL byURL = origin == Origin::Response
                                   ? CookiesByURL{{*fromURL, std::move(cookies)}}
                                   : byOwnDomain(std::move(cookies), *fromURL);
    for (const auto& [url, ofURL] : byURL) {
      const std::vector<CookieDecision> decisions = _cookieStorage->setCookies(ofURL, url);
      anyTaken |= std::any_of(decisions.begin(), decisions.end(), [](auto decision) {
        return decision == CookieDecision::Stored || decision == CookieDecision::Removed;
      });
    }
    if (!anyTaken) return false;
    logLevel(3, "%@: cookies changed for %@, invalidating bags", kClassName, *fromURL);
    return true;
  });
  if (!changed) return;
  synchronizeSoon();
  // Only now, outside the queue: the bag controller may be busy with a load that itself asks this
  // jar for cookies.
  if (const auto controller = BagController::bagControllerForClient(storeClient()))
    if (const auto bag = controller->bagWithType(storeClient()->requiredBagType)) bag->invalidate();
}

bool CookieStorage::setsCookies(const Dictionary& headers) {
  return !setCookieLines(headers, 1).empty();
}

void CookieStorage::deleteAllCookies() {
  _requestQueue.sync([&] {
    if (!_cookieStorage) return;
    _cookieStorage->deleteAllCookies();
  });
  synchronizeSoon();
}

void CookieStorage::synchronizeSoon() {
  if (_willSynchronize.exchange(true)) return;
  // Not on the queue: the disk takes milliseconds, and the jar answers meanwhile.
  WorkerPool::shared().async([self = shared_from_this()] {
    self->_willSynchronize = false;
    if (self->_cookieStorage) self->_cookieStorage->synchronize();
  });
}

bool CookieStorage::writeWhatWasRefused() {
  bool isWritten = true;
  for (const auto& [identifier, storage] : registry().entries()) {
    if (!storage->_cookieStorage) continue;
    const std::optional<Error> error = storage->_cookieStorage->synchronize();
    // Waiting would not help a jar of a newer version.
    if (error && error->code != CookieJar::kNewerVersion) isWritten = false;
  }
  return isWritten;
}

std::size_t CookieStorage::cookieCount() const {
  return _requestQueue.sync([&] { return _cookieStorage ? _cookieStorage->count() : 0; });
}

const std::vector<std::string_view>& CookieStorage::_defaultCookieStoreWhitelist() {
  static const auto& whitelist =
      *new std::vector<std::string_view>{"X-JS-SP-TOKEN", "X-JS-TIMESTAMP", "xp_ci"};
  return whitelist;
}

bool CookieStorage::_defaultCookieIsWhitelistedWithName(std::optional<std::string_view> name) {
  const auto& whitelist = _defaultCookieStoreWhitelist();
  return name && std::find(whitelist.begin(), whitelist.end(), *name) != whitelist.end();
}

}  // namespace tallow
