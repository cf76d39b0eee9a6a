#include "platform/Orv/BuiltInOrvTable.h"

#include <systemd/sd-id128.h>

#include <algorithm>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <vector>

#include "platform/Orv/BuiltInOrv.h"
#include "platform/Orv/tallow-orv.h"

namespace tallow {

namespace {

// Names this library in the derivation, so that no other program's id for the machine equals ours.
// What is sealed and what stores know depend on it: never to be changed.
constexpr sd_id128_t kApplicationID =
    SD_ID128_MAKE(c1, 47, 0d, 92, 6e, b8, 4a, 0f, 9d, 53, 21, f7, 80, 3c, e4, 6b);

BuiltInOrv& builtIn(void* self) {
  return *static_cast<BuiltInOrv*>(self);
}

std::span<const std::uint8_t> input(const std::uint8_t* bytes, std::uint32_t length) {
  return {bytes, bytes == nullptr ? 0 : length};
}

// A buffer handed out knows its own length, so that release() can wipe it.
void handOut(const SecretVector& bytes, std::uint8_t** buffer, std::uint32_t* length) {
  auto* const memory =
      static_cast<std::uint8_t*>(::operator new(sizeof(std::size_t) + bytes.size()));
  const std::size_t size = bytes.size();
  std::copy_n(reinterpret_cast<const std::uint8_t*>(&size), sizeof(size), memory);
  std::copy(bytes.begin(), bytes.end(), memory + sizeof(size));
  *buffer = memory + sizeof(size);
  *length = static_cast<std::uint32_t>(size);
}

void release(void*, std::uint8_t* buffer) {
  if (buffer == nullptr) return;
  std::size_t size = 0;
  std::uint8_t* const memory = buffer - sizeof(size);
  std::copy_n(memory, sizeof(size), reinterpret_cast<std::uint8_t*>(&size));
  ::explicit_bzero(buffer, size);
  ::operator delete(memory);
}

std::int32_t open(const tallow_orv_host* host, void** self) {
  sd_id128_t machine;
  if (const int status = sd_id128_get_machine_app_specific(kApplicationID, &machine); status < 0) {
    host->log(1, "The machine has no usable id (/etc/machine-id): it cannot have an identity");
    return status;
  }
  StoreClock::Boot boot{};
  if (sd_id128_t read; sd_id128_get_boot(&read) >= 0)
    std::copy(std::begin(read.bytes), std::end(read.bytes), boot.begin());
  const auto log = [write = host->log](int level, const std::string& line) {
    write(level, line.c_str());
  };
  *self = std::make_unique<BuiltInOrv>(host->state_folder, machine.bytes, boot, log).release();
  return kOrvSuccess;
}

void close(void* self) {
  const std::unique_ptr<BuiltInOrv> owned(static_cast<BuiltInOrv*>(self));
}

std::int32_t requestPassword(void* self, std::uint64_t dsID, std::uint8_t** identifier,
                             std::uint32_t* identifierLength, std::uint8_t** password,
                             std::uint32_t* passwordLength) {
  SecretVector machineIdentifier, digits;
  const std::int32_t status = builtIn(self).requestPassword(dsID, machineIdentifier, digits);
  if (status != kOrvSuccess) return status;
  handOut(machineIdentifier, identifier, identifierLength);
  handOut(digits, password, passwordLength);
  return status;
}

std::int32_t passwordIsAtHand(void* self, std::uint64_t dsID) {
  return builtIn(self).passwordIsAtHand(dsID) ? 1 : 0;
}

std::int32_t resetProvisioning(void* self, std::uint64_t dsID) {
  return builtIn(self).resetProvisioning(dsID);
}

std::int32_t startProvisioning(void* self, std::uint64_t dsID, const std::uint8_t* data,
                               std::uint32_t dataLength, std::uint8_t** clientData,
                               std::uint32_t* clientDataLength, std::uint32_t* session) {
  SecretVector made;
  const std::int32_t status =
      builtIn(self).startProvisioning(dsID, input(data, dataLength), made, *session);
  if (status == kOrvSuccess) handOut(made, clientData, clientDataLength);
  return status;
}

std::int32_t finishProvisioning(void* self, std::uint32_t session, const std::uint8_t* settingInfo,
                                std::uint32_t settingInfoLength, const std::uint8_t* transportKey,
                                std::uint32_t transportKeyLength) {
  return builtIn(self).finishProvisioning(session, input(settingInfo, settingInfoLength),
                                          input(transportKey, transportKeyLength));
}

void endSession(void* self, std::uint32_t session) {
  builtIn(self).endSession(session);
}

std::int32_t synchronizeMachine(void* self, std::uint64_t dsID, const std::uint8_t* data,
                                std::uint32_t dataLength, std::uint8_t** identifier,
                                std::uint32_t* identifierLength, std::uint8_t** clientData,
                                std::uint32_t* clientDataLength) {
  SecretVector machineIdentifier, made;
  const std::int32_t status =
      builtIn(self).synchronizeMachine(dsID, input(data, dataLength), machineIdentifier, made);
  if (status != kOrvSuccess) return status;
  handOut(machineIdentifier, identifier, identifierLength);
  handOut(made, clientData, clientDataLength);
  return status;
}

std::uint32_t listProvisioned(void* self, std::uint64_t* dsIDs, std::uint32_t capacity) {
  const std::vector<std::uint64_t> found = builtIn(self).provisionedDSIDs();
  std::copy_n(found.begin(), std::min<std::size_t>(found.size(), capacity), dsIDs);
  return static_cast<std::uint32_t>(found.size());
}

}  // namespace

const tallow_orv_library* builtInOrvTable() {
  static constexpr tallow_orv_library kTable = {
      TALLOW_ORV_VERSION,
      "built-in",
      open,
      close,
      release,
      requestPassword,
      resetProvisioning,
      startProvisioning,
      finishProvisioning,
      endSession,
      synchronizeMachine,
      passwordIsAtHand,
      listProvisioned,
  };
  return &kTable;
}

}  // namespace tallow
