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
// An administrator's alone: the absolute path of the machine-identity library to use.
inline constexpr const char* kDefaultsMachineIdentityLibraryKey = "MachineIdentityLibrary";

// What the machine itself does not tell.
inline constexpr const char* kDefaultsMachineSerialNumberKey = "MachineSerialNumber";
inline constexpr const char* kDefaultsMachineROMAddressKey = "MachineROMAddress";

// Accounts. The first is also the name of the flat record of older versions.
inline constexpr const char* kDefaultsPrimaryAccountKey = "PrimaryAccount";
inline constexpr const char* kDefaultsKnownAccountsKey = "KnownAccounts";
inline constexpr const char* kDefaultsPrimaryAccountMigratedKey = "PrimaryAccountMigrated";

// Retail demo mode.
inline constexpr const char* kDefaultsHarlowDemoModeKey = "HarlowDemoMode";
inline constexpr const char* kDefaultsHarlowDemoAccountName = "HarlowDemoAccountName";
inline constexpr const char* kDefaultsHarlowDemoAccountPassword = "HarlowDemoAccountPassword";
inline constexpr const char* kDefaultsHarlowDemoAutoLogin = "HarlowDemoAutoLogin";

// Push.
inline constexpr const char* kDefaultsAutoPushRegisteredDeviceTokensKey =
    "AutoPushRegisteredDeviceTokens";

}  // namespace tallow
