#include "platform/Orv/MachineSecretStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/Base/AtomicFile.h"
#include "platform/Base/Clock.h"
#include "platform/Base/FileDescriptor.h"
#include "platform/Base/Format.h"
#include "platform/Orv/ByteLayout.h"
#include "platform/Orv/OrvStatus.h"
#include "platform/Orv/PrivateFolder.h"

namespace tallow {

namespace {

constexpr std::string_view kMagic = "tallow-identity";
constexpr std::uint8_t kVersion = 1;
constexpr std::size_t kHeaderBytes = kMagic.size() + 1;
constexpr std::size_t kFileBytes = kHeaderBytes + MachineSecret::kBytes + OrvCrypto::kSealingBytes;
constexpr std::size_t kLargestFile = 64u << 10;
constexpr std::string_view kExtension = ".identity";
constexpr std::size_t kMostKept = 4096;
constexpr double kLookAgainSeconds = 1;

// What is authenticated beside the secret: which file it is, and whose.
using Alongside = std::array<std::uint8_t, kHeaderBytes + 8>;
Alongside alongside(std::uint64_t dsID) {
  Alongside bytes;
  ByteWriter(bytes)
      .bytes({reinterpret_cast<const std::uint8_t*>(kMagic.data()), kMagic.size()})
      .number(kVersion)
      .number(dsID);
  return bytes;
}

bool hasHeader(const Data& contents) {
  return contents.length() >= kHeaderBytes && contents.view().starts_with(kMagic);
}

std::uint8_t versionOf(const Data& contents) {
  return contents.bytes()[kMagic.size()];
}

std::string nameOf(std::uint64_t dsID) {
  return std::to_string(dsID).append(kExtension);
}

// The DSID whose file has that name.
std::optional<std::uint64_t> dsIDOf(std::string_view name) {
  if (!name.ends_with(kExtension)) return std::nullopt;
  name.remove_suffix(kExtension.size());
  std::uint64_t dsID = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), dsID);
  const bool isWhole = error == std::errc() && end == name.data() + name.size();
  return isWhole && name == std::to_string(dsID) ? std::optional(dsID) : std::nullopt;
}

}  // namespace

MachineSecretStore::MachineSecretStore(std::filesystem::path folder,
                                       const OrvCrypto::Key& machineKey, Log log)
    : _folder(std::move(folder)),
      _machineKey(machineKey),
      _log(std::move(log)),
      _owner(::geteuid()) {
  removeStaleTemporaryFiles(_folder);
}

std::string MachineSecretStore::pathOf(std::uint64_t dsID) const {
  return _folder.native() + "/" + nameOf(dsID);
}

bool MachineSecretStore::isInMemory(std::uint64_t dsID) const {
  const auto kept = _sealed.find(dsID);
  return kept != _sealed.end() &&
         Clock::shared().monotonicSeconds() - kept->second.lookedAt < kLookAgainSeconds;
}

void MachineSecretStore::complain(std::uint64_t dsID, const std::string& line) {
  if (_complained.size() >= kMostKept) _complained.clear();
  if (_complained.insert(dsID).second) _log(1, line);
}

