#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Orv/OrvLibrary.h"
#include "platform/Orv/tallow-orv.h"
#include "tests/support/TemporaryFolder.h"

namespace tallow {

// A machine-identity library in a test's hands. Notes every call, and counts what it has handed out
// and not been given back, and the sessions that are open. What it returns is set beforehand.
class FakeOrv {
 public:
  // What a call hands out: bytes, null, or a length that is not theirs.
  struct Out {
    std::string bytes;
    bool isNull = false;
    std::uint32_t claimedLength = 0;  // 0: as it is
  };

  std::int32_t passwordStatus = 0, resetStatus = 0, startStatus = 0, finishStatus = 0,
               syncStatus = 0;
  Out machineIdentifier{"machine"}, password{"password"}, clientData{"client data"};
  bool opensSession = true;
  bool handsOutOneBuffer = false;
  bool isAtHand = true;

  std::vector<std::string> calls;  // "start 7 [data]", in order
  int buffers = 0;                 // handed out and not given back
  int sessions = 0;                // open

  FakeOrv() : _library(OrvLibrary::open(table(), _folder.path() / "orv")) {}

  OrvLibrary& library() { return **_library; }

 private:
  static FakeOrv*& current() {
    static FakeOrv* fake = nullptr;
    return fake;
  }
  static FakeOrv& of(void* self) { return *static_cast<FakeOrv*>(self); }
  static std::string text(const std::uint8_t* bytes, std::uint32_t length) {
    return " [" + std::string(reinterpret_cast<const char*>(bytes), length) + "]";
  }
  void handOut(const Out& out, std::uint8_t** bytes, std::uint32_t* length) {
    *length =
        out.claimedLength != 0 ? out.claimedLength : static_cast<std::uint32_t>(out.bytes.size());
    if (out.isNull) return;
    *bytes = new std::uint8_t[out.bytes.size() + 1];
    std::copy(out.bytes.begin(), out.bytes.end(), *bytes);
    ++buffers;
  }

  const tallow_orv_library* table() {
    current() = this;
    static const tallow_orv_library kTable = makeTable();
    return &kTable;
  }
  static tallow_orv_library makeTable() {
    tallow_orv_library table{};
    table.version = TALLOW_ORV_VERSION;
    table.name = "Fake";
    table.open = [](const tallow_orv_host*, void** self) -> std::int32_t {
      *self = current();
      return 0;
    };
    table.close = [](void*) {};
    table.release = [](void* self, std::uint8_t* buffer) {
      --of(self).buffers;
      delete[] buffer;
    };
    table.request_password = [](void* self, std::uint64_t dsID, std::uint8_t** identifier,
                                std::uint32_t* identifierLength, std::uint8_t** password,
                                std::uint32_t* passwordLength) {
      of(self).calls.push_back("password " + std::to_string(dsID));
      if (of(self).passwordStatus == 0) {
        of(self).handOut(of(self).machineIdentifier, identifier, identifierLength);
        if (of(self).handsOutOneBuffer)
          *password = *identifier;
        else
          of(self).handOut(of(self).password, password, passwordLength);
      }
      return of(self).passwordStatus;
    };
    table.password_is_at_hand = [](void* self, std::uint64_t) -> std::int32_t {
      return of(self).isAtHand ? 1 : 0;
    };
    table.reset_provisioning = [](void* self, std::uint64_t dsID) {
      of(self).calls.push_back("reset " + std::to_string(dsID));
      return of(self).resetStatus;
    };
    table.start_provisioning = [](void* self, std::uint64_t dsID, const std::uint8_t* data,
                                  std::uint32_t length, std::uint8_t** clientData,
                                  std::uint32_t* clientDataLength, std::uint32_t* session) {
      of(self).calls.push_back("start " + std::to_string(dsID) +
                               (data == nullptr ? " none" : text(data, length)));
      // A badly behaved one leaves things behind although it fails.
      of(self).handOut(of(self).clientData, clientData, clientDataLength);
      if (of(self).opensSession) {
        ++of(self).sessions;
        *session = 77;
      }
      return of(self).startStatus;
    };
    table.finish_provisioning = [](void* self, std::uint32_t session, const std::uint8_t* info,
                                   std::uint32_t infoLength, const std::uint8_t* key,
                                   std::uint32_t keyLength) {
      of(self).calls.push_back("finish " + std::to_string(session) +
                               (info == nullptr ? " none" : text(info, infoLength)) +
                               (key == nullptr ? " none" : text(key, keyLength)));
      return of(self).finishStatus;
    };
    table.end_session = [](void* self, std::uint32_t session) {
      of(self).calls.push_back("end " + std::to_string(session));
      --of(self).sessions;
    };
    table.synchronize_machine = [](void* self, std::uint64_t dsID, const std::uint8_t* data,
                                   std::uint32_t length, std::uint8_t** identifier,
                                   std::uint32_t* identifierLength, std::uint8_t** clientData,
                                   std::uint32_t* clientDataLength) {
      of(self).calls.push_back("sync " + std::to_string(dsID) +
                               (data == nullptr ? " none" : text(data, length)));
      of(self).handOut(of(self).machineIdentifier, identifier, identifierLength);
      of(self).handOut(of(self).clientData, clientData, clientDataLength);
      return of(self).syncStatus;
    };
    return table;
  }

  const TemporaryFolder _folder;
  Result<std::unique_ptr<OrvLibrary>> _library;
};

}  // namespace tallow
