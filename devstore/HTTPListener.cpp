#include "devstore/HTTPListener.h"

#include <httplib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <future>
#include <string_view>
#include <thread>
#include <utility>

#include "devstore/ConnectionQueue.h"
#include "devstore/Holdup.h"
#include "devstore/Identity.h"
#include "platform/Base/Clock.h"

namespace tallow::devstore {

namespace {

constexpr const char* kErrorDomain = "DevStore";
constexpr const char* kEveryPath = R"([\s\S]*)";
// The library matches paths by recursion, a step for each character: longer ones could exhaust a
// stack.
constexpr std::size_t kMostPathBytes = 512;
constexpr int kBacklog = 256;
constexpr std::size_t kMostRequestsPerConnection = 10'000;
constexpr std::size_t kChunkBytes = 64 << 10;
constexpr auto kKeepAlive = std::chrono::seconds(30);

// What the library adds to the headers of a request by itself.
constexpr std::array<std::string_view, 4> kOwnHeaders = {"REMOTE_ADDR", "REMOTE_PORT", "LOCAL_ADDR",
                                                         "LOCAL_PORT"};

ReceivedRequest receivedRequest(const httplib::Request& request, const std::string& body) {
  ReceivedRequest received;
  received.method = request.method;
  received.path = request.path;
  if (const std::size_t mark = request.target.find('?'); mark != std::string::npos) {
    received.query = request.target.substr(mark + 1);
  }
  received.parameters.assign(request.params.begin(), request.params.end());
  for (const auto& header : request.headers) {
    if (std::find(kOwnHeaders.begin(), kOwnHeaders.end(), header.first) == kOwnHeaders.end()) {
      received.headers.emplace_back(header);
    }
  }
  received.body = Data(std::string_view(body));
  received.secure = request.ssl != nullptr;
  received.time = Clock::shared().now();
  return received;
}

// Sends the body up to the byte at which the answer shall break off or stall. Says whether the
// connection can go on to another request.
bool sendBody(const Answer& answer, std::size_t offset, std::size_t length, httplib::DataSink& sink,
              Holdup& holdup) {
  const std::size_t last = std::min(answer.truncateAt.value_or(answer.body.length()),
                                    answer.stallAt.value_or(answer.body.length()));
  const std::size_t sendable = offset < last ? std::min(length, last - offset) : 0;
  const std::string_view part = answer.body.view().substr(offset, std::min(sendable, kChunkBytes));
  if (!part.empty() && !sink.write(part.data(), part.size())) return false;
  if (part.size() < sendable || (sendable == length && !answer.closeAfter)) return true;
  if (answer.stallAt == last) holdup.wait(answer.ticket, std::nullopt);
  return false;
}

void deliver(Answer answer, httplib::Response& response, Holdup& holdup) {
  const bool isHeld = answer.hang || answer.delay;
  if (isHeld && !holdup.wait(answer.ticket, answer.hang ? std::nullopt : answer.delay)) {
    answer = Answer::text(503, "too many answers are being held\n");
  }
  response.status = answer.status;
  for (const auto& [name, value] : answer.headers) response.set_header(name, value);
  if (answer.closeAfter) response.set_header("Connection", "close");
  if (answer.body.empty()) {
    response.set_content("", answer.contentType);
    return;
  }
  // Through a provider even where the body is whole: the library would compress it otherwise, and
  // its length on the wire would not be the one that was staged.
  const std::size_t length = answer.body.length();
  const std::string contentType = answer.contentType;
  response.set_content_provider(
      length, contentType,
      [answer = std::move(answer), &holdup](std::size_t offset, std::size_t wanted,
                                            httplib::DataSink& sink) {
        return sendBody(answer, offset, wanted, sink, holdup);
      });
}

// Reads the body, as far as it is bounded and its end is known. nullopt when it is too long.
std::optional<std::string> readBody(const httplib::Request& request,
                                    const httplib::ContentReader& reader) {
  std::string body;
  // Without a length it would end only with the connection.
  if (!request.has_header("Content-Length") && !request.has_header("Transfer-Encoding"))
    return body;
  if (request.is_multipart_form_data()) return std::nullopt;
  const bool isWhole = reader([&](const char* bytes, std::size_t length) {
    if (body.size() + length > HTTPListener::kMostBodyBytes) return false;
    body.append(bytes, length);
    return true;
  });
  return isWhole ? std::optional(std::move(body)) : std::nullopt;
}

}  // namespace

struct HTTPListener::State {
  explicit State(Holdup& holdupOfStore) : holdup(holdupOfStore) {}

