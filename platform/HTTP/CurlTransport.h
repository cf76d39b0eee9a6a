#pragma once

#include <memory>
#include <string>

#include "platform/HTTP/HTTPTransport.h"

namespace tallow {

// The transport over the HTTP library (libcurl): one I/O thread drives all exchanges and one pool
// of connections, HTTP/2 where a TLS server offers it, gzip, proxies from the environment as the
// library reads it (http_proxy, https_proxy, all_proxy, no_proxy).
//
// The thread starts with the first request. When nothing has been under way for a while it closes
// the pool, gives its memory back and ends; the next request starts it again. While idle it does
// not wake.
//
// Servers are verified against the system's certificates, always, TLS 1.2 or later.
class CurlTransport final : public HTTPTransport {
 public:
  struct Options {
    // Certificates trusted beside the system's: a PEM file, for development and tests.
    std::string additionalCAFile;
    // How long the pool of idle connections is kept.
    double idleSeconds = 10;

    // additionalCAFile from TALLOW_CA_FILE.
    static Options fromEnvironment();
  };

  explicit CurlTransport(Options options);
  // Cancels what is under way; not on the I/O thread.
  ~CurlTransport() override;
  CurlTransport(const CurlTransport&) = delete;
  CurlTransport& operator=(const CurlTransport&) = delete;

  std::shared_ptr<Exchange> start(HTTPRequest request, Completion completion) override;

 private:
  class Loop;
  std::shared_ptr<Loop> _loop;
};

}  // namespace tallow
