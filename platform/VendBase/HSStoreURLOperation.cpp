#include "platform/VendBase/HSStoreURLOperation.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <string_view>
#include <utility>

#include "platform/Base/Clock.h"
#include "platform/Base/Random.h"
#include "platform/Concurrency/RunLoop.h"
#include "platform/VendBase/HSDevice.h"
#include "platform/VendBase/HSDialogCenter.h"
#include "platform/VendBase/HSError.h"
#include "platform/VendBase/HSOperationQueue.h"
#include "platform/VendBase/OrvAction.h"
#include "platform/VendBase/StoreProtocolKeys.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {

namespace {

constexpr int kMaxRedirects = 5;
constexpr double kTotalTimeoutSeconds = 60;
constexpr double kBaglessTotalTimeoutSeconds = 15;

// Taking a response in is this machine's own work: it gets this long however late the response was.
constexpr double kLeastIntakeSeconds = 5;

constexpr int kMaxAttempts = 3;
constexpr double kFirstRetryPauseSeconds = 0.5;  // doubled each time, and up to as much again

constexpr const char* kDSIDHeader = "X-Vantor-DSID";
constexpr const char* kTokenHeader = "X-Vantor-Token";
constexpr int kAuthenticationRequiredStatus = 401;
// Looked for in this order, exactly as written.
constexpr std::array kSetStoreFrontHeaders = {"X-Set-Vantor-Store-Front",
                                              "x-set-vantor-store-front"};

Error serviceUnavailable() {
  return HSError(kHSErrorServiceUnavailable, std::nullopt, "The account service does not answer");
}

Error timedOut() {
  return makeError(HTTPTransport::kErrorDomain, HTTPTransport::kTimedOut, "The request timed out");
}

// Whether sending once more can help and cannot do the work twice: an exchange that never reached
// the server, or one that a repeat leaves as it is (RFC 9110 section 9.2.2).
bool mayRetry(const Error& error, std::string_view method) {
  if (error.domain != HTTPTransport::kErrorDomain) return false;
  if (error.code == HTTPTransport::kCannotConnect) return true;
  return (error.code == HTTPTransport::kTimedOut || error.code == HTTPTransport::kConnectionLost) &&
         method != "POST" && method != "PATCH";
}

}  // namespace

// A stretch of the run that takes as long as it takes: it does not count against the time of the
// run, and other operations of the queue may run meanwhile.
class HSStoreURLOperation::Unhurried {
 public:
  explicit Unhurried(HSStoreURLOperation& operation)
      : _operation(operation), _began(Clock::shared().monotonicSeconds()) {}
  ~Unhurried() { _operation._deadline += Clock::shared().monotonicSeconds() - _began; }
  Unhurried(const Unhurried&) = delete;
  Unhurried& operator=(const Unhurried&) = delete;

 private:
  HSStoreURLOperation& _operation;
  const double _began;
  const HSOperationQueue::GivingWay _way;
};

std::optional<std::string> HSStoreURLOperation::storeFrontSetBy(const HTTPResponse& response) {
  for (const char* name : kSetStoreFrontHeaders)
    if (auto value = response.header(name)) return value;
  return std::nullopt;
}

std::optional<Error> HSStoreURLOperation::failureForStatus(int statusCode) {
  if (statusCode >= 200 && statusCode < 300) return std::nullopt;
  Error error = HSError(kHSErrorHTTPStatus, std::nullopt,
                        format("The store answered with status %d", statusCode));
  error.userInfo = error.userInfo.setting(kHSErrorStatusKey, statusCode);
  return error;
}

HSStoreURLOperation::HSStoreURLOperation(std::shared_ptr<const HSStoreClient> initWithStoreClient)
    : HSOperation(std::move(initWithStoreClient)) {}

HSStoreURLOperation::~HSStoreURLOperation() = default;

std::shared_ptr<HSStoreURLOperation> HSStoreURLOperation::pingOperationWithUrl(
    URL url, std::shared_ptr<const HSStoreClient> storeClient) {
  auto operation = std::make_shared<HSStoreURLOperation>(std::move(storeClient));
  operation->setRequest(HSURLRequest(std::move(url)));
  operation->setURLKnownToBeTrusted(true);
  operation->setNeedsAuthentication(false);
  return operation;
}