  void addRoutes(const Handler& handler);

  Holdup& holdup;
  std::unique_ptr<httplib::Server> server;
  int socket = -1;  // the listening one; the server's own once it runs
  std::uint16_t port = 0;
  std::thread thread;
};

void HTTPListener::State::addRoutes(const Handler& handler) {
  const auto withoutBody = [this, handler](const httplib::Request& request,
                                           httplib::Response& response) {
    deliver(handler(receivedRequest(request, "")), response, holdup);
  };
  const auto withBody = [this, handler](const httplib::Request& request,
                                        httplib::Response& response,
                                        const httplib::ContentReader& reader) {
    const std::optional<std::string> body = readBody(request, reader);
    if (body) return deliver(handler(receivedRequest(request, *body)), response, holdup);
    Answer refusal = Answer::text(413, "the body is too long, broken, or a multipart form\n");
    refusal.closeAfter = true;
    deliver(std::move(refusal), response, holdup);
  };
  server->set_pre_routing_handler(
      [this](const httplib::Request& request, httplib::Response& response) {
        using Outcome = httplib::Server::HandlerResponse;
        if (request.path.size() <= kMostPathBytes) return Outcome::Unhandled;
        Answer refusal = Answer::text(414, "the path is too long\n");
        refusal.closeAfter = true;
        deliver(std::move(refusal), response, holdup);
        return Outcome::Handled;
      });
  server->Get(kEveryPath, withoutBody);
  server->Delete(kEveryPath, withoutBody);
  server->Delete(kEveryPath, withBody);
  server->Post(kEveryPath, withBody);
  server->Put(kEveryPath, withBody);
  server->set_exception_handler(
      [](const httplib::Request&, httplib::Response& response, const std::exception_ptr&) {
        response.status = 500;
        response.set_content("this request could not be handled\n", "text/plain");
      });
}

Result<std::unique_ptr<HTTPListener>> HTTPListener::bind(const std::string& address,
                                                         std::uint16_t port,
                                                         const Identity* identity, Holdup& holdup) {
  auto state = std::make_unique<State>(holdup);
  if (identity != nullptr) {
    state->server =
        std::make_unique<httplib::SSLServer>(identity->certificate(), identity->key(), nullptr);
  } else {
    state->server = std::make_unique<httplib::Server>();
  }
  httplib::Server& server = *state->server;
  if (!server.is_valid()) return makeError(kErrorDomain, 0, "TLS could not be set up");

  server.set_socket_options([&socket = state->socket](int made) {
    socket = made;
    const int yes = 1;  // and not SO_REUSEPORT, with which two stores could share a port unnoticed
    ::setsockopt(made, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
  });
  server.set_tcp_nodelay(true);
  server.set_keep_alive_max_count(kMostRequestsPerConnection);
  server.set_keep_alive_timeout(kKeepAlive.count());
  server.set_payload_max_length(kMostBodyBytes);
  errno = 0;
  const int bound = port == 0                            ? server.bind_to_any_port(address)
                    : server.bind_to_port(address, port) ? port
                                                         : -1;
  if (bound <= 0) {
    const int code = errno;
    return makeError(kErrorDomain, code,
                     address + ", port " + std::to_string(port) + ": cannot be listened on" +
                         (code != 0 ? std::string(": ") + std::strerror(code) : std::string()));
  }
  ::listen(state->socket, kBacklog);  // the library's own backlog is too short for a crowd
  state->port = static_cast<std::uint16_t>(bound);
  return std::unique_ptr<HTTPListener>(new HTTPListener(std::move(state)));
}

HTTPListener::HTTPListener(std::unique_ptr<State> state) : _state(std::move(state)) {}

HTTPListener::~HTTPListener() {
  if (_state->thread.joinable()) {
    _state->server->stop();
    _state->thread.join();
  } else {
    ::close(_state->socket);
  }
}

std::uint16_t HTTPListener::port() const {
  return _state->port;
}

void HTTPListener::start(const Handler& handler) {
  _state->addRoutes(handler);
  // The library asks for its queue once it counts as running; before that it could not be stopped.
  std::promise<void> running;
  const std::uint16_t port = _state->port;
  _state->server->new_task_queue = [&running, port] {
    running.set_value();
    // The library deletes it.
    return std::make_unique<ConnectionQueue>(kMostConnections, port).release();
  };
  _state->thread = std::thread([this] { _state->server->listen_after_bind(); });
  running.get_future().wait();
}

}  // namespace tallow::devstore
