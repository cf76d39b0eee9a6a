#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/HTTP/HTTPTransport.h"
#include "platform/VendBase/HSOperation.h"
#include "platform/VendBase/HSPropertyListProvider.h"
#include "platform/VendBase/HSURLRequest.h"

namespace tallow {

class HSStoreURLOperation;

class HSStoreURLOperationDelegate {
 public:
  virtual ~HSStoreURLOperationDelegate() = default;
  // The decoded body of the final response, on the operation's thread.
  virtual void operationFinishedWithOutput(HSStoreURLOperation& /*operation*/,
                                           const Value& /*output*/) {}
  // Whether the operation itself should hand the storefront of a response to the account service.
  virtual bool operationShouldSetStoreFrontID(HSStoreURLOperation& /*operation*/,
                                              const std::string& /*storeFrontID*/) {
    return true;
  }
};

// One store request. Resolves its URL (the request's, or the bag's by key); refuses one that the
// bag does not trust unless it is known to be trusted; adds the client's standard headers; follows
// at most five redirects, each judged for trust again and never from https to http; hands the
// response's cookies, machine-identity actions and storefront to the account service; decodes the
// body through its data provider and gives it to the output handler or the delegate.
//
// An operation whose required bag type is 0 needs no bag: it has no trust to ask for, so its
// redirects may only stay on the host that it was told to trust.
class HSStoreURLOperation : public HSOperation {
 public:
  using OutputHandler = std::function<void(HSStoreURLOperation& operation, const Value& output)>;

  explicit HSStoreURLOperation(std::shared_ptr<const HSStoreClient> initWithStoreClient);
  ~HSStoreURLOperation() override;

  // A client-ID ping: GET, standard headers, any body, success on a 2xx status.
  static std::shared_ptr<HSStoreURLOperation> pingOperationWithUrl(
      URL url, std::shared_ptr<const HSStoreClient> storeClient);

  void setRequest(HSURLRequest request) { _request = std::move(request); }
  const HSURLRequest& request() const { return _request; }
  void setURLBagKey(std::string key) { _urlBagKey = std::move(key); }
  // Must outlive the run; not owned.
  void setDelegate(HSStoreURLOperationDelegate* delegate) { _delegate = delegate; }
  void setOutputHandler(OutputHandler handler) { _outputHandler = std::move(handler); }
  void setDataProvider(std::shared_ptr<HSDataProvider> provider) {
    _dataProvider = std::move(provider);
  }
  void setURLKnownToBeTrusted(bool trusted) { _urlKnownToBeTrusted = trusted; }
  void setShouldRetryOnNetworkError(bool retry) { _shouldRetryOnNetworkError = retry; }
  // Whether the run waits until the account service has taken in a response's cookies and
  // storefront before it goes on (the default). A run under a lock that taking them in needs must
  // not wait.
  void setWaitsForResponseIntake(bool waits) { _waitsForResponseIntake = waits; }
  // Bounds of the whole run, redirects and retries included: 60 s unless set.
  void setTotalTimeoutSeconds(double seconds) { _totalTimeoutSeconds = seconds; }

  // The last HTTP response; null before one has arrived.
  const HTTPResponse* response() const { return _response.get(); }
  // The response's max-age in seconds written into *maxAge; left unchanged when it states none.
  void getVantorMaxAge(double* maxAge) const;

  void cancel() override;

 protected:
  void run() override;

 private:
  HSURLRequest _request;
  std::optional<std::string> _urlBagKey;
  HSStoreURLOperationDelegate* _delegate = nullptr;
  OutputHandler _outputHandler;
  std::shared_ptr<HSDataProvider> _dataProvider;
  bool _urlKnownToBeTrusted = false;
  bool _shouldRetryOnNetworkError = false;
  bool _waitsForResponseIntake = true;
  double _totalTimeoutSeconds = 60;
  std::unique_ptr<HTTPResponse> _response;
};

}  // namespace tallow
