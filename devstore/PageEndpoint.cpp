#include "devstore/PageEndpoint.h"

namespace tallow::devstore {

Answer PageEndpoint::answer(const ReceivedRequest& request, const Settings*,
                            PropertyList::Format format) {
  Answer answer = Answer::propertyList(Dictionary{{"page", request.path}, {"status", 0}}, format);
  answer.addHeader("Set-Cookie", "store-session=development; Path=/; HttpOnly");
  answer.addHeader("Set-Cookie",
                   "store-visit=1; Path=/store; Expires=Fri, 31 Dec 2055 23:59:59 GMT");
  return answer;
}

}  // namespace tallow::devstore
