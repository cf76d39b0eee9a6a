#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/HTTP/HTTPTransport.h"

namespace tallow {

// One exchange of CurlTransport: the request as the HTTP library is to send it, and the response as
// it comes in. Bounds what the peer can make it hold: the decoded body by the request's maximum,
// the header lines by number and size.
//
// Owned by the transport until its completion has run, and by whoever may want to cancel it. All
// but cancel() and the constructor belong to the thread that drives the transport.
class CurlExchange final : public HTTPTransport::Exchange {
 public:
  // Where the certificates lie that a server's chain may end in; an empty path is left out.
  struct TrustedCertificates {
    std::string file;    // PEM, all of them read for every connection
    std::string folder;  // by subject hash, read as needed
  };

  // `refusal` says why the request must not be sent; it is then the exchange's outcome.
  // `wake` makes that thread look at its exchanges; any thread may call it at any time.
  CurlExchange(HTTPRequest request, std::optional<Error> refusal,
               HTTPTransport::Completion completion, std::function<void()> wake);
  ~CurlExchange() override;
  CurlExchange(const CurlExchange&) = delete;
  CurlExchange& operator=(const CurlExchange&) = delete;

  void cancel() override;
  bool isCancelled() const { return _cancelled; }
  bool hasEnded() const { return _hasEnded; }

  const HTTPRequest& request() const { return _request; }
  // Makes the library's handle. The error when the request cannot be sent.
  std::optional<Error> prepare(const TrustedCertificates& trusted);
  // The library's easy handle (CURL*); null before prepare() and after the end.
  void* handle() const;

  // Ends the exchange with the transfer's result (a CURLcode); the handle must be out of the
  // library's hands.
  void finish(int transferResult);
  void finish(Error error);
  static Error cancellation();

 private:
  struct Transfer;

  bool setOptions(const TrustedCertificates& trusted);
  bool setHeaders();
  bool setMethodAndBody();
  Result<HTTPResponse> takeResult(int transferResult);
  Error errorFor(int transferResult) const;
  void complete(Result<HTTPResponse> result);

  HTTPRequest _request;
  std::optional<Error> _refusal;
  HTTPTransport::Completion _completion;
  std::function<void()> _wake;
  std::atomic<bool> _cancelled = false;
  bool _hasEnded = false;
  std::unique_ptr<Transfer> _transfer;
};

}  // namespace tallow
