#include "platform/VendBase/HSStoreAccount.h"

#include <charconv>
#include <utility>

#include "platform/Base/Clock.h"
#include "platform/Base/Format.h"

namespace tallow {

namespace {

constexpr const char* kDSIDKey = "dsid";
constexpr const char* kIdentifierKey = "identifier";
constexpr const char* kSignedInKey = "signedin";
constexpr const char* kKindKey = "kind";
constexpr const char* kBagTypeKey = "bagtype";
constexpr const char* kStoreFrontKey = "storefront";
constexpr const char* kCreditStringKey = "creditstring";

// The layout before the current one.
constexpr const char* kOldDSIDKey = "Store DSID";
constexpr const char* kOldIdentifierKey = "Store Vantor ID";

bool isInteger(const Value& value) {
  return value.isNumber() && value.boolean() == nullptr && !value.isReal();
}

}  // namespace

std::optional<std::uint64_t> HSStoreAccount::dsidFromPlistValue(const Value& value) {
  std::uint64_t dsID = 0;
  if (const std::string* text = value.string()) {
    const char* const end = text->data() + text->size();
    const auto [stopped, failure] = std::from_chars(text->data(), end, dsID);
    if (failure != std::errc() || stopped != end) return std::nullopt;
  } else if (isInteger(value) && (value.isLargeUnsigned() || value.signedValue() > 0)) {
    dsID = value.unsignedValue();
  }
  return dsID != 0 ? std::optional(dsID) : std::nullopt;
}

std::shared_ptr<HSStoreAccount> HSStoreAccount::initWithPersistedStoreDictionary(
    const Dictionary& record) {
  auto account = std::make_shared<HSStoreAccount>();
  Fields& fields = account->_fields;
  fields.dsID = dsidFromPlistValue(record[kDSIDKey]);
  fields.identifier = record[kIdentifierKey].stringOrNil();
  fields.storeFront = record[kStoreFrontKey].stringOrNil();
  fields.creditString = record[kCreditStringKey].stringOrNil();
  if (const Value& signedIn = record[kSignedInKey]; signedIn.isNumber())
    fields.isSignedIn = *signedIn.boolValue();
  if (const Value& kind = record[kKindKey]; isInteger(kind)) fields.kind = kind.signedValue();
  if (const Value& bagType = record[kBagTypeKey]; isInteger(bagType) && bagType.signedValue() > 0)
    fields.bagType = bagType.unsignedValue();
  return account;
}

std::optional<Dictionary> HSStoreAccount::migratePersistedStoreDictionary(
    const Dictionary& record) {
  const auto dsID = dsidFromPlistValue(record[kOldDSIDKey]);
  if (!dsID) return std::nullopt;
  Dictionary migrated =
      record.removing(kOldDSIDKey).removing(kOldIdentifierKey).setting(kDSIDKey, *dsID);
  if (const auto identifier = record[kOldIdentifierKey].stringOrNil())
    migrated = migrated.setting(kIdentifierKey, *identifier);
  return migrated;
}

std::optional<Dictionary> HSStoreAccount::persistedStoreDictionary() const {
  const std::lock_guard lock(_lock);
  if (!_fields.dsID) return std::nullopt;
  return Dictionary{{kDSIDKey, *_fields.dsID},
                    {kIdentifierKey, _fields.identifier},
                    {kSignedInKey, _fields.isSignedIn},
                    {kKindKey, _fields.kind},
                    {kBagTypeKey, _fields.bagType},
                    {kStoreFrontKey, _fields.storeFront},
                    {kCreditStringKey, _fields.creditString}};
}

void HSStoreAccount::mergeValuesFromAuthenticationResponse(
    const HSAuthenticationResponse& response) {
  const Date now = Clock::shared().now();
  const std::lock_guard lock(_lock);
  if (auto dsID = response.dsID()) _fields.dsID = dsID;
  if (auto identifier = response.identifier()) _fields.identifier = std::move(identifier);
  if (auto storeFront = response.storeFront()) _fields.storeFront = std::move(storeFront);
  if (auto creditString = response.creditString()) _fields.creditString = std::move(creditString);
  if (const auto kind = response.kind()) _fields.kind = *kind;
  _fields.token = response.token();
  _fields.tokenIssuedDate = _fields.token ? std::optional(now) : std::nullopt;
  _fields.isSignedIn = true;
}

std::optional<std::uint64_t> HSStoreAccount::dsID() const {
  return copyOf(&Fields::dsID);
}
void HSStoreAccount::setDsID(std::optional<std::uint64_t> dsID) {
  set(&Fields::dsID, dsID);
}
std::optional<std::string> HSStoreAccount::identifier() const {
  return copyOf(&Fields::identifier);
}
bool HSStoreAccount::hasIdentifier(std::string_view identifier) const {
  const std::lock_guard lock(_lock);
  return _fields.identifier == identifier;
}
void HSStoreAccount::setIdentifier(std::optional<std::string> identifier) {
  set(&Fields::identifier, std::move(identifier));
}
bool HSStoreAccount::isSignedIn() const {
  return copyOf(&Fields::isSignedIn);
}
void HSStoreAccount::setIsSignedIn(bool isSignedIn) {
  set(&Fields::isSignedIn, isSignedIn);
}
std::int64_t HSStoreAccount::kind() const {
  return copyOf(&Fields::kind);
}
std::optional<std::string> HSStoreAccount::storeFront() const {
  return copyOf(&Fields::storeFront);
}
void HSStoreAccount::setStoreFront(std::optional<std::string> storeFront) {
  set(&Fields::storeFront, std::move(storeFront));
}
std::optional<std::string> HSStoreAccount::creditString() const {
  return copyOf(&Fields::creditString);
}
void HSStoreAccount::setCreditString(std::optional<std::string> creditString) {
  set(&Fields::creditString, std::move(creditString));
}

std::optional<std::string> HSStoreAccount::token() const {
  return copyOf(&Fields::token);
}
void HSStoreAccount::setToken(std::optional<std::string> token) {
  const Date now = Clock::shared().now();
  const std::lock_guard lock(_lock);
  _fields.token = std::move(token);
  if (_fields.token) _fields.tokenIssuedDate = now;
}
std::optional<Date> HSStoreAccount::tokenIssuedDate() const {
  return copyOf(&Fields::tokenIssuedDate);
}

bool HSStoreAccount::isAuthenticated() const {
  const std::lock_guard lock(_lock);
  return _fields.token.has_value();
}

bool HSStoreAccount::hasValidStrongToken() const {
  const Date now = Clock::shared().now();
  const std::lock_guard lock(_lock);
  return _fields.token && _fields.tokenIssuedDate &&
         now.secondsSince(*_fields.tokenIssuedDate) < kStrongTokenSeconds;
}

std::shared_ptr<RunLoop::Timer> HSStoreAccount::tokenExpirationTimer() const {
  return copyOf(&Fields::tokenExpirationTimer);
}

void HSStoreAccount::setTokenExpirationTimer(std::shared_ptr<RunLoop::Timer> timer) {
  // The old one goes after the lock: what it holds may be the account itself.
  const std::lock_guard lock(_lock);
  _fields.tokenExpirationTimer.swap(timer);
}

std::uint64_t HSStoreAccount::retireTokenExpirationTimer() {
  std::shared_ptr<RunLoop::Timer> timer;
  std::uint64_t number = 0;
  {
    const std::lock_guard lock(_lock);
    number = ++_fields.timerNumber;
    timer = _fields.tokenExpirationTimer;
  }
  if (timer) timer->invalidate();
  return number;
}

bool HSStoreAccount::expireTokenForTimer(std::uint64_t number) {
  std::shared_ptr<RunLoop::Timer> fired;
  const std::lock_guard lock(_lock);
  if (_fields.timerNumber != number) return false;
  ++_fields.timerNumber;
  fired.swap(_fields.tokenExpirationTimer);
  _fields.token.reset();
  _fields.tokenIssuedDate.reset();
  return true;
}

std::string description(const HSStoreAccount& account) {
  return format("<HSStoreAccount %@ %@>", account.dsID(), account.identifier());
}

}  // namespace tallow
