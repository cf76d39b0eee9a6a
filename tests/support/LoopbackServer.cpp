#include "tests/support/LoopbackServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tallow {
namespace {

void require(bool succeeded, const char* what) {
  if (succeeded) return;
  std::perror(what);
  std::abort();
}

SSL* sslOf(const std::shared_ptr<void>& tls) {
  return static_cast<SSL*>(tls.get());
}

X509* decoded(const TestCertificate& certificate) {
  const unsigned char* bytes = certificate.der().bytes();
  return d2i_X509(nullptr, &bytes, static_cast<long>(certificate.der().length()));
}

std::shared_ptr<void> makeContext(const LoopbackServer::TLS& tls) {
  SSL_CTX* context = SSL_CTX_new(TLS_server_method());
  std::shared_ptr<void> owned(context, [](void* c) { SSL_CTX_free(static_cast<SSL_CTX*>(c)); });
  // What is old enough to be refused by a client must first be spoken by this server.
  SSL_CTX_set_security_level(context, 0);
  SSL_CTX_set_min_proto_version(context, TLS1_VERSION);
  if (tls.maxVersion != 0) SSL_CTX_set_max_proto_version(context, tls.maxVersion);
  X509* leaf = decoded(tls.certificate);
  require(SSL_CTX_use_certificate(context, leaf) == 1, "SSL_CTX_use_certificate");
  X509_free(leaf);
  for (const TestCertificate& certificate : tls.chain)
    SSL_CTX_add_extra_chain_cert(context, decoded(certificate));
  require(
      SSL_CTX_use_PrivateKey(context, static_cast<EVP_PKEY*>(tls.certificate.key().handle())) == 1,
      "SSL_CTX_use_PrivateKey");
  return owned;
}

std::size_t contentLength(std::string_view head) {
  constexpr std::string_view kName = "\r\nContent-Length: ";
  const std::size_t found = head.find(kName);
  if (found == std::string_view::npos) return 0;
  return std::strtoul(head.data() + found + kName.size(), nullptr, 10);
}

}  // namespace

LoopbackConnection::LoopbackConnection(FileDescriptor socket, void* tls)
    : _socket(std::move(socket)), _tls(tls, [](void* ssl) { SSL_free(static_cast<SSL*>(ssl)); }) {}

bool LoopbackConnection::readMore() {
  std::array<char, 16384> buffer = {};
  const ssize_t length = _tls ? SSL_read(sslOf(_tls), buffer.data(), buffer.size())
                              : recv(_socket.get(), buffer.data(), buffer.size(), 0);
  if (length <= 0) return false;
  _received.append(buffer.data(), static_cast<std::size_t>(length));
  return true;
}

std::string LoopbackConnection::readRequest() {
  std::size_t end = 0;
  while ((end = _received.find("\r\n\r\n")) == std::string::npos)
    if (!readMore()) return {};
  const std::size_t length =
      end + 4 + contentLength(std::string_view(_received).substr(0, end + 2));
  while (_received.size() < length)
    if (!readMore()) return {};
  std::string request = _received.substr(0, length);
  _received.erase(0, length);
  return request;
}

