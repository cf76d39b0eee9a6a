#include "tools/tallowctl/InstallationChecks.h"

#include <pwd.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/Base/AtomicFile.h"
#include "platform/Base/Clock.h"
#include "platform/Base/Directories.h"
#include "platform/Base/Format.h"
#include "platform/Certificates/AnchorStore.h"
#include "platform/Sandbox/LandlockRuleset.h"
#include "platform/Sandbox/SandboxProfile.h"
#include "platform/VendBase/ClientDescriptor.h"
#include "platform/VendBase/ClientDescriptors.h"

namespace tallow::ctl {

namespace {

namespace fs = std::filesystem;

constexpr const char* kClients = "clients";
constexpr const char* kFolders = "folders";
constexpr const char* kAnchors = "anchors";
constexpr const char* kSandbox = "sandbox";
constexpr const char* kClock = "clock";
constexpr double kDay = 86400;
constexpr const char* kDescribe = "tallowd-clients.d(5) says how a client is described.";

std::vector<ProcessIdentity> runningProcesses() {
  std::vector<ProcessIdentity> processes;
  std::error_code error;
  for (fs::directory_iterator entry("/proc", error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    processes.push_back(ProcessIdentity::inspect(std::stol(name), -1));
  }
  return processes;
}

// What of a pattern can be judged without a process.
void checkPattern(const ClientDescriptor& descriptor, const ClientDescriptor::Pattern& pattern,
                  Findings& findings) {
  if (pattern.executable.empty()) return;
  const std::string doubt = ProcessIdentity::doubtAboutExecutable(pattern.executable);
  if (doubt.empty()) return;
  const std::string what = descriptor.fileName + ": " + pattern.executable + ": " + doubt;
  std::error_code ignored;
  if (fs::exists(pattern.executable, ignored))
    findings.problem(kClients, what, "Nobody but root and the service's user may write there.");
  else
    findings.note(kClients, what, "Install the program, or mend the path.");
}

void checkClient(const ClientDescriptor& descriptor, const std::vector<ProcessIdentity>& processes,
                 Findings& findings) {
  for (const auto& pattern : descriptor.processes) checkPattern(descriptor, pattern, findings);
  std::string matches;
  for (const ProcessIdentity& process : processes)
    if (descriptor.matches(process))
      matches += (matches.empty() ? "" : ", ") + description(process);
  const std::string who = descriptor.client && descriptor.client->identifier
                              ? *descriptor.client->identifier
                              : "no store client";
  findings.fine(kClients, descriptor.fileName + ": " + who + "; " +
                              (matches.empty() ? "no process runs" : "matches " + matches));
}

std::string nameOfUser(unsigned uid) {
  const passwd* const entry = getpwuid(uid);
  return entry != nullptr ? entry->pw_name : std::to_string(uid);
}

// What is in a folder of secrets is nobody else's.
void checkContents(const fs::path& folder, Findings& findings) {
  const auto checkModeOf = [&findings](const fs::path& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0 || S_ISLNK(status.st_mode)) return;
    if ((status.st_mode & 077) != 0)
      findings.problem(
          kFolders, path.native() + " can be used by others",
          format("chmod %s %@", S_ISDIR(status.st_mode) ? "700" : "600", path.native()));
  };
  checkModeOf(folder);
  std::error_code error;
  constexpr auto kPassOver = fs::directory_options::skip_permission_denied;
  for (fs::recursive_directory_iterator entry(folder, kPassOver, error), end;
       !error && entry != end; entry.increment(error)) {
    checkModeOf(entry->path());
    if (entry->path().native().find(".corrupt") != std::string::npos)
      findings.note(kFolders, entry->path().native() + " was damaged and set aside",
                    "Look at the disk; remove the file when nobody needs it.");
  }
}

void checkFolder(const char* what, const fs::path& folder, unsigned owner, Findings& findings) {
  struct stat status {};
  if (stat(folder.c_str(), &status) != 0) {
    if (errno == ENOENT)
      findings.fine(kFolders, format("%s: %@, not made yet", what, folder.native()));
    else
      findings.note(kFolders, format("%s: %@: %s", what, folder.native(), std::strerror(errno)),
                    "Run tallowctl doctor as root, or as the service's user.");
    return;
  }
  if (!S_ISDIR(status.st_mode)) {
    findings.problem(kFolders, folder.native() + " is no folder", "Move it away.");
    return;
  }
  if (status.st_uid != owner) {
    findings.problem(kFolders, folder.native() + " belongs to " + nameOfUser(status.st_uid),
                     "chown -R " + nameOfUser(owner) + " " + folder.native());
  } else if ((status.st_mode & 022) != 0) {
    findings.problem(kFolders, folder.native() + " can be written by others",
                     "chmod 700 " + folder.native());
  } else {
    findings.fine(kFolders, format("%s: %@", what, folder.native()));
  }
}

void checkAnchor(const AnchorStore::Certificate& anchor, Findings& findings) {
  const Date now = Clock::shared().now();
  const std::string name = anchor.file.native() + ": " + anchor.subject;
  if (!anchor.problem.empty())
    findings.problem(kAnchors, anchor.file.native() + ": " + anchor.problem,
                     "Put a PEM certificate there, or remove the file.");
  else if (anchor.notAfter < now)
    findings.problem(kAnchors, format("%@ has expired on %@", name, anchor.notAfter),
                     "Install the store's new anchor, or set the machine's clock.");
  else if (now < anchor.notBefore)
    findings.problem(kAnchors, format("%@ is not valid before %@", name, anchor.notBefore),
                     "Set the machine's clock.");
  else if (anchor.notAfter.secondsSince(now) < 30 * kDay)
    findings.note(kAnchors, format("%@ expires on %@", name, anchor.notAfter),
                  "Install the store's new anchor beside it in time.");
  else
    findings.fine(kAnchors, format("%@, until %@", name, anchor.notAfter));
}

std::optional<Date> modificationDate(const fs::path& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return std::nullopt;
  return Date{static_cast<double>(status.st_mtim.tv_sec)};
}

}  // namespace

void checkClients(Findings& findings) {
  const std::vector<ProcessIdentity> processes = runningProcesses();
  bool isAny = false;
  for (const auto& [file, descriptor] : ClientDescriptors::installed()) {
    if (!descriptor) {
      findings.note(kClients, file.native() + " is empty: it masks a client of that file name",
                    "Remove it to have the client back.");
    } else if (!*descriptor) {
      const Error& error = descriptor->error();
      findings.problem(
          kClients, error.localizedDescription(),
          error.domain == "File" ? "The service's user must be able to read it." : kDescribe);
    } else {
      isAny = true;
      checkClient(**descriptor, processes, findings);
    }
  }
  if (!isAny)
    findings.problem(kClients, "no client is described, so every call is refused", kDescribe);
}

void checkFolders(Findings& findings, unsigned owner) {
  const Directories& folders = Directories::shared();
  checkFolder("preferences", folders.configHome, owner, findings);
  checkFolder("data", folders.dataHome, owner, findings);
  checkFolder("cache", folders.cacheHome, owner, findings);
  checkFolder("state", folders.stateHome, owner, findings);
  // Whatever a session, a token or the machine's identity could be taken from.
  checkContents(folders.dataHome / "Cookies", findings);
  checkContents(folders.stateHome / "orv", findings);
}

void checkAnchors(Findings& findings) {
  const auto anchors = AnchorStore::installed();
  for (const AnchorStore::Certificate& anchor : anchors) checkAnchor(anchor, findings);
  if (anchors.empty())
    findings.note(kAnchors, "no trust anchor is installed: signed bags are refused",
                  "Put the store's anchor into tallowd/anchors/NAME.pem below /etc/xdg.");
}

void checkSandbox(Findings& findings) {
  const auto profile = SandboxProfile::named("com.vantor.tallowd");
  if (!profile)
    findings.problem(kSandbox, profile.error().localizedDescription(),
                     "The service does not start with it: mend or remove the file.");
  else
    findings.fine(kSandbox, profile->isBuiltIn ? "the profile is the built-in one"
                                               : "the profile is the administrator's");
  const auto version = LandlockRuleset::kernelVersion();
  if (version)
    findings.fine(kSandbox, format("the kernel confines files (Landlock %d)", *version));
  else
    findings.note(kSandbox, "this kernel does not confine files: it has no Landlock",
                  "Use a kernel with it, and landlock among lsm= of its command line.");
}

void checkClock(Findings& findings) {
  const Date now = Clock::shared().now();
  std::error_code ignored;
  std::vector<fs::path> witnesses{fs::read_symlink("/proc/self/exe", ignored)};
  const Directories& folders = Directories::shared();
  constexpr auto kPassOver = fs::directory_options::skip_permission_denied;
  for (const fs::path& folder : {folders.cacheHome, folders.dataHome, folders.stateHome}) {
    std::error_code error;
    for (fs::recursive_directory_iterator entry(folder, kPassOver, error), end;
         !error && entry != end; entry.increment(error))
      witnesses.push_back(entry->path());
  }
  for (const fs::path& witness : witnesses) {
    const auto date = modificationDate(witness);
    if (!date || date->secondsSince(now) <= kDay) continue;
    findings.problem(kClock, format("it is %@, but %@ is of %@", now, witness.native(), *date),
                     "Set the machine's clock: certificates, bags and cookies are judged by it.");
    return;
  }
  findings.fine(kClock, format("it is %@", now));
}

}  // namespace tallow::ctl
