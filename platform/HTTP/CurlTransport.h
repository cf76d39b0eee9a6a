#pragma once

#include <memory>
#include <string>

#include "platform/HTTP/HTTPTransport.h"

namespace tallow {

class CurlExchange;

// The transport over the HTTP library (libcurl): one pool of connections, HTTP/2 where a TLS server
// offers it, gzip, proxies from the environment as the library reads it (http_proxy, https_proxy,
// all_proxy, no_proxy). One thread at a time drives all exchanges: an I/O thread of its own, or a
// caller in perform() who would else only wait.
//
// The I/O thread starts with the first request. When nothing has been under way for a while it
// closes the pool, gives its memory back and ends; the next request starts it again. While idle it
// does not wake.
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

 protected:
  // The calling thread drives the exchanges itself until its own has ended, where no other does and
  // it is deaf to SIGPIPE: that saves two changes of threads.
  void startAndHelp(HTTPRequest request, const Started& started, Completion completion) override;

 private:
  class Loop;
  enum class Driver { IOThread, Caller };
  std::shared_ptr<CurlExchange> exchangeFor(HTTPRequest request, Completion completion) const;
  void submit(const std::shared_ptr<CurlExchange>& exchange, Driver driver);
  std::shared_ptr<Loop> _loop;
};

}  // namespace tallow