bool LoopbackConnection::write(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t some = std::min<std::size_t>(bytes.size(), 1u << 20);
    const ssize_t written = _tls ? SSL_write(sslOf(_tls), bytes.data(), static_cast<int>(some))
                                 : send(_socket.get(), bytes.data(), some, MSG_NOSIGNAL);
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

void LoopbackConnection::waitForEnd() {
  while (readMore()) {
  }
}

LoopbackServer::LoopbackServer(Serve serve, std::optional<TLS> tls)
    : _serve(std::move(serve)), _tls(std::move(tls)) {
  if (_tls) {
    _tlsContext = makeContext(*_tls);
    noteOfferedProtocols();
  }
  _listener = FileDescriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  require(bind(_listener.get(), generic, length) == 0, "bind");
  require(listen(_listener.get(), 256) == 0, "listen");
  require(getsockname(_listener.get(), generic, &length) == 0, "getsockname");
  _port = ntohs(address.sin_port);
  _acceptThread = std::thread([this] { acceptAll(); });
}

// Takes HTTP/1.1 when it is offered, and notes what else was.
void LoopbackServer::noteOfferedProtocols() {
  const auto choose = [](SSL*, const unsigned char** chosen, unsigned char* chosenLength,
                         const unsigned char* offered, unsigned offeredLength, void* server) {
    static constexpr std::string_view kHTTP11 = "http/1.1";
    auto& self = *static_cast<LoopbackServer*>(server);
    const std::lock_guard<std::mutex> guard(self._lock);
    self._offeredProtocols.clear();
    for (unsigned i = 0; i < offeredLength; i += 1U + offered[i])
      self._offeredProtocols.emplace_back(reinterpret_cast<const char*>(offered) + i + 1,
                                          offered[i]);
    *chosen = reinterpret_cast<const unsigned char*>(kHTTP11.data());
    *chosenLength = static_cast<unsigned char>(kHTTP11.size());
    return SSL_TLSEXT_ERR_OK;
  };
  SSL_CTX_set_alpn_select_cb(static_cast<SSL_CTX*>(_tlsContext.get()), choose, this);
}

LoopbackServer::~LoopbackServer() {
  {
    const std::lock_guard<std::mutex> guard(_lock);
    _stopping = true;
    shutdown(_listener.get(), SHUT_RDWR);
    for (const int socket : _sockets)
      if (socket >= 0) shutdown(socket, SHUT_RDWR);
  }
  _acceptThread.join();
  for (std::thread& thread : _connectionThreads) thread.join();
}

void LoopbackServer::acceptAll() {
  for (;;) {
    FileDescriptor socket(accept4(_listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    const std::lock_guard<std::mutex> guard(_lock);
    if (!socket || _stopping) return;
    const std::size_t index = _sockets.size();
    _sockets.push_back(socket.get());
    _connectionThreads.emplace_back(
        [this, index, owned = std::make_shared<FileDescriptor>(std::move(socket))] {
          serveOne(std::move(*owned), index);
        });
    _changed.notify_all();
  }
}

void LoopbackServer::serveOne(FileDescriptor socket, std::size_t index) {
  // The TLS library writes without asking for no signal.
  sigset_t brokenPipe;
  sigemptyset(&brokenPipe);
  sigaddset(&brokenPipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &brokenPipe, nullptr);
  void* tls = _tls ? acceptTLS(socket.get()) : nullptr;
  LoopbackConnection connection(std::move(socket), tls);
  if (tls != nullptr || !_tls) _serve(connection);
  const std::lock_guard<std::mutex> guard(_lock);
  _sockets[index] = -1;
  ++_ended;
  _changed.notify_all();
}

void* LoopbackServer::acceptTLS(int socket) {
  SSL* ssl = nullptr;
  {
    const std::lock_guard<std::mutex> guard(_lock);
    ssl = SSL_new(static_cast<SSL_CTX*>(_tlsContext.get()));
  }
  SSL_set_fd(ssl, socket);
  if (SSL_accept(ssl) == 1) return ssl;
  SSL_free(ssl);
  return nullptr;
}

LoopbackServer::Serve LoopbackServer::responding(Respond respond) {
  return [respond = std::move(respond)](LoopbackConnection& connection) {
    for (std::string request = connection.readRequest();
         !request.empty() && connection.write(respond(request)); request = connection.readRequest())
      ;
  };
}

LoopbackServer::Serve LoopbackServer::answering(std::string response) {
  return responding([response = std::move(response)](const std::string&) { return response; });
}

LoopbackServer::Serve LoopbackServer::silent() {
  return [](LoopbackConnection& connection) { connection.waitForEnd(); };
}

std::string LoopbackServer::response(int statusCode, std::string_view headerLines,
                                     std::string_view body) {
  std::string text = "HTTP/1.1 " + std::to_string(statusCode) + " Status\r\n";
  text.append(headerLines).append("Content-Length: ").append(std::to_string(body.size()));
  return text.append("\r\n\r\n").append(body);
}

URL LoopbackServer::url(std::string_view path, std::string_view host) const {
  const std::string scheme = _tls ? "https" : "http";
  return *URL::parse(scheme + "://" + std::string(host) + ":" + std::to_string(_port) +
                     std::string(path));
}

std::size_t LoopbackServer::connectionCount() const {
  const std::lock_guard<std::mutex> guard(_lock);
  return _sockets.size();
}

void LoopbackServer::waitForConnections(std::size_t count) const {
  std::unique_lock<std::mutex> guard(_lock);
  _changed.wait(guard, [&] { return _sockets.size() >= count; });
}

void LoopbackServer::waitForEndedConnections(std::size_t count) const {
  std::unique_lock<std::mutex> guard(_lock);
  _changed.wait(guard, [&] { return _ended >= count; });
}

std::vector<std::string> LoopbackServer::offeredProtocols() const {
  const std::lock_guard<std::mutex> guard(_lock);
  return _offeredProtocols;
}

}  // namespace tallow
