#pragma once

namespace tallow {

// The store's words that several of the system's parts know, in one place: keys of its answers and
// of its bag, headers, and the type of the bodies sent to it.
inline constexpr const char* kStoreFailureTypeKey = "failureType";
inline constexpr const char* kStoreCustomerMessageKey = "customerMessage";
inline constexpr const char* kStoreCreditDisplayKey = "creditDisplay";
inline constexpr const char* kStorePersonIDKey = "dsPersonId";  // else "dsid"
inline constexpr const char* kStoreDSIDKey = "dsid";

inline constexpr const char* kAuthenticateAccountBagKey = "authenticateAccount";

inline constexpr const char* kStoreFrontHeader = "X-Vantor-Store-Front";
inline constexpr const char* kGUIDHeader = "X-Vantor-GUID";
inline constexpr const char* kStoreContentType = "application/x-vantor-plist";

}  // namespace tallow
