#include "devstore/EligibilityEndpoint.h"

namespace tallow::devstore {

Answer EligibilityEndpoint::answer(const ReceivedRequest&, const Settings*, PropertyList::Format) {
  return Answer::json(200, R"({"music": {"status": "Enabled"}})");
}

}  // namespace tallow::devstore
