#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Base/URL.h"

namespace tallow {

// What kind of process a store client is.
enum HSStoreClientType : std::int64_t {
  kHSStoreClientTypeStoreAgent = 0,
  kHSStoreClientTypeBookStoreAgent = 1,
  kHSStoreClientTypeOutfitter = 2,   // the device-configuration tool; its descriptor may change
  kHSStoreClientTypeMediaStore = 3,  // media-store clients: read the group's shared cookies too
  kHSStoreClientTypeMediaStoreAgent = 4,
};

enum BagType : std::uint64_t { kBagTypeProduction = 1, kBagTypeSandbox = 2 };

// The calling store process, as its descriptor file describes it. Immutable once shared; passed
// around as shared_ptr<const HSStoreClient>. Two calls of one process may see two different objects
// when its descriptor changed in between: see isEqualToStoreClient.
class HSStoreClient {
 public:
  HSStoreClient() = default;

  // The descriptor of the given client type (the first, by identifier, of those installed), or a
  // client with nothing but the type when none is installed.
  static std::shared_ptr<const HSStoreClient> initWithStoreClientType(std::int64_t clientType);

  std::optional<std::string> identifier;
  std::int64_t clientType = kHSStoreClientTypeStoreAgent;
  std::uint64_t requiredBagType = kBagTypeProduction;
  std::string appPreferencesDomain;
  std::string agentPreferencesDomain;
  std::vector<URL> productionBagURLs;
  std::vector<URL> sandboxBagURLs;
  std::int64_t mediaTypeMask = 0;
  // Sent as the User-Agent of the client's store requests.
  std::string userAgent;

  // Which reading of the descriptor files this description comes from; later readings have higher
  // numbers. 0 for a description that was made in the program.
  std::uint64_t descriptorReading = 0;

  // True when every field but the reading's number is equal.
  bool isEqualToStoreClient(const HSStoreClient& other) const;
};

// "<HSStoreClient identifier type bag>".
std::string description(const HSStoreClient& client);

}  // namespace tallow
