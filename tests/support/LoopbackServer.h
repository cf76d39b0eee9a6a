#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/Base/FileDescriptor.h"
#include "platform/Base/URL.h"
#include "tests/support/CertificateAuthority.h"

namespace tallow {

// One accepted connection of a LoopbackServer, in the hands of the test's own serving function. It
// speaks bytes, so that a test can be as wrong as servers are.
class LoopbackConnection {
 public:
  // The next request, head and body (of its Content-Length); "" when the client has closed.
  std::string readRequest();
  // False when the client has closed.
  bool write(std::string_view bytes);
  // Waits until the client closes, or the server goes away.
  void waitForEnd();

 private:
  friend class LoopbackServer;
  LoopbackConnection(FileDescriptor socket, void* tls);
  bool readMore();

  FileDescriptor _socket;
  std::shared_ptr<void> _tls;  // SSL
  std::string _received;
};

// A server on a port of its own of 127.0.0.1, each connection served by a thread of its own.
class LoopbackServer {
 public:
  using Serve = std::function<void(LoopbackConnection&)>;
  // Makes the whole answer to one request.
  using Respond = std::function<std::string(const std::string& request)>;

  struct TLS {
    TestCertificate certificate;
    std::vector<TestCertificate> chain;
    int maxVersion = 0;  // as the library numbers them; 0: the newest
  };

  explicit LoopbackServer(Serve serve, std::optional<TLS> tls = std::nullopt);
  // Cuts all connections and waits for their threads.
  ~LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  // Answers every request on every connection.
  static Serve responding(Respond respond);
  // Answers every request with the same bytes.
  static Serve answering(std::string response);
  // Takes requests in and never answers.
  static Serve silent();
  // An HTTP/1.1 response with its Content-Length.
  static std::string response(int statusCode, std::string_view headerLines, std::string_view body);

  int port() const { return _port; }
  URL url(std::string_view path = "/", std::string_view host = "127.0.0.1") const;
  std::size_t connectionCount() const;
  // Waits until that many connections have been made.
  void waitForConnections(std::size_t count) const;
  // Waits until that many connections have ended, from either side.
  void waitForEndedConnections(std::size_t count) const;
  // The application protocols that the last TLS client offered ("h2", "http/1.1").
  std::vector<std::string> offeredProtocols() const;

 private:
  void noteOfferedProtocols();
  void acceptAll();
  void serveOne(FileDescriptor socket, std::size_t index);
  void* acceptTLS(int socket);

  Serve _serve;
  std::optional<TLS> _tls;
  std::shared_ptr<void> _tlsContext;  // SSL_CTX
  FileDescriptor _listener;
  int _port = 0;
  mutable std::mutex _lock;
  mutable std::condition_variable _changed;
  std::vector<int> _sockets;  // -1 once ended
  std::size_t _ended = 0;
  std::vector<std::string> _offeredProtocols;
  bool _stopping = false;
  std::vector<std::thread> _connectionThreads;
  std::thread _acceptThread;
};

}  // namespace tallow
