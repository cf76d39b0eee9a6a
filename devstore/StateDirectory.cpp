#include "devstore/StateDirectory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "platform/Base/AtomicFile.h"

namespace tallow::devstore {

namespace {

namespace fs = std::filesystem;

constexpr const char* kErrorDomain = "DevStore";

Error systemError(const fs::path& path, int code) {
  return makeError(kErrorDomain, code, path.string() + ": " + std::strerror(code));
}

std::optional<Error> makeFolder(const fs::path& path) {
  std::error_code error;
  const bool isNew = fs::create_directories(path, error);
  if (!error && isNew) fs::permissions(path, fs::perms::owner_all, error);
  if (error) return systemError(path, error.value());
  return std::nullopt;
}

fs::path identityPath(const fs::path& directory, const std::string& name) {
  return directory / "keys" / (name + ".pem");
}

}  // namespace

Result<std::unique_ptr<StateDirectory>> StateDirectory::open(const fs::path& path) {
  for (const fs::path& folder : {path, path / "keys", path / "anchors"}) {
    if (std::optional<Error> error = makeFolder(folder)) return *error;
  }
  const fs::path lockPath = path / "lock";
  const int lock = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (lock < 0) return systemError(lockPath, errno);
  if (::flock(lock, LOCK_EX | LOCK_NB) != 0) {
    const int code = errno;
    ::close(lock);
    if (code != EWOULDBLOCK) return systemError(lockPath, code);
    return makeError(kErrorDomain, code, path.string() + ": another store is running here");
  }
  return std::unique_ptr<StateDirectory>(new StateDirectory(path, lock));
}

StateDirectory::StateDirectory(fs::path path, int lock) : _path(std::move(path)), _lock(lock) {}

StateDirectory::~StateDirectory() {
  ::close(_lock);
}

Result<std::optional<Identity>> StateDirectory::identity(const std::string& name) const {
  const fs::path path = identityPath(_path, name);
  const Result<Data> pem = readFile(path);
  if (!pem) {
    if (pem.error().code == ENOENT) return std::optional<Identity>();
    return pem.error();
  }
  std::optional<Identity> identity = Identity::fromPEM(*pem);
  if (identity) return identity;
  return makeError(kErrorDomain, EINVAL,
                   path.string() + ": is no key with its certificate; --fresh makes new ones");
}

std::optional<Error> StateDirectory::keepIdentity(const std::string& name,
                                                  const Identity& identity) const {
  return writeFileAtomically(identityPath(_path, name), identity.pemWithKey());
}

std::optional<Error> StateDirectory::writeFile(const fs::path& relativePath,
                                               const Data& fileContents) const {
  return writeFileAtomically(_path / relativePath, fileContents);
}

std::optional<Error> StateDirectory::forgetIdentities() const {
  std::error_code error;
  fs::remove_all(_path / "keys", error);
  if (error) return systemError(_path / "keys", error.value());
  return makeFolder(_path / "keys");
}

}  // namespace tallow::devstore
