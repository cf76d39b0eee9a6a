#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/HTTP/HTTPTransport.h"
#include "platform/VendBase/HSAuthenticationContext.h"
#include "platform/VendBase/HSDialog.h"
#include "platform/VendBase/HSOperation.h"
#include "platform/VendBase/HSPropertyListProvider.h"
#include "platform/VendBase/HSRequestHop.h"
#include "platform/VendBase/HSURLRequest.h"

namespace tallow {

class HSStoreURLOperation;

class HSStoreURLOperationDelegate {
 public:
  virtual ~HSStoreURLOperationDelegate() = default;
  // The decoded body of the final response, on the operation's thread. Success is set by then; it
  // may be taken back.
  virtual void operationFinishedWithOutput(HSStoreURLOperation& /*operation*/,
                                           const Value& /*output*/) {}
  // Whether the operation itself should hand the storefront of a response to the account service.
  // Asked for each response that sets one, redirects included.
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
// A run waits where it is: for the network within its time, for a person as long as they take.
// While it pauses or a person is asked it keeps no place on its queue.
//
// Standard headers, each left out where there is nothing to send and none replacing one that the
// request sets itself: User-Agent (the client's), X-Vantor-Store-Front, what the account service
// gives for the URL (cookies; machine identity unless suppressed), X-Vantor-GUID (when the request
// always sends it or the bag allows it), and, over https only, X-Vantor-DSID and X-Vantor-Token
// (when they are to be sent, and once somebody has signed in for this request). Asked for anew for
// each hop.
//
// An operation whose required bag type is 0 needs no bag: it has no trust to ask for, so its
// redirects may only stay on the host that it was told to trust. It never asks the account service
// for anything that needs a bag, so it may run inside a bag's load.
//
// Errors: of the transport as they are (HTTPTransport::kErrorDomain), of the data provider, and of
// kHSErrorDomain: NoBagEntry, NotTrusted, TooManyRedirects, InsecureRedirect, InvalidResponse (a
// redirect to no web address), HTTPStatus (a final status outside 200 to 299, which is in the user
// info), Cancelled, ServiceUnavailable, NotSignedIn (nobody wanted to).
class HSStoreURLOperation : public HSOperation {
 public:
  static constexpr const char* kClassName = "HSStoreURLOperation";  // in log lines

  using OutputHandler = std::function<void(HSStoreURLOperation& operation, const Value& output)>;

  explicit HSStoreURLOperation(std::shared_ptr<const HSStoreClient> initWithStoreClient);
  ~HSStoreURLOperation() override;

  // A client-ID ping: GET, standard headers, any body, success on a 2xx status. The bag names the
  // URLs to ping, so they are known to be trusted; where they redirect to is not.
  static std::shared_ptr<HSStoreURLOperation> pingOperationWithUrl(
      URL url, std::shared_ptr<const HSStoreClient> storeClient);

  // A request to the URL that the bag has under the key, whose answer is a property list.
  static std::shared_ptr<HSStoreURLOperation> propertyListOperationWithURLBagKey(
      std::string key, std::shared_ptr<const HSStoreClient> storeClient);

  // What becomes of a run that ends with that status: an error unless it is one of success.
  static std::optional<Error> failureForStatus(int statusCode);
  // The storefront that a response tells its client to have from now on.
  static std::optional<std::string> storeFrontSetBy(const HTTPResponse& response);