std::shared_ptr<HSStoreURLOperation> HSStoreURLOperation::propertyListOperationWithURLBagKey(
    std::string key, std::shared_ptr<const HSStoreClient> storeClient) {
  auto operation = std::make_shared<HSStoreURLOperation>(storeClient);
  operation->setURLBagKey(std::move(key));
  operation->setDataProvider(
      HSPropertyListProvider::providerWithStoreClient(std::move(storeClient)));
  return operation;
}

void HSStoreURLOperation::getVantorMaxAge(double* maxAge) const {
  if (!_response) return;
  if (const std::optional<double> stated = _response->cacheControlMaxAgeSeconds())
    *maxAge = *stated;
}

void HSStoreURLOperation::run() {
  std::optional<Error> failure = _resolveURL();
  _restartTime();
  if (!failure && _needsAuthentication.value_or(false)) failure = _authenticateIfExpired();
  if (!failure) failure = _fetch();
  if (!failure && _response->statusCode == kAuthenticationRequiredStatus &&
      _mayAuthenticateOnDemand()) {
    failure = _authenticate();
    if (!failure) failure = _fetch();
  }
  if (!failure) failure = failureForStatus(_response->statusCode);
  if (!failure) failure = _deliverOutput();
  if (!failure) return;
  logLevel(3, "%@: %@ failed: %@", HSStoreURLOperation::kClassName, _request.primaryURL(),
           *failure);
  setSuccess(false);
  setError(isCancelled() ? cancellationError() : std::move(*failure));
}

// The bag's URL takes the place of the request's only when the request has none.
std::optional<Error> HSStoreURLOperation::_resolveURL() {
  if (!_request.urls().empty()) return std::nullopt;
  std::optional<URL> url;
  // A bag that has to be loaded first has a time of its own.
  if (_urlBagKey) url = urlForURLBagKey(*_urlBagKey, _totalTimeoutSeconds);
  if (!url)
    return HSError(kHSErrorNoBagEntry, std::nullopt,
                   format("There is no URL under the bag key %@", _urlBagKey));
  _request.setURLs({*std::move(url)});
  return std::nullopt;
}

// Not when a person must not be asked, nor when one just has been.
bool HSStoreURLOperation::_mayAuthenticateOnDemand() const {
  return _needsAuthentication.value_or(true) && !_hasAskedToSignIn && requiredBagType() != 0 &&
         (!_dataProvider || _dataProvider->allowsQuestions());
}

// Signs in unless the primary account is.
std::optional<Error> HSStoreURLOperation::_authenticateIfExpired() {
  const auto service = serviceProxy().accountService();
  if (!service) return serviceUnavailable();
  const HSPendingReply<bool> isExpired;
  const HSPendingReply<HSAccountService::Account> account;
  service->authIsExpired(isExpired.callback());
  service->primaryAccount(account.callback());
  const std::optional<bool> expired = waitForReply(isExpired, _remainingSeconds());
  const auto primary = waitForReply(account, _remainingSeconds());
  if (!expired || !primary) return serviceUnavailable();
  if (*expired || !*primary) return _authenticate();
  _authenticatedDSID = (*primary)->dsID();
  return std::nullopt;
}

// Has the transaction service ask somebody to sign in, and waits for them.
std::optional<Error> HSStoreURLOperation::_authenticate() {
  _hasAskedToSignIn = true;
  struct Outcome {
    bool success = false;
    std::optional<std::uint64_t> dsID;
    std::optional<Error> error;
  };
  const HSPendingReply<Outcome> reply;
  serviceProxy().transactionService()->dsidByAuthenticatingWithContext(
      _authenticationContext,
      [answer = reply.callback()](bool success, std::optional<std::uint64_t> dsID,
                                  std::optional<Error> error) {
        answer({success, dsID, std::move(error)});
      });
  const Unhurried wait(*this);
  std::optional<Outcome> outcome = waitForReply(reply);
  if (!outcome) return isCancelled() ? cancellationError() : serviceUnavailable();
  if (outcome->error) return outcome->error;
  if (!outcome->success || outcome->dsID.value_or(0) == 0)
    return HSError(kHSErrorNotSignedIn, "Not signed in", std::nullopt);
  _authenticatedDSID = outcome->dsID;
  return std::nullopt;
}

