#include "tools/tallowctl/BusFilesCheck.h"

#include <pwd.h>
#include <unistd.h>

#include <fstream>
#include <utility>

namespace tallow::ctl {

namespace {

namespace fs = std::filesystem;

constexpr const char* kBusArea = "bus";
constexpr const char* kReinstall = "Install the package tallowd again (or cmake --install).";

// The value of a key of the [D-BUS Service] group, empty where it is not there. The files are
// key=value lines with one group.
std::string valueIn(const fs::path& file, const std::string& key) {
  std::ifstream stream(file);
  for (std::string line; std::getline(stream, line);)
    if (line.starts_with(key + "=")) return line.substr(key.size() + 1);
  return "";
}

// The program of an Exec line; the first word, which may be quoted.
std::string programIn(const std::string& command) {
  if (command.starts_with('"')) return command.substr(1, command.find('"', 1) - 1);
  return command.substr(0, command.find(' '));
}

}  // namespace

BusFilesCheck::BusFilesCheck(bool isSystem, std::vector<fs::path> dataRoots)
    : _isSystem(isSystem),
      _roots(std::move(dataRoots)),
      _name(isSystem ? "com.vantor.tallowd.daemon" : "com.vantor.tallowd") {}

fs::path BusFilesCheck::_found(const fs::path& belowRoot) const {
  std::error_code ignored;
  for (const fs::path& root : _roots)
    if (fs::exists(root / belowRoot, ignored)) return root / belowRoot;
  return {};
}

bool BusFilesCheck::run(Findings& findings) const {
  const fs::path file = _found(fs::path("dbus-1") / (_isSystem ? "system-services" : "services") /
                               (_name + ".service"));
  if (file.empty()) return false;
  if (const std::string name = valueIn(file, "Name"); name != _name)
    findings.problem(kBusArea, file.native() + " is for the name \"" + name + "\"", kReinstall);
  else
    findings.fine(kBusArea, _name + " is started on demand: " + file.native());
  _checkProgram(file, findings);
  _checkUnit(file, findings);
  if (_isSystem) _checkSystemBus(findings);
  return true;
}

void BusFilesCheck::_checkProgram(const fs::path& serviceFile, Findings& findings) const {
  const std::string program = programIn(valueIn(serviceFile, "Exec"));
  if (program.empty() || access(program.c_str(), X_OK) != 0)
    findings.problem(kBusArea,
                     serviceFile.native() + " starts \"" + program + "\", which is no program",
                     kReinstall);
  else
    findings.fine(kBusArea, "the service is " + program);
}

void BusFilesCheck::_checkUnit(const fs::path& serviceFile, Findings& findings) const {
  const std::string unit = valueIn(serviceFile, "SystemdService");
  if (unit.empty()) return;  // the bus starts the program itself
  const fs::path below = fs::path("systemd") / (_isSystem ? "system" : "user") / unit;
  std::vector<fs::path> places{fs::path("/etc") / below};
  // share/ and lib/ are neighbours below every prefix.
  for (const fs::path& root : _roots) places.push_back(root.parent_path() / "lib" / below);
  std::error_code ignored;
  for (const fs::path& place : places)
    if (fs::exists(place, ignored)) {
      findings.fine(kBusArea, "the unit is " + place.native());
      return;
    }
  // Without the service manager the bus does not look for the unit.
  const std::string what = serviceFile.native() + " names the unit " + unit + ", which is nowhere";
  if (fs::exists("/run/systemd/system", ignored))
    findings.problem(kBusArea, what, kReinstall);
  else
    findings.note(kBusArea, what, kReinstall);
}

void BusFilesCheck::_checkSystemBus(Findings& findings) const {
  std::error_code ignored;
  const std::string policy = _name + ".conf";
  if (_found(fs::path("dbus-1/system.d") / policy).empty() &&
      !fs::exists(fs::path("/etc/dbus-1/system.d") / policy, ignored))
    findings.problem(kBusArea, "the system bus has no policy " + policy, kReinstall);
  if (getpwnam("tallowd") == nullptr)
    findings.problem(kBusArea, "there is no user tallowd for the service to run as",
                     "Run systemd-sysusers.");
}

}  // namespace tallow::ctl
