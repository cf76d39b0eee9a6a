#include "platform/Orv/MachineSecret.h"

#include <cmath>

#include "platform/Base/Clock.h"
#include "platform/Orv/ByteLayout.h"

namespace tallow {

namespace {

std::uint64_t milliseconds(double seconds) {
  return seconds <= 0 ? 0 : static_cast<std::uint64_t>(std::llround(seconds * 1000));
}

std::uint64_t monotonicNow() {
  return milliseconds(Clock::shared().monotonicSeconds());
}

std::uint64_t wallNow() {
  return milliseconds(Clock::shared().now().secondsSince1970);
}

// By how much the two reckonings may differ without anybody having set the clock.
constexpr std::int64_t kUnset = 2000;

}  // namespace

StoreClock StoreClock::setNow(std::uint64_t storeTime, const Boot& boot) {
  StoreClock clock;
  clock._lastHeard = clock._storeTime = storeTime;
  clock._monotonicTime = monotonicNow();
  clock._boot = boot;
  clock._ahead = static_cast<std::int64_t>(storeTime - wallNow());
  return clock;
}

void StoreClock::hear(std::uint64_t storeTime, const Boot& boot) {
  if (!isRunning(boot) || storeTime > now(boot)) *this = setNow(storeTime, boot);
  _lastHeard = storeTime;
}

bool StoreClock::isRunning(const Boot& boot) const {
  return _boot == boot && boot != Boot{} && monotonicNow() >= _monotonicTime;
}

std::uint64_t StoreClock::now(const Boot& boot) const {
  if (isRunning(boot)) return _storeTime + (monotonicNow() - _monotonicTime);
  return wallNow() + static_cast<std::uint64_t>(_ahead);
}

bool StoreClock::isOwnClockSet(const Boot& boot) const {
  if (!isRunning(boot)) return false;
  const auto ahead = static_cast<std::int64_t>(now(boot) - wallNow());
  return ahead - _ahead > kUnset || _ahead - ahead > kUnset;
}

void StoreClock::compareOwnClock(const Boot& boot) {
  _ahead = static_cast<std::int64_t>(now(boot) - wallNow());
}

SecretBytes<MachineSecret::kBytes> MachineSecret::encode() const {
  SecretBytes<kBytes> bytes;
  ByteWriter(bytes.writable())
      .bytes(passwordKey.span())
      .bytes(syncKey.span())
      .bytes(identifier.machine)
      .bytes(identifier.proof)
      .number(periodSeconds)
      .number(clock._lastHeard)
      .number(clock._storeTime)
      .number(clock._monotonicTime)
      .bytes(clock._boot)
      .number(clock._ahead);
  return bytes;
}

std::optional<MachineSecret> MachineSecret::decode(std::span<const std::uint8_t> bytes) {
  if (bytes.size() != kBytes) return std::nullopt;
  MachineSecret secret;
  ByteReader(bytes)
      .bytes(secret.passwordKey.writable())
      .bytes(secret.syncKey.writable())
      .bytes(secret.identifier.machine)
      .bytes(secret.identifier.proof)
      .number(secret.periodSeconds)
      .number(secret.clock._lastHeard)
      .number(secret.clock._storeTime)
      .number(secret.clock._monotonicTime)
      .bytes(secret.clock._boot)
      .number(secret.clock._ahead);
  const bool isSensible =
      secret.periodSeconds > 0 && secret.periodSeconds <= OrvMessages::kLongestPeriodSeconds;
  return isSensible ? std::optional(secret) : std::nullopt;
}

}  // namespace tallow
