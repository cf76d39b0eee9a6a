#pragma once

#include <memory>
#include <string>

#include "devstore/Answer.h"
#include "devstore/ReceivedRequest.h"

namespace tallow::devstore {

class JSONReader;

// One thing the store does. Made once, owned by the EndpointTable; answer() is called from any
// number of threads at once, so state of its own needs a lock of its own.
//
// A new endpoint is one class in one file pair, one line in DevStore::addEndpoints(), its URL in
// bagContents(), and a row in docs/devstore.md.
class Endpoint {
 public:
  // Settings that only this endpoint understands, once read from the staging.
  struct Settings {
    virtual ~Settings() = default;
  };

  virtual ~Endpoint() = default;

  // Takes this endpoint's own keys from `reader`, which collects the complaints; nullptr when there
  // are none to take.
  virtual std::shared_ptr<const Settings> readSettings(JSONReader& reader) const;

  // The answer before what is staged of any answer is worked in. `settings` is what readSettings()
  // has made, or nullptr when nothing is staged.
  virtual Answer answer(const ReceivedRequest& request, const Settings* settings,
                        PropertyList::Format format) = 0;
};

}  // namespace tallow::devstore
