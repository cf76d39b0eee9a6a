#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/Base/Result.h"
#include "platform/Orv/OrvStatus.h"

struct tallow_orv_library;

namespace tallow {

class OrvLibrary;

// Bytes that a machine-identity library has returned; given back to it, once, when this goes. Nil
// where the library returned no bytes. Must not outlive the library.
class OrvBuffer {
 public:
  OrvBuffer() = default;
  OrvBuffer(OrvBuffer&& other) noexcept { *this = std::move(other); }
  OrvBuffer& operator=(OrvBuffer&& other) noexcept {
    std::swap(_library, other._library);
    std::swap(_bytes, other._bytes);
    std::swap(_length, other._length);
    return *this;
  }
  ~OrvBuffer();

  bool isNil() const { return _length == 0; }
  std::span<const std::uint8_t> span() const { return {_bytes, _length}; }

 private:
  friend class OrvLibrary;
  OrvBuffer(const OrvLibrary& library, std::uint8_t* bytes, std::uint32_t length)
      : _library(&library), _bytes(bytes), _length(bytes == nullptr ? 0 : length) {}

  const OrvLibrary* _library = nullptr;
  std::uint8_t* _bytes = nullptr;
  std::uint32_t _length = 0;
};

// A machine-identity library, behind its C interface (tallow-orv.h): the one that the administrator
// names, else the built-in one. Takes nothing on trust that a library returns: buffers that are too
// long are given back unread (kOrvUnusableAnswer), what a failed call left behind is released and
// ended, and none of it is seen by the caller.
//
// One call at a time, from any thread: the caller keeps them apart. Functions return a status
// (OrvStatus.h); outputs are set on success only.
class OrvLibrary {
 public:
  using Bytes = std::span<const std::uint8_t>;

  static constexpr const char* kErrorDomain = "OrvErrorDomain";

  // The process's own, opened on first use. One that cannot be had is logged, and answers every
  // call with kOrvNoLibrary: what the administrator has chosen is never replaced by something else.
  static OrvLibrary& shared();

  // Over a table that outlives it. Its files go to `folder`. Error domain "OrvErrorDomain", code =
  // the library's status.
  static Result<std::unique_ptr<OrvLibrary>> open(const tallow_orv_library* table,
                                                  const std::filesystem::path& folder);
  ~OrvLibrary();
  OrvLibrary(const OrvLibrary&) = delete;
  OrvLibrary& operator=(const OrvLibrary&) = delete;

  // For people.
  std::string name() const;
  // Whether requestPassword would answer at once now.
  bool passwordIsAtHand(std::uint64_t dsID) const;

  std::int32_t requestPassword(std::uint64_t dsID, OrvBuffer& machineIdentifier,
                               OrvBuffer& password) const;
  std::int32_t resetProvisioning(std::uint64_t dsID) const;
  // On success the session is open until endSession.
  std::int32_t startProvisioning(std::uint64_t dsID, Bytes data, OrvBuffer& clientData,
                                 std::uint32_t& session) const;
  std::int32_t finishProvisioning(std::uint32_t session, Bytes settingInfo,
                                  Bytes transportKey) const;
  void endSession(std::uint32_t session) const;
  std::int32_t synchronizeMachine(std::uint64_t dsID, Bytes data, OrvBuffer& machineIdentifier,
                                  OrvBuffer& clientData) const;
  // Nil for a library that does not tell.
  std::optional<std::vector<std::uint64_t>> provisionedDSIDs() const;

 private:
  friend class OrvBuffer;
  OrvLibrary(const tallow_orv_library* table, void* self) : _table(table), _self(self) {}

  void release(std::uint8_t* bytes) const;
  // The call's status, or kOrvUnusableAnswer where a buffer cannot be used; then both are nil.
  std::int32_t judged(std::int32_t status, const char* what, OrvBuffer& first,
                      OrvBuffer& second) const;
  bool isUsable(const char* what, const OrvBuffer& buffer) const;

  const tallow_orv_library* const _table;  // null: there is no library
  void* const _self;
};

}  // namespace tallow