// The file as it is, from memory if it is still the one that was read.
std::int32_t MachineSecretStore::read(std::uint64_t dsID, Data& contents) {
  const double now = Clock::shared().monotonicSeconds();
  const auto kept = _sealed.find(dsID);
  if (isInMemory(dsID)) {
    contents = kept->second.contents;
    return kOrvSuccess;
  }
  // Looked at and read through one descriptor: what is judged is what is read.
  const std::string path = pathOf(dsID);
  const FileDescriptor file = openToRead(path);
  struct stat status {};
  const bool isLink = !file && errno == ELOOP;
  if (!isLink && (!file || ::fstat(file.get(), &status) != 0)) {
    const int code = errno;
    _sealed.erase(dsID);
    if (code == ENOENT || code == ENOTDIR) return kOrvNotProvisioned;
    _log(1, format("Cannot look at %s: %s", path, std::strerror(code)));
    return kOrvNotStored;
  }
  if (isLink || !S_ISREG(status.st_mode) || status.st_uid != _owner ||
      (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    _sealed.erase(dsID);
    complain(dsID, format("Not using %s: others could have read or written it. The next "
                          "provisioning replaces it",
                          path));
    return kOrvNotProvisioned;
  }
  const FileStamp stamp = FileStamp::of(status);
  if (kept != _sealed.end() && kept->second.stamp == stamp) {
    kept->second.lookedAt = now;
    contents = kept->second.contents;
    return kOrvSuccess;
  }
  Result<Data> whole = readFile(file, path, kLargestFile);
  if (!whole && whole.error().code != EFBIG) {
    _log(1, format("Cannot read %@", whole.error()));
    return kOrvNotStored;
  }
  contents = whole ? *whole : Data();
  if (_sealed.size() >= kMostKept) _sealed.clear();
  _sealed.insert_or_assign(dsID, Sealed{stamp, contents, now});
  return kOrvSuccess;
}

std::int32_t MachineSecretStore::load(std::uint64_t dsID, MachineSecret& secret) {
  Data contents;
  if (const std::int32_t status = read(dsID, contents); status != kOrvSuccess) return status;
  if (hasHeader(contents) && versionOf(contents) > kVersion) {
    complain(dsID, format("%s was written by a newer program, and is left alone. Where there is "
                          "none, remove it, and the store provisions this machine again",
                          pathOf(dsID)));
    return kOrvNewerFormat;
  }
  if (!hasHeader(contents) || versionOf(contents) != kVersion || contents.length() != kFileBytes) {
    setAside(dsID, "it is damaged");
    return kOrvNotProvisioned;
  }
  const std::optional<SecretVector> plain =
      OrvCrypto::open(_machineKey, alongside(dsID), contents.span().subspan(kHeaderBytes));
  const std::optional<MachineSecret> decoded = plain ? MachineSecret::decode(*plain) : std::nullopt;
  if (!decoded) {
    setAside(dsID, "it is damaged, or belongs to another machine");
    return kOrvNotProvisioned;
  }
  secret = *decoded;
  return kOrvSuccess;
}

std::int32_t MachineSecretStore::save(std::uint64_t dsID, const MachineSecret& secret) {
  const SecretBytes<MachineSecret::kBytes> plain = secret.encode();
  const Alongside header = alongside(dsID);
  const Data sealed = OrvCrypto::seal(_machineKey, header, plain.span());
  std::vector<std::uint8_t> contents(kFileBytes);
  ByteWriter(contents).bytes(std::span(header).first(kHeaderBytes)).bytes(sealed.span());

  if (isFromTheFuture(dsID)) return kOrvNewerFormat;
  _complained.erase(dsID);
  if (!ensurePrivateFolder(_folder)) {
    _log(1, format("Cannot make the folder %s, or others may write to it", _folder.native()));
    return kOrvNotStored;
  }
  if (const auto error = writeFileAtomically(pathOf(dsID), Data(std::move(contents)))) {
    _log(1, format("Cannot write %@", *error));
    return kOrvNotStored;
  }
  _sealed.erase(dsID);
  return kOrvSuccess;
}

std::int32_t MachineSecretStore::remove(std::uint64_t dsID) {
  if (isFromTheFuture(dsID)) return kOrvNewerFormat;
  _sealed.erase(dsID);
  _complained.erase(dsID);
  const std::string path = pathOf(dsID);
  if (::unlink(path.c_str()) != 0) {
    const int code = errno;
    if (code == ENOENT || code == ENOTDIR) return kOrvSuccess;
    _log(1, format("Cannot remove %s: %s", path, std::strerror(code)));
    return kOrvNotStored;
  }
  const FileDescriptor folder(::open(_folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder || ::fsync(folder.get()) != 0) {
    _log(1, format("Cannot make sure that %s stays removed: %s", path, std::strerror(errno)));
    return kOrvNotStored;
  }
  return kOrvSuccess;
}

bool MachineSecretStore::isFromTheFuture(std::uint64_t dsID) const {
  const Result<Data> contents = readFile(pathOf(dsID), kLargestFile);
  return contents && hasHeader(*contents) && versionOf(*contents) > kVersion;
}

std::vector<std::uint64_t> MachineSecretStore::dsIDs() const {
  std::vector<std::uint64_t> found;
  std::error_code error;
  for (auto file = std::filesystem::directory_iterator(_folder, error);
       !error && file != std::filesystem::directory_iterator(); file.increment(error))
    if (const auto dsID = dsIDOf(file->path().filename().native())) found.push_back(*dsID);
  std::sort(found.begin(), found.end());
  return found;
}

void MachineSecretStore::setAside(std::uint64_t dsID, const char* why) {
  _sealed.erase(dsID);
  const std::string path = pathOf(dsID);
  const Result<std::filesystem::path> aside = setAsideAsCorrupt(path);
  if (aside) {
    _log(1, format("%s is set aside as %s: %s", path, aside->native(), why));
  } else {
    _log(1, format("%s cannot be used (%s), nor set aside: %@", path, why, aside.error()));
  }
}

}  // namespace tallow
