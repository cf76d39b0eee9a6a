#include "platform/Base/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <string>
#include <system_error>
#include <vector>

#include "platform/Base/ASCII.h"
#include "platform/Base/Clock.h"
#include "platform/Base/FileDescriptor.h"
#include "platform/Base/Random.h"

namespace tallow {

namespace {

namespace fs = std::filesystem;

constexpr mode_t kFileMode = S_IRUSR | S_IWUSR;
constexpr const char* kFileErrorDomain = "File";
constexpr int kMaxCorruptCopies = 1000;
constexpr std::string_view kTemporaryPrefix = ".tallowd-";
constexpr std::string_view kTemporarySuffix = ".tmp";

Error fileError(const fs::path& path, int code) {
  return makeError(kFileErrorDomain, code,
                   path.string() + ": " + std::generic_category().message(code));
}

FileDescriptor openParent(const fs::path& path) {
  const fs::path parent = path.has_parent_path() ? path.parent_path() : fs::path(".");
  return FileDescriptor(open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

// 0, or the errno of what failed.
int writeAll(int descriptor, std::string_view contents) {
  while (!contents.empty()) {
    const ssize_t count = write(descriptor, contents.data(), contents.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno;
    contents.remove_prefix(static_cast<std::size_t>(count));
  }
  return fsync(descriptor) == 0 ? 0 : errno;
}

std::string temporaryName() {
  std::array<std::uint8_t, 8> bytes{};
  Random::shared().fill(bytes);
  std::string name(kTemporaryPrefix);
  ascii::appendHexadecimal(name, bytes);
  return name.append(kTemporarySuffix);
}

// Replaces files in one directory. The new contents are written to a file without a name where the
// file system has such files, so that being killed leaves nothing behind; the name that rename()
// needs exists only for the moment between two system calls.
class Replacement {
 public:
  explicit Replacement(int directory) : _directory(directory), _temporary(temporaryName()) {}
  Replacement(const Replacement&) = delete;
  Replacement& operator=(const Replacement&) = delete;
  ~Replacement() {
    if (_isNamed) unlinkat(_directory, _temporary.c_str(), 0);
  }

  // Each returns 0 or an errno.
  int write(std::string_view contents) {
    const bool unnamed = openUnnamed();
    if (!unnamed && !openNamed()) return errno;
    if (const int code = writeAll(_file.get(), contents); code != 0) return code;
    return !unnamed || giveName() ? 0 : writeNamed(contents);
  }

  int moveTo(const char* name) {
    if (renameat(_directory, _temporary.c_str(), _directory, name) != 0) return errno;
    _isNamed = false;
    return fsync(_directory) == 0 ? 0 : errno;
  }

 private:
  bool openUnnamed() {
    _file = FileDescriptor(openat(_directory, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, kFileMode));
    return static_cast<bool>(_file);
  }

  bool openNamed() {
    _file = FileDescriptor(openat(_directory, _temporary.c_str(),
                                  O_CREAT | O_EXCL | O_WRONLY | O_NOFOLLOW | O_CLOEXEC, kFileMode));
    _isNamed = static_cast<bool>(_file);
    return _isNamed;
  }

  // Needs /proc; where that is missing or out of the sandbox the named way remains.
  bool giveName() {
    const std::string link = "/proc/self/fd/" + std::to_string(_file.get());
    _isNamed =
        linkat(AT_FDCWD, link.c_str(), _directory, _temporary.c_str(), AT_SYMLINK_FOLLOW) == 0;
    return _isNamed;
  }

  int writeNamed(std::string_view contents) {
    return openNamed() ? writeAll(_file.get(), contents) : errno;
  }

  int _directory;
  std::string _temporary;
  FileDescriptor _file;
  bool _isNamed = false;
};

// Moves without replacing; EEXIST when `to` exists.
int moveWithoutReplacing(const fs::path& from, const fs::path& to) {
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS) return errno;
  // A file system without that flag.
  struct stat status {};
  if (lstat(to.c_str(), &status) == 0) return EEXIST;
  return rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

}  // namespace

FileDescriptor openToRead(const fs::path& path) {
  return FileDescriptor(
      open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
}

Result<Data> readFile(const fs::path& path, std::size_t maxBytes) {
  const FileDescriptor file = openToRead(path);
  if (!file) return fileError(path, errno);
  return readFile(file, path, maxBytes);
}

Result<Data> readLinkedFile(const fs::path& path, std::size_t maxBytes) {
  std::error_code failure;
  const fs::path target = fs::canonical(path, failure);
  return readFile(failure ? path : target, maxBytes);
}

bool mayPass(const Error& error) {
  return error.domain == kFileErrorDomain && mayPass(static_cast<int>(error.code));
}

bool mayPass(int code) {
  constexpr std::array kLasting = {ENOENT, ENOTDIR, ENAMETOOLONG, ELOOP, EISDIR,
                                   EINVAL, EFBIG,   EACCES,       EPERM, ENXIO};
  return std::find(kLasting.begin(), kLasting.end(), code) == kLasting.end();
}

Result<Data> readFile(const FileDescriptor& file, const fs::path& path, std::size_t maxBytes) {
  struct stat status {};
  if (fstat(file.get(), &status) != 0) return fileError(path, errno);
  if (S_ISDIR(status.st_mode)) return fileError(path, EISDIR);
  if (!S_ISREG(status.st_mode)) return fileError(path, EINVAL);
  const auto size = static_cast<std::size_t>(status.st_size);
  if (size > maxBytes) return fileError(path, EFBIG);

  // One byte more than the size it had, to notice a file that grows meanwhile.
  std::vector<std::uint8_t> bytes(size + 1);
  std::size_t length = 0;
  while (true) {
    const ssize_t count = read(file.get(), bytes.data() + length, bytes.size() - length);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return fileError(path, errno);
    if (count == 0) break;
    length += static_cast<std::size_t>(count);
    if (length > maxBytes) return fileError(path, EFBIG);
    if (length == bytes.size()) bytes.resize(std::min(2 * length, maxBytes + 1));
  }
  bytes.resize(length);
  return Data(std::move(bytes));
}

std::optional<Error> writeFileAtomically(const fs::path& path, const Data& contents) {
  const std::string name = path.filename().string();
  if (name.empty() || name == "." || name == "..") return fileError(path, EINVAL);
  const FileDescriptor directory = openParent(path);
  if (!directory) return fileError(path, errno);
  Replacement replacement(directory.get());
  int code = replacement.write(contents.view());
  if (code == 0) code = replacement.moveTo(name.c_str());
  if (code != 0) return fileError(path, code);
  return std::nullopt;
}

void removeStaleTemporaryFiles(const fs::path& folder) {
  constexpr double kStaleSeconds = 3600;
  std::error_code error;
  for (auto file = fs::directory_iterator(folder, error);
       !error && file != fs::directory_iterator(); file.increment(error)) {
    const std::string name = file->path().filename().string();
    struct stat status {};
    if (!name.starts_with(kTemporaryPrefix) || !name.ends_with(kTemporarySuffix) ||
        lstat(file->path().c_str(), &status) != 0 || !S_ISREG(status.st_mode))
      continue;
    const Date written{static_cast<double>(status.st_mtim.tv_sec)};
    if (Clock::shared().now().secondsSince(written) > kStaleSeconds)
      static_cast<void>(unlink(file->path().c_str()));
  }
}

Result<fs::path> setAsideAsCorrupt(const fs::path& path) {
  for (int copy = 1; copy <= kMaxCorruptCopies; ++copy) {
    fs::path aside = path;
    aside += copy == 1 ? std::string(".corrupt") : ".corrupt." + std::to_string(copy);
    const int code = moveWithoutReplacing(path, aside);
    if (code == 0) return aside;
    if (code != EEXIST) return fileError(path, code);
  }
  return fileError(path, EEXIST);
}

}  // namespace tallow
