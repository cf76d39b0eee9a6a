#pragma once

#include <string_view>

#include "devstore/Answer.h"
#include "devstore/ReceivedRequest.h"

namespace tallow::devstore {

class RequestLog;
class Staging;

// The store's own side of HTTP: POST /control stages, GET /control says what is staged,
// GET and DELETE /control/requests give and forget what has been received. Refuses requests that
// come from a web page, which could otherwise reach a store on the same machine.
//
// Owned by the store; callable from any number of threads at once.
class Control {
 public:
  Control(Staging& staging, RequestLog& requests) : _staging(staging), _requests(requests) {}

  static bool isForPath(std::string_view path);
  Answer answer(const ReceivedRequest& request);

 private:
  Answer stage(const ReceivedRequest& request);
  Answer listRequests(const ReceivedRequest& request) const;

  Staging& _staging;
  RequestLog& _requests;
};

}  // namespace tallow::devstore
