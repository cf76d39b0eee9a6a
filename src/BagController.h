#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/VendBase/HSStoreURLOperation.h"
#include "platform/VendBase/HSURLBagObserver.h"
#include "src/Bag.h"
#include "src/ClientRegistry.h"

namespace tallow {

// Owns the two bags of one store client, keeps the observers that want to hear when one of them has
// been updated, and is the bags' delegate. After every successful update it pings the client-ID
// URLs that the bag lists, at most as often as the server allows, and takes a storefront and
// cookies from the answers.
//
// Found through bagControllerForClient, which owns it. While a changed Outfitter client forces a
// reload, the registry's lock is held across the whole network load, so that nobody is handed a
// controller whose bag is about to change; every other bagControllerForClient call waits meanwhile.
// Any thread may call.
class BagController final : public ClientController,
                            public BagDelegate,
                            public std::enable_shared_from_this<BagController> {
 public:
  static constexpr const char* kClassName = "BagController";

  static std::shared_ptr<BagController> bagControllerForClient(
      const std::shared_ptr<const HSStoreClient>& client);
  // The same, only if it is there already and can be had without waiting; else null.
  static std::shared_ptr<BagController> bagControllerForClientIfAtHand(
      const std::shared_ptr<const HSStoreClient>& client);
  static ClientRegistry<BagController>& registry();

  // Reads the bags' persisted copies; no network.
  static std::shared_ptr<BagController> initWithStoreClient(
      std::shared_ptr<const HSStoreClient> client);

  // Null for any type but production and sandbox.
  std::shared_ptr<Bag> bagWithType(std::uint64_t bagType) const;
  void invalidateAllBags();

  // A null observer and an unknown type are ignored. An observer added twice is told twice;
  // removing takes every occurrence.
  void addBagObserver(std::shared_ptr<HSURLBagObserver> observer, std::uint64_t forBagType);
  void removeBagObserver(const std::shared_ptr<HSURLBagObserver>& observer,
                         std::uint64_t forBagType);

  void bagDidUpdateWithSuccess(const std::shared_ptr<Bag>& bag, bool success,
                               const std::optional<Error>& error,
                               const std::optional<Dictionary>& accepted) override;
  // Pings what the contents of a bag list.
  void pingClientID(const Dictionary& bag);
  void _forceLoadBagForUpdate();

 private:
  struct ObservedBag {
    std::shared_ptr<Bag> bag;
    std::vector<std::shared_ptr<HSURLBagObserver>> observers;  // guarded by observersLock
    mutable std::mutex observersLock;
  };

  explicit BagController(std::shared_ptr<const HSStoreClient> client);
  const ObservedBag* observedBag(std::uint64_t bagType) const;
  ObservedBag* observedBag(std::uint64_t bagType);
  bool isTooSoonToPing() const;
  // False ends the whole pass.
  bool ping(const Value& entry);
  void takeStoreFrontFromResponse(const HTTPResponse& response);
  void takeCookieFromResponse(const HSStoreURLOperation& operation, const HTTPResponse& response);
  void storeNextPingDate(const HTTPResponse& response);

  ObservedBag _production;
  ObservedBag _sandbox;
};

}  // namespace tallow
