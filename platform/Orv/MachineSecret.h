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
// by as much as it was then.
class StoreClock {
 public:
  // The store says that it is `storeTime` (milliseconds since 1970-01-01 UTC) now.
  static StoreClock setNow(std::uint64_t storeTime);

  // The store's time now, in milliseconds.
  std::uint64_t now() const;
  // What it was when it was last set: a store's word that is not later is an old one.
  std::uint64_t setAt() const { return _storeTime; }

 private:
  friend class MachineSecret;

  std::uint64_t _storeTime = 0;
  std::uint64_t _monotonicTime = 0;
  std::int64_t _ahead = 0;  // of this machine's wall clock
  OrvMessages::ID _boot{};  // which start of the machine the monotonic time belongs to; 0: unknown
};

// Everything that a machine keeps for one DSID. A plain value, wiped when it goes.
class MachineSecret {
 public:
  OrvCrypto::Key passwordKey, syncKey;
  // What every request says of the machine; its proof needs no key again.
  OrvMessages::MachineIdentifier identifier;
  std::uint32_t periodSeconds = 30;
  StoreClock clock;

  static constexpr std::size_t kBytes = 2 * 32 + 16 + 32 + 4 + 3 * 8 + 16;
  SecretBytes<kBytes> encode() const;
  static std::optional<MachineSecret> decode(std::span<const std::uint8_t> bytes);
};

}  // namespace tallow
