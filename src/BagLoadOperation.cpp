#include "src/BagLoadOperation.h"

#include <algorithm>

#include "platform/Base/Clock.h"
#include "platform/Preferences/Preferences.h"
#include "platform/VendBase/DefaultsKeys.h"
#include "platform/VendBase/VBLogManager.h"
#include "src/Bag.h"
#include "src/BagController.h"

namespace tallow {

namespace {

constexpr double kStoreFrontPatienceSeconds = 5;

}  // namespace

BagLoadOperation::BagLoadOperation(std::shared_ptr<Bag> initWithBag,
                                   std::shared_ptr<const HSStoreClient> storeClient)
    : HSOperation(std::move(storeClient)),
      _bagToLoad(std::move(initWithBag)),
      _waitsForResponseIntake(!BagController::registry().isHeldByCurrentThread()) {}

std::vector<URL> BagLoadOperation::bootstrapURLsForBag(const Bag& bag,
                                                       const HSStoreClient& storeClient) {
  const char* preferenceKey = nullptr;
  const std::vector<URL>* clientURLs = nullptr;
  switch (bag.bagType()) {
    case kBagTypeProduction:
      preferenceKey = kDefaultsBagURLKey;
      clientURLs = &storeClient.productionBagURLs;
      break;
    case kBagTypeSandbox:
      preferenceKey = kDefaultsSandboxBagURLKey;
      clientURLs = &storeClient.sandboxBagURLs;
      break;
    default:
      return {};
  }
  std::vector<URL> urls;
  const Value preferred = Preferences::shared().copyAppValue(preferenceKey, kDaemonDefaultsID);
  if (const std::string* text = preferred.string())
    if (auto url = URL::parse(*text)) urls.push_back(std::move(*url));
  urls.insert(urls.end(), clientURLs->begin(), clientURLs->end());
  return urls;
}

void BagLoadOperation::run() {
  const std::vector<URL> urls = bootstrapURLsForBag(*_bagToLoad, *storeClient());
  if (urls.empty())
    logLevel(1, "%@: Warning, no bootstrap URLs found for bag type %li", kClassName,
             _bagToLoad->bagType());

  for (const URL& listed : urls) {
    if (isCancelled()) break;
    const URL url = urlWithCustomBagParameterIfWanted(listed);
    const auto download = downloadOperationForURL(url);
    logLevel(1, "%@: Attempting to load bag (type=%li) from %@", kClassName, _bagToLoad->bagType(),
             url);
    setSuccess(runSubOperation(*download, nullptr));
    if (success()) {
      logLevel(3, "%@: Successfully downloaded bag from bootstrap URL %@", kClassName, url);
      break;
    }
    if (!error() && !download->error()) continue;
    // Counted from the URL's place in the list. A URL that was given the custom-bag parameter is
    // not in the list; the number printed then means nothing, and nobody reads it in that case.
    const auto position = std::find(urls.begin(), urls.end(), url);
    const std::size_t remaining =
        position == urls.end() ? 0 : static_cast<std::size_t>(urls.end() - position) - 1;
    logLevel(3, "%@ Failed to load bag from URL %@, will try %lu more bootstrap URLs", kClassName,
             url, remaining);
    if (!error()) setError(download->error());  // the first failure's error is the load's
  }
  logLevel(1, "%@: Finished loading bag type %li", kClassName, _bagToLoad->bagType());
}

URL BagLoadOperation::urlWithCustomBagParameterIfWanted(const URL& url) {
  // Read again for every URL: a person who switches it expects the very next request to obey.
  if (!Preferences::shared().getAppBooleanValue(kDefaultsUseCustomBagKey, kDaemonDefaultsID))
    return url;
  logLevel(1, "%@: Warning, using custombag=true due to %@ preference being set in the %@ domain",
           kClassName, kDefaultsUseCustomBagKey, kDaemonDefaultsID);
  return url.urlByAddingStringToQueryString("custombag=true");
}

std::shared_ptr<HSStoreURLOperation> BagLoadOperation::downloadOperationForURL(const URL& url) {
  auto operation = std::make_shared<HSStoreURLOperation>(storeClient());
  operation->setDelegate(this);
  operation->setRequiredBagType(0);  // needs no bag, which keeps the load from loading itself
  operation->setURLKnownToBeTrusted(true);
  operation->setShouldRetryOnNetworkError(false);
  operation->setWaitsForResponseIntake(_waitsForResponseIntake);

  HSURLRequest request(url);
  request.alwaysSendGUID = true;
  request.suppressOrvHeaders = true;
  request.cachePolicy = HSURLRequest::kReloadIgnoringLocalCacheData;
  operation->setRequest(std::move(request));

  auto provider = HSPropertyListProvider::providerWithStoreClient(storeClient());
  provider->setShouldProcessProtocol(false);
  operation->setDataProvider(std::move(provider));
  return operation;
}

void BagLoadOperation::operationFinishedWithOutput(HSStoreURLOperation& operation,
                                                   const Value& output) {
  const Dictionary* response = output.dictionary();
  if (response == nullptr) {
    logLevel(1, "%@: Output was not an dictionary (%@)", kClassName, output.typeName());
    return;
  }
  logLevel(3, "%@: Fetched bag with item count: %lu", kClassName, response->count());

  double maxAge = kDefaultMaxAgeSeconds;
  if (operation.response() != nullptr) {
    operation.getVantorMaxAge(&maxAge);
    if (!(maxAge >= kMaxAgeFloorSeconds)) {
      logLevel(3, "%@: Server returned an invalid Max-Age for bag type %li, defaulting to 24 hours",
               kClassName, _bagToLoad->bagType());
      maxAge = kDefaultMaxAgeSeconds;
    }
  }
  const std::vector<URL>& urls = operation.request().urls();
  if (_bagLoadOutputHandler && !urls.empty())
    _bagLoadOutputHandler(*this, urls.back(), *response,
                          Clock::shared().now().addingSeconds(maxAge));
}

bool BagLoadOperation::operationShouldSetStoreFrontID(HSStoreURLOperation&,
                                                      const std::string& storeFrontID) {
  // Through the proxy, which hops to a queue: the change invalidates the bags, and this thread
  // holds the very queues that doing so needs.
  const std::shared_ptr<HSAccountService> service = serviceProxy().accountService();
  if (!service) return false;
  const HSPendingReply<std::monostate> done;
  service->setStoreFrontID(storeFrontID, done.doneCallback());
  // Waiting makes the storefront's change invalidate the old bag, not the one about to be accepted.
  // Not for ever: another client's forced reload may hold the controller registry for long.
  if (_waitsForResponseIntake) waitForReply(done, kStoreFrontPatienceSeconds);
  return false;
}

}  // namespace tallow
