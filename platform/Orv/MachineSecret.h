#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "platform/Orv/OrvCrypto.h"
#include "platform/Orv/OrvMessages.h"

namespace tallow {

// What this machine keeps of a store's clock, so that passwords stay right when its own clock is
// set. The store has said what time it was; from then on the clock that nobody sets counts, as long
// as the machine has not been started anew. After that there is only the machine's own clock, off
// by as much as it was when last looked at. Times are milliseconds since 1970-01-01 UTC.
class StoreClock {
 public:
  // Which start of the machine this is; all zero where it is not known.
  using Boot = OrvMessages::ID;

  // The store says that it is `storeTime` now.
  static StoreClock setNow(std::uint64_t storeTime, const Boot& boot);
  // The store has said, later than what it said last, that it was `storeTime`. A clock that has
  // been running since never goes back for that: the word may have been long on its way.
  void hear(std::uint64_t storeTime, const Boot& boot);

  // The store's time now.
  std::uint64_t now(const Boot& boot) const;
  // What the store said last: what is not later is an old word.
  std::uint64_t lastHeard() const { return _lastHeard; }
  // Whether this machine's own clock has been set since it was last compared; and compares it, for
  // the time after the next start.
  bool isOwnClockSet(const Boot& boot) const;
  void compareOwnClock(const Boot& boot);

 private:
  friend class MachineSecret;

  bool isRunning(const Boot& boot) const;

  std::uint64_t _lastHeard = 0;
  std::uint64_t _storeTime = 0;      // what it was ...
  std::uint64_t _monotonicTime = 0;  // ... at this moment ...
  Boot _boot{};                      // ... of this start of the machine
  std::int64_t _ahead = 0;           // of this machine's wall clock
};

// Everything that a machine keeps for one DSID. A plain value, wiped when it goes.
class MachineSecret {
 public:
  OrvCrypto::Key passwordKey, syncKey;
  // What every request says of the machine; its proof needs no key again.
  OrvMessages::MachineIdentifier identifier;
  std::uint32_t periodSeconds = 30;
  StoreClock clock;

  static constexpr std::size_t kBytes = 2 * 32 + 16 + 32 + 4 + 4 * 8 + 16;
  SecretBytes<kBytes> encode() const;
  static std::optional<MachineSecret> decode(std::span<const std::uint8_t> bytes);
};

}  // namespace tallow
