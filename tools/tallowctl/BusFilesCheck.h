#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "tools/tallowctl/Findings.h"

namespace tallow::ctl {

// Looks at what lets a bus start the service: the service file, the program that it names, the unit
// that it names and, for the system bus, the policy and the user. Names as installed: tallowd(8).
class BusFilesCheck {
 public:
  // `dataRoots`: where the dbus-1 folders are looked for, /usr/share and the like.
  BusFilesCheck(bool isSystem, std::vector<std::filesystem::path> dataRoots);

  // True when a service file was found.
  bool run(Findings& findings) const;

 private:
  void _checkProgram(const std::filesystem::path& serviceFile, Findings& findings) const;
  void _checkUnit(const std::filesystem::path& serviceFile, Findings& findings) const;
  void _checkSystemBus(Findings& findings) const;
  std::filesystem::path _found(const std::filesystem::path& belowRoot) const;

  bool _isSystem;
  std::vector<std::filesystem::path> _roots;
  std::string _name;
};

}  // namespace tallow::ctl
