#pragma once

namespace tallow {

// Preference domains and keys of the service, in one place.
inline constexpr const char* kDaemonDefaultsID = "com.vantor.tallowd";

inline constexpr const char* kDefaultsBagURLKey = "BagURL";
inline constexpr const char* kDefaultsSandboxBagURLKey = "SandboxBagURL";
inline constexpr const char* kDefaultsUseCustomBagKey = "UseCustomBag";
inline constexpr const char* kDefaultsNextClientIDPingDateKey = "NextClientIDPingDate";
inline constexpr const char* kDefaultsUseSystemCookieStoreKey = "UseSystemCookieStore";
inline constexpr const char* kDefaultsStorefrontKey = "Storefront";

}  // namespace tallow