HSDialogAnswer HSStoreURLOperation::showDialog(const HSDialog& dialog) {
  const std::string client = storeClient() ? storeClient()->identifier.value_or("") : "";
  const HSPendingReply<HSDialogAnswer> reply;
  const std::uint64_t number = HSDialogCenter::shared().show(dialog, client, reply.callback());
  const Unhurried wait(*this);
  std::optional<HSDialogAnswer> answer = waitForReply(reply);
  if (!answer) HSDialogCenter::shared().withdraw(number);
  return answer ? *std::move(answer) : HSDialogAnswer();
}

bool HSStoreURLOperation::runStep(HSOperation& step, std::optional<Error>* error) {
  const double began = Clock::shared().monotonicSeconds();
  const bool success = runSubOperation(step, error);
  _deadline += Clock::shared().monotonicSeconds() - began;
  return success;
}

// Sends the request and follows redirects until a response is the final one, in _response.
std::optional<Error> HSStoreURLOperation::_fetch() {
  HSRequestHop hop(*_request.urlToSend());
  hop.method = _request.method;
  hop.headers = _request.headers;
  hop.body = _request.body;
  if (!_urlKnownToBeTrusted)
    if (auto refusal = _trustFailure(hop.url)) return refusal;

  for (int redirects = 0;;) {
    Result<HTTPResponse> response = _send(hop);
    if (!response) return response.error();
    _response = std::make_unique<HTTPResponse>(std::move(*response));
    _takeIn(*_response);
    if (isCancelled()) return cancellationError();  // perhaps before it was taken in
    if (_mustRepeatAfterOrvAction(hop.url)) {
      _hasRepeatedAfterOrvAction = true;  // once, whatever the next answer orders
      _restartTime();
      continue;
    }
    if (!_followsRedirects || !HSRequestHop::isRedirect(*_response)) return std::nullopt;
    if (redirects == kMaxRedirects)
      return HSError(kHSErrorTooManyRedirects, std::nullopt, "The store redirects without end");
    Result<HSRequestHop> next = hop.hopAfterRedirect(*_response);
    if (!next) return next.error();
    if (auto refusal = _redirectFailure(hop.url, next->url)) return refusal;
    ++redirects;
    hop = std::move(*next);
    std::vector<URL> urls = _request.urls();
    urls.push_back(hop.url);
    _request.setURLs(std::move(urls));
  }
}

// Asks the bag; without one there is nobody to ask, and nothing to trust.
std::optional<Error> HSStoreURLOperation::_trustFailure(const URL& url) {
  if (requiredBagType() != 0) {
    const auto service = bagServiceProxy().accountService();
    if (!service) return serviceUnavailable();
    const HSPendingReply<bool> reply;
    service->urlIsTrustedByURLBag(url, reply.callback());
    const std::optional<bool> isTrusted = waitForReply(reply, _remainingSeconds());
    if (!isTrusted) return serviceUnavailable();
    if (*isTrusted) return std::nullopt;
  }
  logLevel(1, "%@: Refusing a URL of untrusted host %@", HSStoreURLOperation::kClassName,
           url.host());
  return HSError(kHSErrorNotTrusted, std::nullopt,
                 "The store's settings do not trust this address");
}

std::optional<Error> HSStoreURLOperation::_redirectFailure(const URL& from, const URL& to) {
  logLevel(3, "%@: Redirected from %@ to %@", HSStoreURLOperation::kClassName, from, to);
  const bool staysOnHost =
      !to.canonicalHost().empty() && to.canonicalHost() == from.canonicalHost();
  if (requiredBagType() == 0 && staysOnHost) return std::nullopt;
  return _trustFailure(to);
}

// The action is on its way by now: the next question for headers that need it waits behind it.
bool HSStoreURLOperation::_mustRepeatAfterOrvAction(const URL& url) {
  if (!_shouldRetryOnSilentOrvAction || _hasRepeatedAfterOrvAction || requiredBagType() == 0 ||
      _request.suppressOrvHeaders || !OrvAction::readFrom(_response->headerDictionary()).isKnown())
    return false;
  const auto service = bagServiceProxy().accountService();
  const HSPendingReply<bool> needsAction;
  if (!service) return false;
  service->needsSilentOrvActionForURL(url, needsAction.callback());
  if (!waitForReply(needsAction, _remainingSeconds()).value_or(false)) return false;
  logLevel(3, "%@: Sending %@ again after a machine-identity action",
           HSStoreURLOperation::kClassName, url);
  return true;
}

