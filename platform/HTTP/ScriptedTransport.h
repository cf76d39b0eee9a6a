#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/HTTP/HTTPTransport.h"

namespace tallow {

// A transport for tests: answers from a script instead of the network and remembers what it was
// asked.
//
//   ScriptedTransport transport;
//   ScopedShared<HTTPTransport> replaced(transport);
//   transport.enqueue(ScriptedTransport::fail(HTTPTransport::kTimedOut));
//   transport.setHandler([](const HTTPRequest& request) {
//     return ScriptedTransport::response(request, 200, {{"Cache-Control", "max-age=60"}},
//     "<plist/>");
//   });
//
// Keeps the contract: refuses what must not be sent, bounds the body, runs completions exactly once
// and on a thread of its own, one after the other. Callable from any thread.
class ScriptedTransport final : public HTTPTransport {
 public:
  // Makes the answer to a request; runs on the transport's thread and may block.
  using Answer = std::function<Result<HTTPResponse>(const HTTPRequest&)>;

  ScriptedTransport();
  // Cancels what is unanswered.
  ~ScriptedTransport() override;
  ScriptedTransport(const ScriptedTransport&) = delete;
  ScriptedTransport& operator=(const ScriptedTransport&) = delete;

  std::shared_ptr<Exchange> start(HTTPRequest request, Completion completion) override;

  // The answer to the next request that has none yet; several are used in order.
  void enqueue(Answer answer);
  // Answers every request for which nothing is enqueued. Without one such a request gets
  // kCannotConnect.
  void setHandler(Answer handler);

  // While held, requests are taken in but not answered (a server that never answers); they can be
  // cancelled. release() answers them.
  void hold();
  void release();

  // Everything asked so far, refused requests included, in order.
  std::vector<HTTPRequest> requests() const;
  // Waits until that many requests have been made.
  void waitForRequests(std::size_t count) const;

  static HTTPResponse response(const HTTPRequest& request, int statusCode,
                               HTTPHeaderList headers = {}, std::string_view body = {});
  // An answer that is this error.
  static Answer fail(ErrorCode code);

 private:
  class ScriptedExchange;

  void run();
  Result<HTTPResponse> answer(const HTTPRequest& request);

  mutable std::mutex _lock;
  mutable std::condition_variable _changed;
  std::vector<HTTPRequest> _requests;
  std::deque<std::shared_ptr<ScriptedExchange>> _waiting;
  std::deque<Answer> _script;
  Answer _handler;
  bool _held = false;
  bool _stopping = false;
  std::thread _thread;
};

}  // namespace tallow
