#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/VendBase/HSOperation.h"
#include "platform/VendBase/HSStoreURLOperation.h"

namespace tallow {

class Bag;

// Fetches one bag from the store server: tries the bootstrap URLs one after another until one
// download succeeds, works out the validity date, and hands the decoded response to the output
// handler, which judges it. Whether the bag's signature holds never makes it try the next URL.
//
// Made by the bag for one load and run once, synchronously, on the bag's serial access queue,
// perhaps with the controller registry's lock held as well. So its requests ask for nothing that
// needs a bag, and what they bring (cookies, a storefront) goes through service proxies, which hop
// to other queues.
class BagLoadOperation final : public HSOperation, private HSStoreURLOperationDelegate {
 public:
  static constexpr const char* kClassName = "BagLoadOperation";
  // Validity of a bag whose response states no usable max-age: 19 hours. The log calls it 24 hours;
  // both the value and the text are what the fleet has always had, and dashboards match on the
  // text.
  static constexpr double kDefaultMaxAgeSeconds = 68400.0;
  // A stated max-age below this (2 to the power -23) is no max-age.
  static constexpr double kMaxAgeFloorSeconds = 1.1920928955078125e-07;

  using OutputHandler = std::function<void(BagLoadOperation& operation, const URL& bootstrapURL,
                                           const Dictionary& response, const Date& validUntilDate)>;

  BagLoadOperation(std::shared_ptr<Bag> initWithBag,
                   std::shared_ptr<const HSStoreClient> storeClient);

  // For the output handler, which is handed the operation; today's knows its bag already.
  const std::shared_ptr<Bag>& bagToLoad() const { return _bagToLoad; }
  const OutputHandler& bagLoadOutputHandler() const { return _bagLoadOutputHandler; }
  void setBagLoadOutputHandler(OutputHandler handler) {
    _bagLoadOutputHandler = std::move(handler);
  }

  // The URL that the preferences name for the bag's type, if any, then the client's own.
  static std::vector<URL> bootstrapURLsForBag(const Bag& bag, const HSStoreClient& storeClient);

 protected:
  void run() override;

 private:
  void operationFinishedWithOutput(HSStoreURLOperation& operation, const Value& output) override;
  bool operationShouldSetStoreFrontID(HSStoreURLOperation& operation,
                                      const std::string& storeFrontID) override;
  std::shared_ptr<HSStoreURLOperation> downloadOperationForURL(const URL& url);
  static URL urlWithCustomBagParameterIfWanted(const URL& url);

  const std::shared_ptr<Bag> _bagToLoad;
  OutputHandler _bagLoadOutputHandler;
  // Whether what a response brings is taken in before the load goes on. Not while this thread holds
  // the controller registry: taking it in needs that registry.
  const bool _waitsForResponseIntake;
};

}  // namespace tallow
