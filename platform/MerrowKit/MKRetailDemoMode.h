#pragma once

#include <optional>
#include <string>

namespace tallow {

// How a shop's demonstration machine is set up. As it stands, the preferences tell: the keys
// kDefaultsHarlowDemo... in the service's own domain, of the user or of an administrator.
// Replaceable by whatever manages such machines. Any thread; may wait for the disk.
class MKRetailDemoMode {
 public:
  // A flag that does not answer to boolValue is false, a text that is no string nil.
  struct Settings {
    bool demoMode = false;
    std::optional<std::string> accountName, accountPassword;
    bool autoLogin = false;
  };

  virtual ~MKRetailDemoMode() = default;
  static MKRetailDemoMode& shared();

  virtual Settings settings() = 0;
};

}  // namespace tallow
