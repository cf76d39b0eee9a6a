#include "devstore/Endpoint.h"

namespace tallow::devstore {

std::shared_ptr<const Endpoint::Settings> Endpoint::readSettings(JSONReader&) const {
  return nullptr;
}

}  // namespace tallow::devstore
