#pragma once

#include "devstore/BagContents.h"
#include "devstore/Endpoint.h"
#include "devstore/StoreURLs.h"

namespace tallow::devstore {

class SigningAuthority;

// Publishes a bag: signed and good for an hour, unless something else is staged. Own settings: what
// is wrong with the signature or the chain, how the bag is wrapped, and which of its values differ.
class BagEndpoint final : public Endpoint {
 public:
  BagEndpoint(BagEnvironment environment, const SigningAuthority& authority, StoreURLs urls);

  std::shared_ptr<const Settings> readSettings(JSONReader& reader) const override;
  Answer answer(const ReceivedRequest& request, const Settings* settings,
                PropertyList::Format format) override;

 private:
  const BagEnvironment _environment;
  const SigningAuthority& _authority;
  const StoreURLs _urls;
};

}  // namespace tallow::devstore
