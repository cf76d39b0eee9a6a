#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/Base/Value.h"
#include "src/ClientRegistry.h"

namespace tallow {

// The storefront identifier of one store client: the opaque string that says which country store
// and language the client talks to. Kept in the client's own preferences domain; a change
// invalidates every bag of the client, since bags are storefront-specific. Found through
// storefrontControllerForClient, which owns it. Any thread may call.
class StoreFrontController final : public ClientController {
 public:
  static constexpr const char* kClassName = "StoreFrontController";

  static std::shared_ptr<StoreFrontController> storefrontControllerForClient(
      const std::shared_ptr<const HSStoreClient>& client);
  static ClientRegistry<StoreFrontController>& registry();

  // Reads the persisted identifier.
  static std::shared_ptr<StoreFrontController> initWithStoreClient(
      std::shared_ptr<const HSStoreClient> client);

  std::optional<std::string> storeFrontID() const;
  // The same, unless it is being changed just now: nil then.
  std::optional<std::optional<std::string>> storeFrontIDIfIdle() const;
  // Nil clears it. A change is persisted, then all bags of the client are invalidated.
  void setStoreFrontID(const std::optional<std::string>& storeFrontID);
  // The same with the string under the key "storeFrontID".
  void setStoreFrontIDWithInfo(const Dictionary& info);

 private:
  explicit StoreFrontController(std::shared_ptr<const HSStoreClient> client);

  mutable std::mutex _lock;
  std::optional<std::string> _storeFrontID;
};

}  // namespace tallow
