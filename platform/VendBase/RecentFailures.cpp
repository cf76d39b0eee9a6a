#include "platform/VendBase/RecentFailures.h"

#include <algorithm>

#include "platform/Base/Activity.h"
#include "platform/Base/Clock.h"
#include "platform/Base/SharedInstance.h"
#include "platform/Base/UTF8.h"
#include "platform/HTTP/HTTPTransport.h"
#include "platform/VendBase/HSError.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {

namespace {

constexpr double kSecondsBetweenLines = 60;

// How the cryptographic library says that a certificate's dates do not fit the clock's; nothing but
// its text travels in an error.
bool isAboutDates(const Error& error) {
  const std::string text = error.localizedDescription();
  return text.find("certificate has expired") != std::string::npos ||
         text.find("certificate is not yet valid") != std::string::npos;
}

FailureKind kindOfStatus(std::int64_t status) {
  switch (status) {
    case 401:
    case 403:
    case 407:
    case 423:
    case 429:
      return FailureKind::LockedOut;
    case 408:
    case 502:
    case 503:
    case 504:
      return FailureKind::Offline;
    default:
      return FailureKind::Other;
  }
}

FailureKind kindOfTransport(const Error& error) {
  switch (error.code) {
    case HTTPTransport::kCannotConnect:
    case HTTPTransport::kTimedOut:
    case HTTPTransport::kConnectionLost:
      return FailureKind::Offline;
    case HTTPTransport::kTLS:
      return isAboutDates(error) ? FailureKind::Expired : FailureKind::Refused;
    default:
      return FailureKind::Other;
  }
}

FailureKind kindOfStoreError(const Error& error) {
  switch (error.code) {
    case kHSErrorServiceUnavailable:
      return FailureKind::Offline;
    case kHSErrorHTTPStatus:
      return kindOfStatus(error.userInfo[kHSErrorStatusKey].intValue().value_or(0));
    case kHSErrorNotSignedIn:
      return FailureKind::Expired;
    case kHSErrorBagNotSigned:
      return isAboutDates(error) ? FailureKind::Expired : FailureKind::Refused;
    case kHSErrorNotTrusted:
    case kHSErrorInsecureRedirect:
    case kHSErrorSignInRefused:
      return FailureKind::Refused;
    default:
      return FailureKind::Other;
  }
}

// Peers and servers word errors at any length, with any number of entries, and many are kept.
constexpr std::size_t kMostTextBytes = 1024;
constexpr std::size_t kMostEntries = 16;

Error shortened(const Error& error) {
  const auto cut = [](std::string_view text) {
    return std::string(prefixOnCharacterBoundary(text, kMostTextBytes));
  };
  std::vector<Dictionary::Entry> kept;
  const auto keep = [&](std::string_view key, const Value& value) {
    if (const std::string* const text = value.string()) {
      kept.push_back({cut(key), cut(*text)});
    } else if (value.isNumber()) {
      kept.push_back({cut(key), value});
    }
  };
  // What people and failureKindOf() look at is kept in any case.
  for (const char* const key : {Error::kLocalizedDescriptionKey, kHSErrorStatusKey})
    keep(key, error.userInfo[key]);
  for (const auto& [key, value] : error.userInfo) {
    if (kept.size() == kMostEntries) break;
    keep(key, value);
  }
  return {cut(error.domain), error.code, Dictionary(std::move(kept))};
}

}  // namespace

FailureKind failureKindOf(const Error& error) {
  if (error.domain == HTTPTransport::kErrorDomain) return kindOfTransport(error);
  if (error.domain == kHSErrorDomain) return kindOfStoreError(error);
  if (error.domain == "org.freedesktop.DBus.Error.AccessDenied") return FailureKind::LockedOut;
  return FailureKind::Other;
}

const char* nameOf(FailureKind kind) {
  constexpr const char* kNames[] = {"offline", "locked out", "expired", "refused", "failed"};
  return kNames[static_cast<int>(kind)];
}

const char* adviceFor(FailureKind kind) {
  switch (kind) {
    case FailureKind::Offline:
      return "The store, or a service beside this one, cannot be reached: look at the network and "
             "the proxy. A kept bag serves until its date; nothing is lost.";
    case FailureKind::LockedOut:
      return "Somebody is not let in. A program: describe it, tallowd-clients.d(5). An account or "
             "this machine: the store has to unlock it; trying again soon makes it worse.";
    case FailureKind::Expired:
      return "Somebody has to sign in again (tallowctl --client CLIENT sign-in); where a "
             "certificate is meant, look at the machine's clock and renew the anchor or the "
             "store's "
             "certificate.";
    case FailureKind::Refused:
      return "What came is not to be trusted: install the store's anchor or authority, or look at "
             "who answers in its place. For a sign-in: name or password is wrong.";
    case FailureKind::Other:
      break;
  }
  return "The log says more: journalctl TALLOW_LEVEL=1.";
}

RecentFailures& RecentFailures::shared() {
  return SharedInstance<RecentFailures>::get([] { return std::make_unique<RecentFailures>(); });
}

void RecentFailures::note(const Error& error, const std::string& client) {
  if (error.domain == kHSErrorDomain && error.code == kHSErrorCancelled) return;
  const auto activity = Activity::current();
  Failure failure{Clock::shared().now(),
                  1,
                  activity ? activity->client : client,
                  activity ? activity->operation : "",
                  shortened(error),
                  Clock::shared().monotonicSeconds()};
  if (_add(failure))
    logLevel(2, "%@: %s: %@ %@ %@", RecentFailures::kClassName, nameOf(failureKindOf(error)), error,
             failure.client, failure.operation);
}

bool RecentFailures::_add(Failure failure) {
  bool isToBeLogged = true;
  const std::string text = failure.error.localizedDescription();
  const std::lock_guard guard(_lock);
  const auto same = std::find_if(_failures.begin(), _failures.end(), [&](const Failure& other) {
    return other.client == failure.client && other.operation == failure.operation &&
           other.error.domain == failure.error.domain && other.error.code == failure.error.code &&
           other.error.localizedDescription() == text;
  });
  if (same != _failures.end()) {
    isToBeLogged = failure.loggedAt - same->loggedAt >= kSecondsBetweenLines;
    if (!isToBeLogged) failure.loggedAt = same->loggedAt;
    failure.times = same->times + 1;
    _failures.erase(same);
  }
  _failures.push_front(std::move(failure));
  if (_failures.size() > kMost) _failures.pop_back();
  return isToBeLogged;
}

std::vector<RecentFailures::Failure> RecentFailures::list() const {
  const std::lock_guard guard(_lock);
  return {_failures.begin(), _failures.end()};
}

}  // namespace tallow