  void setRequest(HSURLRequest request) { _request = std::move(request); }
  const HSURLRequest& request() const { return _request; }
  void setURLBagKey(std::string key) { _urlBagKey = std::move(key); }
  // Must outlive the run; not owned.
  void setDelegate(HSStoreURLOperationDelegate* delegate) { _delegate = delegate; }
  void setOutputHandler(OutputHandler handler) { _outputHandler = std::move(handler); }
  // Without one the output is the body itself, as data.
  void setDataProvider(std::shared_ptr<HSDataProvider> provider) {
    _dataProvider = std::move(provider);
  }
  void setURLKnownToBeTrusted(bool trusted) { _urlKnownToBeTrusted = trusted; }
  // Three tries in all, with growing, jittered pauses, within the time of the run. A request that
  // may have reached the server is only repeated when repeating it changes nothing.
  void setShouldRetryOnNetworkError(bool retry) { _shouldRetryOnNetworkError = retry; }
  // Whether the account has to be signed in. Yes: if it is not, somebody is asked to sign in before
  // the request goes out. Unless set: when the store answers that it has to be. No: never.
  void setNeedsAuthentication(bool needs) { _needsAuthentication = needs; }
  // What goes with every sign-in that this request leads to.
  void setAuthenticationContext(HSAuthenticationContext context) {
    _authenticationContext = std::move(context);
  }
  const HSAuthenticationContext& authenticationContext() const { return _authenticationContext; }
  // Yes unless set. No: a redirect is a final status, so that the body goes to no second address.
  void setFollowsRedirects(bool follows) { _followsRedirects = follows; }
  // Sends the primary account's DSID and token with the request, where there are such.
  void setSendToken(bool send) { _sendToken = send; }
  // An answer that orders a machine-identity action is not taken where the URL needs machine
  // identity: the request is sent once more when the action has been carried out.
  void setShouldRetryOnSilentOrvAction(bool retry) { _shouldRetryOnSilentOrvAction = retry; }
  // Whether machine-identity actions that a response orders are carried out (the default). Those of
  // a request that is itself part of such an action are not: it would never end.
  void setHandsInOrvActions(bool hands) { _handsInOrvActions = hands; }
  // Whether the run waits until the account service has taken in a response's cookies and
  // storefront before it goes on (the default). A run under a lock that taking them in needs must
  // not wait.
  void setWaitsForResponseIntake(bool waits) { _waitsForResponseIntake = waits; }
  // Bounds of the whole run, redirects and retries included: 60 s unless set, 15 s without a bag.
  void setTotalTimeoutSeconds(double seconds) { _totalTimeoutSeconds = seconds; }

  // The last HTTP response; null before one has arrived.
  const HTTPResponse* response() const { return _response.get(); }
  // The response's max-age in seconds written into *maxAge; left unchanged when it states none.
  void getVantorMaxAge(double* maxAge) const;

  // The account that this request was sent for, because it needed one or the store said so.
  std::optional<std::uint64_t> authenticatedDSID() const { return _authenticatedDSID; }

  // For the data provider, while it acts on an answer: has a dialog shown and waits for the person;
  // runs a step of its own. Neither counts against the time of the run.
  HSDialogAnswer showDialog(const HSDialog& dialog);
  bool runStep(HSOperation& step, std::optional<Error>* error);

 protected:
  void run() override;

 private:
  class Unhurried;

  std::optional<Error> _resolveURL();
  bool _mayAuthenticateOnDemand() const;
  std::optional<Error> _authenticateIfExpired();
  std::optional<Error> _authenticate();
  std::optional<Error> _fetch();
  std::optional<Error> _trustFailure(const URL& url);
  std::optional<Error> _redirectFailure(const URL& from, const URL& to);
  bool _mustRepeatAfterOrvAction(const URL& url);
  void _restartTime();
  Result<HTTPResponse> _send(const HSRequestHop& hop);
  Result<HTTPResponse> _exchange(const HSRequestHop& hop);
  bool _pause(double seconds);
  void _addStandardHeaders(HSRequestHop& hop);
  std::optional<std::uint64_t> _addAccountHeaders(HSRequestHop& hop);
  void _takeIn(const HTTPResponse& response);
  std::optional<Error> _deliverOutput();
  double _remainingSeconds() const;

  HSURLRequest _request;
  std::optional<std::string> _urlBagKey;
  HSStoreURLOperationDelegate* _delegate = nullptr;
  OutputHandler _outputHandler;
  std::shared_ptr<HSDataProvider> _dataProvider;
  bool _urlKnownToBeTrusted = false;
  bool _shouldRetryOnNetworkError = false;
  bool _shouldRetryOnSilentOrvAction = false;
  std::optional<bool> _needsAuthentication;
  bool _sendToken = false;
  bool _followsRedirects = true;
  bool _hasAskedToSignIn = false;  // somebody has been, for this request
  bool _hasRepeatedAfterOrvAction = false;
  HSAuthenticationContext _authenticationContext;
  std::optional<std::uint64_t> _authenticatedDSID;
  bool _handsInOrvActions = true;
  bool _waitsForResponseIntake = true;
  std::optional<double> _totalTimeoutSeconds;
  double _deadline = 0;  // on the monotonic clock
  std::unique_ptr<HSServiceProxy> _intakeProxy;
  std::unique_ptr<HTTPResponse> _response;
};

}  // namespace tallow
