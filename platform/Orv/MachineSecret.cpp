#include "platform/Orv/MachineSecret.h"

#include <systemd/sd-id128.h>

#include <algorithm>
#include <cmath>

#include "platform/Base/Clock.h"
#include "platform/Orv/ByteLayout.h"

namespace tallow {

namespace {

std::uint64_t milliseconds(double seconds) {
  return seconds <= 0 ? 0 : static_cast<std::uint64_t>(std::llround(seconds * 1000));
}

OrvMessages::ID thisBoot() {
  static const OrvMessages::ID boot = [] {
    OrvMessages::ID id{};
    sd_id128_t read;
    if (sd_id128_get_boot(&read) >= 0)
      std::copy(std::begin(read.bytes), std::end(read.bytes), id.begin());
    return id;
  }();
  return boot;
}

}  // namespace

StoreClock StoreClock::setNow(std::uint64_t storeTime) {
  StoreClock clock;
  clock._storeTime = storeTime;
  clock._monotonicTime = milliseconds(Clock::shared().monotonicSeconds());
  clock._ahead =
      static_cast<std::int64_t>(storeTime - milliseconds(Clock::shared().now().secondsSince1970));
  clock._boot = thisBoot();
  return clock;
}

std::uint64_t StoreClock::now() const {
  const std::uint64_t monotonic = milliseconds(Clock::shared().monotonicSeconds());
  if (_boot == thisBoot() && _boot != OrvMessages::ID{} && monotonic >= _monotonicTime)
    return _storeTime + (monotonic - _monotonicTime);
  return milliseconds(Clock::shared().now().secondsSince1970) + static_cast<std::uint64_t>(_ahead);
}

SecretBytes<MachineSecret::kBytes> MachineSecret::encode() const {
  SecretBytes<kBytes> bytes;
  ByteWriter(bytes.writable())
      .bytes(passwordKey.span())
      .bytes(syncKey.span())
      .bytes(identifier.machine)
      .bytes(identifier.proof)
      .number(periodSeconds)
      .number(clock._storeTime)
      .number(clock._monotonicTime)
      .number(clock._ahead)
      .bytes(clock._boot);
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
      .number(secret.clock._storeTime)
      .number(secret.clock._monotonicTime)
      .number(secret.clock._ahead)
      .bytes(secret.clock._boot);
  const bool isSensible =
      secret.periodSeconds > 0 && secret.periodSeconds <= OrvMessages::kLongestPeriodSeconds;
  return isSensible ? std::optional(secret) : std::nullopt;
}

}  // namespace tallow
