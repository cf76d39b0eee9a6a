#include "platform/XPC/ProcessIdentity.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <systemd/sd-login.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Base/AtomicFile.h"
#include "platform/Base/FileDescriptor.h"

namespace tallow {

namespace {

constexpr std::string_view kDeletedSuffix = " (deleted)";

bool hasEnded(int pidfd) {
  pollfd file{pidfd, POLLIN, 0};
  return poll(&file, 1, 0) > 0;
}

// Whether the group is the one of another user of this machine, who is no "member" then.
bool isGroupOfOthers(gid_t group) {
  const std::unique_ptr<FILE, decltype(&std::fclose)> users(std::fopen("/etc/passwd", "re"),
                                                            &std::fclose);
  if (!users) return true;
  passwd entry{};
  passwd* user = nullptr;
  std::vector<char> texts(64u << 10);
  int code = 0;
  while ((code = fgetpwent_r(users.get(), &entry, texts.data(), texts.size(), &user)) == 0)
    if (user->pw_gid == group && user->pw_uid != geteuid()) return true;
  return code != ENOENT;
}

// A user's private group, as distributions make it, has the user's number and no other member.
bool isPrivateGroup(gid_t group) {
  if (group != getegid() || group != geteuid()) return false;
  std::vector<char> texts(4096);
  struct group entry {};
  struct group* found = nullptr;
  while (getgrgid_r(group, &entry, texts.data(), texts.size(), &found) == ERANGE)
    texts.resize(2 * texts.size());
  return found != nullptr && found->gr_mem[0] == nullptr && !isGroupOfOthers(group);
}

// Whether somebody beside root and this service's user can write.
bool isWritableByOthers(const struct stat& status) {
  if (status.st_uid != 0 && status.st_uid != geteuid()) return true;
  if ((status.st_mode & S_IWOTH) != 0) return true;
  return (status.st_mode & S_IWGRP) != 0 && status.st_gid != 0 && !isPrivateGroup(status.st_gid);
}

// Why the file at `path`, which is `running`, may not be what its path says; empty when it is.
std::string doubtAbout(const std::string& path, const struct stat& running, bool isDeleted) {
  if (isWritableByOthers(running)) return "its executable is writable by others";
  if (isDeleted) {
    // Replaced by an update while it runs. In a mount namespace of their own others can make a file
    // disappear from any path; but not one that belongs to root.
    return running.st_uid == 0 ? "" : "its executable has been replaced";
  }
  struct stat visible {};
  if (stat(path.c_str(), &visible) != 0 || visible.st_dev != running.st_dev ||
      visible.st_ino != running.st_ino)
    return "its executable is not what this service sees at that path";
  for (std::filesystem::path folder = std::filesystem::path(path).parent_path();;
       folder = folder.parent_path()) {
    struct stat status {};
    if (stat(folder.c_str(), &status) != 0) return "a folder above its executable cannot be read";
    const bool isSticky = (status.st_mode & S_ISVTX) != 0 && status.st_uid == 0;
    if (!isSticky && isWritableByOthers(status))
      return "a folder above its executable is writable by others";
    if (folder == folder.root_path()) return "";
  }
}

void findExecutable(ProcessIdentity& process) {
  const std::string link = "/proc/" + std::to_string(process.pid) + "/exe";
  const FileDescriptor file(open(link.c_str(), O_PATH | O_CLOEXEC));
  char text[PATH_MAX];
  const ssize_t length = readlink(link.c_str(), text, sizeof(text));
  struct stat running {};
  if (file.get() < 0 || length <= 0 || length == ssize_t{sizeof(text)} ||
      fstat(file.get(), &running) != 0) {
    process.doubt = "its executable cannot be read";
    return;
  }
  std::string path(text, static_cast<std::size_t>(length));
  const bool isDeleted = running.st_nlink == 0 && path.ends_with(kDeletedSuffix);
  if (isDeleted) path.resize(path.size() - kDeletedSuffix.size());
  process.doubt = doubtAbout(path, running, isDeleted);
  if (process.doubt.empty()) {
    process.executable = std::move(path);
  } else {
    process.doubt = path + ": " + process.doubt;
  }
}

using Query = int (*)(pid_t, char**);

std::string unitOf(std::int64_t pid, Query query) {
  char* unit = nullptr;
  if (query(static_cast<pid_t>(pid), &unit) < 0) return {};
  const std::unique_ptr<char, decltype(&std::free)> owned(unit, std::free);
  return unit;
}

// "name" of the group [Application] in the file that Flatpak puts into every sandbox.
std::string flatpakOf(std::int64_t pid) {
  const auto info = readFile("/proc/" + std::to_string(pid) + "/root/.flatpak-info", 64u << 10);
  if (!info) return {};
  bool isInGroup = false;
  for (std::string_view rest = info->view(); !rest.empty();) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(rest.size(), line.size() + 1));
    if (line.starts_with('[')) isInGroup = line == "[Application]";
    if (isInGroup && line.starts_with("name=")) return std::string(line.substr(5));
  }
  return {};
}

// Whether the process has the user's number as its real, effective or saved one; nothing where that
// cannot be read.
std::optional<bool> hasUser(std::int64_t pid, std::uint32_t uid) {
  const auto status = readFile("/proc/" + std::to_string(pid) + "/status", 64u << 10);
  if (!status) return std::nullopt;
  const std::string_view text = status->view();
  const std::size_t line = text.find("\nUid:");
  if (line == std::string_view::npos) return false;
  unsigned real = 0, effective = 0, saved = 0;
  const std::string numbers(text.substr(line + 5, text.find('\n', line + 1) - line - 5));
  return std::sscanf(numbers.c_str(), "%u %u %u", &real, &effective, &saved) == 3 &&
         (uid == real || uid == effective || uid == saved);
}

}  // namespace

ProcessIdentity ProcessIdentity::inspect(std::int64_t pid, int pidfd,
                                         std::optional<std::uint32_t> uid) {
  ProcessIdentity process;
  process.pid = pid;
  const FileDescriptor opened(pidfd >= 0 ? -1 : static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  const int watched = pidfd >= 0 ? pidfd : opened.get();
  findExecutable(process);
  process.systemUnit = unitOf(pid, sd_pid_get_unit);
  process.userUnit = unitOf(pid, sd_pid_get_user_unit);
  process.flatpak = flatpakOf(pid);
  // The number may belong to another process by now; then nothing of this is about the caller.
  const std::optional<bool> isUsers = uid ? hasUser(pid, *uid) : true;
  const bool isOver = watched < 0 || hasEnded(watched);
  if (isOver || isUsers != true) {
    process = {};
    process.pid = pid;
    process.isUnseen = !isOver && !isUsers;
    process.doubt = isOver                ? "the process has ended"
                    : isUsers.has_value() ? "the process is of another user"
                                          : "the process cannot be looked at";
  }
  return process;
}

std::string ProcessIdentity::doubtAboutExecutable(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return "there is no such program";
  if (!S_ISREG(status.st_mode) || access(path.c_str(), X_OK) != 0) return "it is no program";
  return doubtAbout(path, status, /*isDeleted=*/false);
}

std::string description(const ProcessIdentity& process) {
  const std::string& what = process.executable.empty() ? process.doubt : process.executable;
  return "pid " + std::to_string(process.pid) + " (" + what + ")";
}

}  // namespace tallow
