#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/Base/Error.h"

namespace tallow {

inline constexpr const char* kHSErrorDomain = "HSErrorDomain";
// User-info keys of a store error's two texts, beside the localized description (which is the
// message, or the title when there is no message).
inline constexpr const char* kHSErrorTitleKey = "title";
inline constexpr const char* kHSErrorMessageKey = "message";
// User-info key of the number that the server answered with (kHSErrorHTTPStatus).
inline constexpr const char* kHSErrorStatusKey = "status";

// Codes of the store library's error domain that the system itself makes. Codes that a server names
// ("failureType", "status") travel in the same domain.
enum HSErrorCode : std::int64_t {
  kHSErrorInvalidPropertyList = 2,  // bytes that should be a property list are not
  kHSErrorNoBagEntry = 3,           // the bag has no such key, or no URL under it
  kHSErrorNotSignedIn = 5,
  kHSErrorBagNotSigned = 14,  // a signed bag that is missing or does not verify
  kHSErrorInvalidResponse = 32,
  kHSErrorNotTrusted = 101,  // the bag does not trust the URL
  kHSErrorTooManyRedirects = 102,
  kHSErrorInsecureRedirect = 103,  // from https to http
  kHSErrorHTTPStatus = 104,        // the server answered with a failure status
  kHSErrorCancelled = 105,
  kHSErrorServiceUnavailable = 106,  // a peer service is not there or went away
  kHSErrorSignInRefused = 107,       // the store does not accept a name and password
};

// A store error. Title and message are what a person may be shown; either may be absent.
Error HSError(std::int64_t code, std::optional<std::string> title,
              std::optional<std::string> message);

}  // namespace tallow
