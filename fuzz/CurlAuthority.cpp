#include "fuzz/CurlAuthority.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <sys/socket.h>

#include <array>
#include <cstdlib>
#include <memory>

#include "platform/Base/FileDescriptor.h"

namespace tallow {

namespace {

// Listens on the loopback address at a port of the system's choice.
class Proxy {
 public:
  Proxy() : _listener(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const name = reinterpret_cast<sockaddr*>(&address);
    if (bind(_listener.get(), name, length) != 0 || listen(_listener.get(), 1) != 0 ||
        getsockname(_listener.get(), name, &length) != 0) {
      std::abort();
    }
    _url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  }

  const std::string& url() const { return _url; }

  // Takes in what has arrived; true once that is a whole request.
  bool hasRequest() {
    if (!_peer) _peer = FileDescriptor(accept4(_listener.get(), nullptr, nullptr, SOCK_NONBLOCK));
    std::array<char, 4096> buffer{};
    ssize_t count = 0;
    while (_peer && (count = read(_peer.get(), buffer.data(), buffer.size())) > 0) {
      _request.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return _request.ends_with("\r\n\r\n");
  }
  const std::string& request() const { return _request; }

 private:
  FileDescriptor _listener;
  FileDescriptor _peer;
  std::string _url;
  std::string _request;
};

template <class Handle>
using Owned = std::unique_ptr<Handle, void (*)(Handle*)>;

}  // namespace

std::optional<std::string> authorityCurlConnectsTo(const std::string& url) {
  Proxy proxy;
  const Owned<CURL> easy(curl_easy_init(), [](CURL* handle) { curl_easy_cleanup(handle); });
  curl_easy_setopt(easy.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy.get(), CURLOPT_PROXY, proxy.url().c_str());
  curl_easy_setopt(easy.get(), CURLOPT_NOPROXY, "");
  curl_easy_setopt(easy.get(), CURLOPT_HTTPPROXYTUNNEL, 1L);
  const Owned<CURLM> multi(curl_multi_init(), [](CURLM* handle) { curl_multi_cleanup(handle); });
  curl_multi_add_handle(multi.get(), easy.get());
  int running = 1;
  while (running != 0 && !proxy.hasRequest()) {
    curl_multi_perform(multi.get(), &running);
    curl_multi_poll(multi.get(), nullptr, 0, 1, nullptr);
  }
  curl_multi_remove_handle(multi.get(), easy.get());
  constexpr std::string_view kMethod = "CONNECT ";
  if (!proxy.request().starts_with(kMethod)) return std::nullopt;
  const std::string rest = proxy.request().substr(kMethod.size());
  return rest.substr(0, rest.find(' '));
}

}  // namespace tallow
