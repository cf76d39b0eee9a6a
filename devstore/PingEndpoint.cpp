#include "devstore/PingEndpoint.h"

namespace tallow::devstore {

Answer PingEndpoint::answer(const ReceivedRequest&, const Settings*, PropertyList::Format format) {
  Answer answer = Answer::propertyList(Dictionary(), format);
  answer.setHeader("Cache-Control", "max-age=3600");
  answer.addHeader("Set-Cookie", "client-id=development; Path=/; Max-Age=31536000");
  return answer;
}

}  // namespace tallow::devstore
