#include "devstore/LogoutEndpoint.h"

namespace tallow::devstore {

Answer LogoutEndpoint::answer(const ReceivedRequest&, const Settings*,
                              PropertyList::Format format) {
  return Answer::propertyList(Dictionary{{"status", 0}}, format);
}

}  // namespace tallow::devstore
