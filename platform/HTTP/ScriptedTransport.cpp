#include "platform/HTTP/ScriptedTransport.h"

#include <algorithm>
#include <atomic>
#include <utility>

namespace tallow {

namespace {

Error scriptedError(HTTPTransport::ErrorCode code, std::string description) {
  return makeError(HTTPTransport::kErrorDomain, code, std::move(description));
}

}  // namespace

// A request and who waits for its answer. Cancelling only marks it; the transport's thread answers.
class ScriptedTransport::ScriptedExchange final : public HTTPTransport::Exchange {
 public:
  ScriptedExchange(ScriptedTransport& transport, HTTPRequest request, Completion completion)
      : _transport(transport), _request(std::move(request)), _completion(std::move(completion)) {}

  void cancel() override {
    // An answered exchange may outlive its transport.
    if (_answered) return;
    _cancelled = true;
    const std::lock_guard<std::mutex> guard(_transport._lock);
    _transport._changed.notify_all();
  }

  bool isCancelled() const { return _cancelled; }
  const HTTPRequest& request() const { return _request; }
  void answer(Result<HTTPResponse> result) {
    _answered = true;
    const Completion completion = std::exchange(_completion, nullptr);
    completion(std::move(result));
  }

 private:
  ScriptedTransport& _transport;
  HTTPRequest _request;
  Completion _completion;
  std::atomic<bool> _cancelled = false;
  std::atomic<bool> _answered = false;
};

ScriptedTransport::ScriptedTransport() : _thread([this] { run(); }) {}

ScriptedTransport::~ScriptedTransport() {
  {
    const std::lock_guard<std::mutex> guard(_lock);
    _stopping = true;
    _changed.notify_all();
  }
  _thread.join();
}

std::shared_ptr<HTTPTransport::Exchange> ScriptedTransport::start(HTTPRequest request,
                                                                  Completion completion) {
  const std::lock_guard<std::mutex> guard(_lock);
  _requests.push_back(request);
  auto exchange =
      std::make_shared<ScriptedExchange>(*this, std::move(request), std::move(completion));
  _waiting.push_back(exchange);
  _changed.notify_all();
  return exchange;
}

void ScriptedTransport::enqueue(Answer answer) {
  const std::lock_guard<std::mutex> guard(_lock);
  _script.push_back(std::move(answer));
}

void ScriptedTransport::setHandler(Answer handler) {
  const std::lock_guard<std::mutex> guard(_lock);
  _handler = std::move(handler);
}

void ScriptedTransport::hold() {
  const std::lock_guard<std::mutex> guard(_lock);
  _held = true;
}

void ScriptedTransport::release() {
  const std::lock_guard<std::mutex> guard(_lock);
  _held = false;
  _changed.notify_all();
}

std::vector<HTTPRequest> ScriptedTransport::requests() const {
  const std::lock_guard<std::mutex> guard(_lock);
  return _requests;
}

void ScriptedTransport::waitForRequests(std::size_t count) const {
  std::unique_lock<std::mutex> guard(_lock);
  _changed.wait(guard, [&] { return _requests.size() >= count; });
}

HTTPResponse ScriptedTransport::response(const HTTPRequest& request, int statusCode,
                                         HTTPHeaderList headers, std::string_view body) {
  HTTPResponse made(request.url);
  made.statusCode = statusCode;
  made.headers = std::move(headers);
  made.body = Data(body);
  return made;
}

ScriptedTransport::Answer ScriptedTransport::fail(ErrorCode code) {
  return [code](const HTTPRequest&) -> Result<HTTPResponse> {
    return scriptedError(code, "The script says that this request fails.");
  };
}

void ScriptedTransport::run() {
  std::unique_lock<std::mutex> guard(_lock);
  for (;;) {
    const auto isDue = [this](const std::shared_ptr<ScriptedExchange>& exchange) {
      return _stopping || !_held || exchange->isCancelled();
    };
    auto due = _waiting.end();
    _changed.wait(guard, [&] {
      due = std::find_if(_waiting.begin(), _waiting.end(), isDue);
      return due != _waiting.end() || _stopping;
    });
    if (due == _waiting.end()) return;
    const std::shared_ptr<ScriptedExchange> exchange = *due;
    _waiting.erase(due);
    const bool cancelled = _stopping || exchange->isCancelled();
    guard.unlock();
    exchange->answer(cancelled ? scriptedError(kCancelled, "The request was cancelled.")
                               : answer(exchange->request()));
    guard.lock();
  }
}

Result<HTTPResponse> ScriptedTransport::answer(const HTTPRequest& request) {
  if (std::optional<Error> refusal = refusalOf(request)) return *std::move(refusal);
  Answer scripted;
  {
    const std::lock_guard<std::mutex> guard(_lock);
    if (!_script.empty()) {
      scripted = std::move(_script.front());
      _script.pop_front();
    } else {
      scripted = _handler;
    }
  }
  if (!scripted)
    return scriptedError(kCannotConnect, "No answer to " + request.url.absoluteString());
  Result<HTTPResponse> result = scripted(request);
  if (result && result->body.length() > request.maxBodyBytes)
    return scriptedError(kBodyTooLarge, "The answer is too large.");
  return result;
}

}  // namespace tallow
