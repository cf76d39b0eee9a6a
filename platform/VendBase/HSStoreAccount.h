#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Base/Date.h"
#include "platform/Base/Value.h"
#include "platform/Concurrency/RunLoop.h"
#include "platform/VendBase/HSAuthenticationResponse.h"

namespace tallow {

// One store account. Held by shared_ptr: an account store hands out the object itself, so that
// everybody sees the same state, and tells accounts apart by identity where it says so. Any thread
// may call; each call sees and leaves a whole state.
//
// Its record, in preferences and on the bus, is a dictionary. A value of the wrong type is read as
// absent:
//
//   "dsid"          integer, unsigned 64 bits      "storefront"    string
//   "identifier"    string                         "creditstring"  string
//   "signedin"      boolean                        "kind"          integer
//   "bagtype"       integer
//
// The token and the date it was issued are never in it.
//
// An account's DSID does not change any more once a store holds it: stores find accounts by it.
class HSStoreAccount {
 public:
  static constexpr const char* kClassName = "HSStoreAccount";  // in log lines

  // Of a token, from the moment it was issued.
  static constexpr double kStrongTokenSeconds = 900;

  HSStoreAccount() = default;
  HSStoreAccount(const HSStoreAccount&) = delete;
  HSStoreAccount& operator=(const HSStoreAccount&) = delete;

  static std::shared_ptr<HSStoreAccount> initWithPersistedStoreDictionary(const Dictionary& record);
  // The current form of a record of the layout before it, which had "Store DSID" (a number or its
  // decimal text), "Store Vantor ID" and "storefront"; nil when there is no DSID in it.
  static std::optional<Dictionary> migratePersistedStoreDictionary(const Dictionary& record);
  // A DSID from a property list: a positive integer, or the decimal text of one. Nil for anything
  // else.
  static std::optional<std::uint64_t> dsidFromPlistValue(const Value& value);

  // Nil without a DSID: nobody could find such a record again.
  std::optional<Dictionary> persistedStoreDictionary() const;

  // Takes over what the response holds; what it does not say stays, except the token: the
  // response's replaces it, also when there is none. The account counts as signed in then.
  void mergeValuesFromAuthenticationResponse(const HSAuthenticationResponse& response);

  std::optional<std::uint64_t> dsID() const;
  void setDsID(std::optional<std::uint64_t> dsID);
  // The account name.
  std::optional<std::string> identifier() const;
  bool hasIdentifier(std::string_view identifier) const;
  void setIdentifier(std::optional<std::string> identifier);
  bool isSignedIn() const;
  void setIsSignedIn(bool isSignedIn);
  std::int64_t kind() const;
  std::optional<std::string> storeFront() const;
  void setStoreFront(std::optional<std::string> storeFront);
  std::optional<std::string> creditString() const;
  void setCreditString(std::optional<std::string> creditString);

  // The strong token: stands for the password, only in memory and only for a while. Setting one
  // notes the time as the date of its issue.
  std::optional<std::string> token() const;
  void setToken(std::optional<std::string> token);
  std::optional<Date> tokenIssuedDate() const;

  // There is a token.
  bool isAuthenticated() const;
  // And it was issued less than kStrongTokenSeconds ago.
  bool hasValidStrongToken() const;

  // The timer that will expire the token.
  std::shared_ptr<RunLoop::Timer> tokenExpirationTimer() const;
  void setTokenExpirationTimer(std::shared_ptr<RunLoop::Timer> timer);
  // Invalidates the timer, which stays where it is until another replaces it; what it does if it is
  // just firing comes too late. The result is the number by which the next timer is known.
  std::uint64_t retireTokenExpirationTimer();
  // What the timer of that number does when it fires: forgets timer, token and date. False, and
  // nothing happens, when it has been retired meanwhile.
  bool expireTokenForTimer(std::uint64_t number);

 private:
  struct Fields {
    std::optional<std::uint64_t> dsID;
    std::optional<std::string> identifier, storeFront, creditString;
    bool isSignedIn = false;
    std::int64_t kind = 0;
    std::uint64_t bagType = 1;
    std::optional<std::string> token;
    std::optional<Date> tokenIssuedDate;
    std::shared_ptr<RunLoop::Timer> tokenExpirationTimer;
    std::uint64_t timerNumber = 0;
  };
  template <class T>
  T copyOf(T Fields::*field) const {
    const std::lock_guard lock(_lock);
    return _fields.*field;
  }
  template <class T>
  void set(T Fields::*field, T value) {
    const std::lock_guard lock(_lock);
    _fields.*field = std::move(value);
  }

  mutable std::mutex _lock;
  Fields _fields;  // guarded by _lock
};

// "<HSStoreAccount DSID NAME>"; never the token.
std::string description(const HSStoreAccount& account);

}  // namespace tallow
