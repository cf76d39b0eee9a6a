#include "platform/Orv/OrvLibrary.h"

#include <algorithm>

#include "platform/Base/Directories.h"
#include "platform/Base/SharedInstance.h"
#include "platform/Orv/BuiltInOrvTable.h"
#include "platform/Orv/OrvLibraryFile.h"
#include "platform/Orv/PrivateFolder.h"
#include "platform/Orv/tallow-orv.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {

namespace {

constexpr const char* kFolder = "orv";
constexpr const char* kChosenLibrarysFolder = "library";  // below that
constexpr std::uint32_t kMostListed = 10'000;

void logLine(std::int32_t level, const char* line) {
  if (line != nullptr) logLevel(std::clamp(level, 1, 3), "Orv: %s", line);
}

// What a library is called with for no bytes at all.
const std::uint8_t* address(OrvLibrary::Bytes bytes) {
  return bytes.empty() ? nullptr : bytes.data();
}

std::uint32_t length(OrvLibrary::Bytes bytes) {
  return static_cast<std::uint32_t>(bytes.size());
}

// One buffer for both outputs: to be given back once.
bool isOneBuffer(const std::uint8_t* one, const std::uint8_t* other) {
  const bool isOne = one != nullptr && one == other;
  if (isOne) logLevel(1, "Orv: The library hands out one buffer twice");
  return isOne;
}

bool isComplete(const tallow_orv_library& table) {
  return table.version >= TALLOW_ORV_VERSION && table.name != nullptr && table.open != nullptr &&
         table.close != nullptr && table.release != nullptr && table.request_password != nullptr &&
         table.reset_provisioning != nullptr && table.start_provisioning != nullptr &&
         table.finish_provisioning != nullptr && table.end_session != nullptr &&
         table.synchronize_machine != nullptr;
}

Result<const tallow_orv_library*> chosenTable() {
  const auto file = OrvLibraryFile::administratorsChoice();
  if (!file) return file.error();
  return *file ? OrvLibraryFile::load(**file) : builtInOrvTable();
}

}  // namespace

OrvBuffer::~OrvBuffer() {
  if (_bytes != nullptr) _library->release(_bytes);
}

OrvLibrary& OrvLibrary::shared() {
  return SharedInstance<OrvLibrary>::get([] {
    const Result<const tallow_orv_library*> table = chosenTable();
    std::optional<Error> error;
    if (table) {
      const std::filesystem::path folder = Directories::shared().stateHome / kFolder;
      auto library =
          open(*table, *table == builtInOrvTable() ? folder : folder / kChosenLibrarysFolder);
      if (library) return std::move(*library);
      error = library.error();
    } else {
      error = table.error();
    }
    logLevel(1, "Orv: There is no machine-identity library, and so no identity: %@",
             error->localizedDescription());
    return std::unique_ptr<OrvLibrary>(new OrvLibrary(nullptr, nullptr));
  });
}

Result<std::unique_ptr<OrvLibrary>> OrvLibrary::open(const tallow_orv_library* table,
                                                     const std::filesystem::path& folder) {
  if (table == nullptr || !isComplete(*table))
    return makeError(OrvLibrary::kErrorDomain, kOrvNoLibrary,
                     "It does not offer version 1 of the interface in full");
  // The built-in one makes its folder when it has something to keep: a full disk is no reason to be
  // without a library.
  if (table != builtInOrvTable() && !ensurePrivateFolder(folder))
    return makeError(OrvLibrary::kErrorDomain, kOrvNotStored,
                     "Cannot make the folder " + folder.native());
  const tallow_orv_host host{TALLOW_ORV_VERSION, folder.c_str(), logLine};
  void* self = nullptr;
  if (const std::int32_t status = table->open(&host, &self); status != kOrvSuccess)
    return makeError(OrvLibrary::kErrorDomain, status,
                     format("%s does not open (status %d)", table->name, status));
  return std::unique_ptr<OrvLibrary>(new OrvLibrary(table, self));
}

OrvLibrary::~OrvLibrary() {
  if (_table != nullptr) _table->close(_self);
}

std::string OrvLibrary::name() const {
  return _table == nullptr ? "none" : _table->name;
}

bool OrvLibrary::passwordIsAtHand(std::uint64_t dsID) const {
  return _table != nullptr && _table->password_is_at_hand != nullptr &&
         _table->password_is_at_hand(_self, dsID) != 0;
}

void OrvLibrary::release(std::uint8_t* bytes) const {
  _table->release(_self, bytes);
}

