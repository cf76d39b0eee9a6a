#include "devstore/PeerEndpoint.h"

#include <string>

namespace tallow::devstore {

Answer PeerEndpoint::answer(const ReceivedRequest& request, const Settings*,
                            PropertyList::Format format) {
  if (!request.path.ends_with("/getDeviceTokenForEnvironmentNamed"))
    return Answer::propertyList(Dictionary{{"success", true}}, format);
  const Result<Value> list = PropertyList::decode(request.body);
  const Dictionary* const arguments = list ? list->dictionary() : nullptr;
  const std::string* const environment =
      arguments == nullptr ? nullptr : (*arguments)["environmentName"].string();
  if (environment == nullptr) return Answer::propertyList(Dictionary{{"success", false}}, format);
  return Answer::propertyList(
      Dictionary{{"success", true}, {"token", Data("development token for " + *environment)}},
      format);
}

}  // namespace tallow::devstore