void HSStoreURLOperation::_restartTime() {
  _deadline = Clock::shared().monotonicSeconds() +
              _totalTimeoutSeconds.value_or(requiredBagType() == 0 ? kBaglessTotalTimeoutSeconds
                                                                   : kTotalTimeoutSeconds);
}

// One hop, tried again after network errors where that was asked for.
Result<HTTPResponse> HSStoreURLOperation::_send(const HSRequestHop& hop) {
  HSRequestHop complete = hop;
  _addStandardHeaders(complete);
  double longestPause = kFirstRetryPauseSeconds;
  for (int attempt = 1;; ++attempt, longestPause *= 2) {
    Result<HTTPResponse> response = _exchange(complete);
    if (response || !_shouldRetryOnNetworkError || attempt == kMaxAttempts ||
        !mayRetry(response.error(), hop.method))
      return response;
    const double pause = longestPause * (1 + Random::shared().unit());
    if (pause >= _remainingSeconds()) return response;
    logLevel(2, "%@: Trying %@ again in %.2f seconds after %@", HSStoreURLOperation::kClassName,
             hop.url.host(), pause, response.error());
    if (!_pause(pause)) return cancellationError();
  }
}

Result<HTTPResponse> HSStoreURLOperation::_exchange(const HSRequestHop& hop) {
  HTTPRequest request(hop.url);
  request.method = hop.method;
  request.headers = hop.headers;
  request.body = hop.body;
  request.bypassCaches = _request.cachePolicy == HSURLRequest::kReloadIgnoringLocalCacheData;
  request.totalTimeoutSeconds = _remainingSeconds();
  if (isCancelled()) return cancellationError();
  if (request.totalTimeoutSeconds <= 0) return timedOut();

  std::optional<CancelScope> scope;
  return HTTPTransport::shared().perform(std::move(request), [&](const auto& exchange) {
    scope.emplace(*this, [exchange] { exchange->cancel(); });
  });
}

// False when cancelled. The run loop keeps the time; this thread only waits for it, and keeps no
// place on its queue.
bool HSStoreURLOperation::_pause(double seconds) {
  const HSOperationQueue::GivingWay way;
  const HSPendingReply<std::monostate> over;
  const auto timer = RunLoop::main().addTimer(seconds, over.doneCallback());
  waitForReply(over, _remainingSeconds());
  timer->invalidate();
  return !isCancelled();
}

// What goes with every store request; a header that the request sets itself stays as it is. The
// questions go out together and are waited for together. A run without a bag asks nothing that
// needs one: it may well be the bag's own load, with the bag's queue held.
void HSStoreURLOperation::_addStandardHeaders(HSRequestHop& hop) {
  const bool hasBag = requiredBagType() != 0;
  const bool wantsOrvHeaders = hasBag && !_request.suppressOrvHeaders;
  std::optional<std::uint64_t> dsID;
  if (wantsOrvHeaders || _sendToken || _authenticatedDSID) dsID = _addAccountHeaders(hop);
  const HSPendingReply<std::optional<std::string>> storeFront;
  const HSPendingReply<Dictionary> headers;
  const HSPendingReply<bool> maySendGUID;
  if (const auto service = serviceProxy().accountService()) {
    service->storeFront(storeFront.callback());
    service->httpHeadersForURL(hop.url, dsID, wantsOrvHeaders, headers.callback());
  } else {
    storeFront.abandon();
    headers.abandon();
  }
  const auto bagService = hasBag && !_request.alwaysSendGUID ? bagServiceProxy().accountService()
                                                             : std::shared_ptr<HSAccountService>();
  if (bagService) {
    bagService->shouldSendGUIDWithRequestForURL(hop.url, maySendGUID.callback());
  } else {
    maySendGUID.abandon();
  }

  const auto add = [&](std::string_view name, std::string_view value) {
    if (!hop.addHeader(name, value) && !value.empty())
      logLevel(1, "%@: Leaving out header %@ with an unfit value", HSStoreURLOperation::kClassName,
               name);
  };
  if (storeClient()) add("User-Agent", storeClient()->userAgent);
  if (const auto id = waitForReply(storeFront, _remainingSeconds()); id && *id)
    add(kStoreFrontHeader, **id);
  if (const auto given = waitForReply(headers, _remainingSeconds()))
    for (const auto& [name, value] : *given)
      if (const std::string* text = value.string()) add(name, *text);
  if (_request.alwaysSendGUID || waitForReply(maySendGUID, _remainingSeconds()).value_or(false))
    if (const auto guid = HSDevice::shared().guid()) add(kGUIDHeader, *guid);
}