bool OrvLibrary::isUsable(const char* what, const OrvBuffer& buffer) const {
  if (buffer.span().size() <= TALLOW_ORV_LARGEST_BUFFER) return true;
  logLevel(1, "Orv: %s of %s returned %lu bytes at once, which is more than it may", what,
           _table->name, buffer.span().size());
  return false;
}

std::int32_t OrvLibrary::judged(std::int32_t status, const char* what, OrvBuffer& first,
                                OrvBuffer& second) const {
  if (status == kOrvSuccess && (!isUsable(what, first) || !isUsable(what, second)))
    status = kOrvUnusableAnswer;
  if (status != kOrvSuccess) {
    const OrvBuffer unused = std::move(first);
    const OrvBuffer alsoUnused = std::move(second);
  }
  return status;
}

std::int32_t OrvLibrary::requestPassword(std::uint64_t dsID, OrvBuffer& machineIdentifier,
                                         OrvBuffer& password) const {
  if (_table == nullptr) return kOrvNoLibrary;
  std::uint8_t *identifierBytes = nullptr, *passwordBytes = nullptr;
  std::uint32_t identifierLength = 0, passwordLength = 0;
  const std::int32_t status = _table->request_password(
      _self, dsID, &identifierBytes, &identifierLength, &passwordBytes, &passwordLength);
  if (isOneBuffer(identifierBytes, passwordBytes)) passwordBytes = nullptr;
  machineIdentifier = OrvBuffer(*this, identifierBytes, identifierLength);
  password = OrvBuffer(*this, passwordBytes, passwordLength);
  return judged(status, "request_password", machineIdentifier, password);
}

std::int32_t OrvLibrary::resetProvisioning(std::uint64_t dsID) const {
  return _table == nullptr ? kOrvNoLibrary : _table->reset_provisioning(_self, dsID);
}

std::int32_t OrvLibrary::startProvisioning(std::uint64_t dsID, Bytes data, OrvBuffer& clientData,
                                           std::uint32_t& session) const {
  if (_table == nullptr) return kOrvNoLibrary;
  std::uint8_t* bytes = nullptr;
  std::uint32_t byteCount = 0, opened = 0;
  const std::int32_t status = _table->start_provisioning(_self, dsID, address(data), length(data),
                                                         &bytes, &byteCount, &opened);
  clientData = OrvBuffer(*this, bytes, byteCount);
  OrvBuffer none;
  const std::int32_t outcome = judged(status, "start_provisioning", clientData, none);
  // One that opened a session and failed all the same has to be rid of it, too.
  if (outcome != kOrvSuccess && (status == kOrvSuccess || opened != 0)) endSession(opened);
  if (outcome == kOrvSuccess) session = opened;
  return outcome;
}

std::int32_t OrvLibrary::finishProvisioning(std::uint32_t session, Bytes settingInfo,
                                            Bytes transportKey) const {
  if (_table == nullptr) return kOrvNoLibrary;
  return _table->finish_provisioning(_self, session, address(settingInfo), length(settingInfo),
                                     address(transportKey), length(transportKey));
}

void OrvLibrary::endSession(std::uint32_t session) const {
  if (_table != nullptr) _table->end_session(_self, session);
}

std::int32_t OrvLibrary::synchronizeMachine(std::uint64_t dsID, Bytes data,
                                            OrvBuffer& machineIdentifier,
                                            OrvBuffer& clientData) const {
  if (_table == nullptr) return kOrvNoLibrary;
  std::uint8_t *identifierBytes = nullptr, *clientBytes = nullptr;
  std::uint32_t identifierLength = 0, clientLength = 0;
  const std::int32_t status =
      _table->synchronize_machine(_self, dsID, address(data), length(data), &identifierBytes,
                                  &identifierLength, &clientBytes, &clientLength);
  if (isOneBuffer(identifierBytes, clientBytes)) clientBytes = nullptr;
  machineIdentifier = OrvBuffer(*this, identifierBytes, identifierLength);
  clientData = OrvBuffer(*this, clientBytes, clientLength);
  return judged(status, "synchronize_machine", machineIdentifier, clientData);
}

std::optional<std::vector<std::uint64_t>> OrvLibrary::provisionedDSIDs() const {
  if (_table == nullptr) return std::vector<std::uint64_t>();
  if (_table->list_provisioned == nullptr) return std::nullopt;
  std::vector<std::uint64_t> dsIDs(kMostListed);
  const std::uint32_t count = _table->list_provisioned(_self, dsIDs.data(), kMostListed);
  dsIDs.resize(std::min(count, kMostListed));
  return dsIDs;
}

}  // namespace tallow
