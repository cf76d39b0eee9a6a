#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tallow {

// What can be told about the process on the other end of a connection. Strings are empty where
// nothing is known, or where what is known cannot be trusted: then `doubt` says why.
struct ProcessIdentity {
  std::int64_t pid = 0;
  std::uint32_t uid = 0;
  // The label of the security module, as the bus daemon saw it when the process connected. The only
  // mark that a process cannot take on by executing another program.
  std::string securityLabel;
  // Absolute path. Only for an executable that nobody but root and this service's own user can
  // write or replace, and that is what this service sees at that path.
  std::string executable;
  std::string systemUnit;  // "x.service" of the system manager
  std::string userUnit;    // "x.service" of the user's manager
  std::string flatpak;  // application id; like a user's unit no more than a name that is taken on
  std::string doubt;
  bool isUnseen = false;  // it could not be looked at just now; the next time may be better

  // Asks the kernel about `pid`. `pidfd` refers to the process when the bus daemon has passed one,
  // else it is negative; then the number may be another process's by now, which a process of
  // another user than `uid` is sure to be. May be slow (network file systems); any thread.
  static ProcessIdentity inspect(std::int64_t pid, int pidfd,
                                 std::optional<std::uint32_t> uid = std::nullopt);
  // Why a process that runs the program at the path would not be known by it; empty when it would.
  static std::string doubtAboutExecutable(const std::string& path);
};

// "pid 4711 (/usr/bin/x)", for logs and refusals.
std::string description(const ProcessIdentity& process);

}  // namespace tallow