// The DSID of the primary account, for which machine-identity headers are asked; its token goes
// with the request where it is to, and nowhere that others can read it.
std::optional<std::uint64_t> HSStoreURLOperation::_addAccountHeaders(HSRequestHop& hop) {
  const auto service = serviceProxy().accountService();
  if (!service) return std::nullopt;
  const bool sendsToken = (_sendToken || _authenticatedDSID) && hop.url.scheme() == "https";
  const HSPendingReply<HSAccountService::Account> primary;
  const HSPendingReply<std::optional<std::string>> token;
  service->primaryAccount(primary.callback());
  if (sendsToken) service->strongTokenForAccount(nullptr, token.callback());
  const auto account = waitForReply(primary, _remainingSeconds()).value_or(nullptr);
  const std::optional<std::uint64_t> dsID = account ? account->dsID() : std::nullopt;
  if (!sendsToken || !dsID) return dsID;
  const auto text = waitForReply(token, _remainingSeconds()).value_or(std::nullopt);
  if (!hop.addHeader(kDSIDHeader, std::to_string(*dsID)) ||
      (text && !hop.addHeader(kTokenHeader, *text)))
    logLevel(1, "%@: Leaving out a token with an unfit value", HSStoreURLOperation::kClassName);
  return dsID;
}

// Hands a response's cookies, machine-identity actions and storefront to the account service. They
// travel on a way of their own: taking them in may wait for a lock that this very thread holds, and
// a later question for headers must not stand in line behind it.
void HSStoreURLOperation::_takeIn(const HTTPResponse& response) {
  if (!_intakeProxy) _intakeProxy = std::make_unique<HSServiceProxy>(storeClient());
  const HSPendingReply<std::monostate> cookies, storeFront;
  const auto doneCallback = [&](const HSPendingReply<std::monostate>& reply) {
    return _waitsForResponseIntake ? reply.doneCallback() : HSAccountService::Done();
  };
  const auto service = _intakeProxy->accountService();
  if (!service) return;
  Dictionary headers = response.headerDictionary();
  if (!_handsInOrvActions)
    for (const char* name : OrvAction::kHeaders) headers = headers.removing(name);
  service->consumeCookiesWithHTTPHeaders(headers, response.url, doneCallback(cookies));
  const std::optional<std::string> id = storeFrontSetBy(response);
  const bool setsStoreFront =
      id && (_delegate == nullptr || _delegate->operationShouldSetStoreFrontID(*this, *id));
  if (setsStoreFront) service->setStoreFrontID(*id, doneCallback(storeFront));

  if (!_waitsForResponseIntake) return;
  const double seconds = std::max(kLeastIntakeSeconds, _remainingSeconds());
  const bool isTaken =
      waitForReply(cookies, seconds) && (!setsStoreFront || waitForReply(storeFront, seconds));
  if (!isTaken && !isCancelled())
    logLevel(1, "%@: The account service has not taken in the response of %@",
             HSStoreURLOperation::kClassName, response.url);
}

// Success is set before anybody hears of the output, so that a handler may take it back.
std::optional<Error> HSStoreURLOperation::_deliverOutput() {
  Value output(_response->body);
  if (_dataProvider) {
    Result<Value> decoded = _dataProvider->outputForResponse(*_response);
    if (!decoded) return decoded.error();
    output = std::move(*decoded);
    if (auto failure = _dataProvider->actOnOutput(*this)) return failure;
  }
  setSuccess(true);
  if (output.isNil()) return std::nullopt;
  if (_outputHandler) _outputHandler(*this, output);
  if (_delegate != nullptr) _delegate->operationFinishedWithOutput(*this, output);
  return std::nullopt;
}

double HSStoreURLOperation::_remainingSeconds() const {
  return std::max(0.0, _deadline - Clock::shared().monotonicSeconds());
}

}  // namespace tallow
