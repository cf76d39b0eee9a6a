#include "devstore/Holdup.h"

namespace tallow::devstore {

Holdup::Ticket Holdup::ticket() {
  const std::lock_guard guard(_lock);
  return _releases;
}

bool Holdup::wait(Ticket ticket, std::optional<std::chrono::milliseconds> howLong) {
  std::unique_lock guard(_lock);
  if (_stopped || _held >= kMostHeld) return false;
  ++_held;
  if (howLong) {
    _changed.wait_for(guard, *howLong, [&] { return _stopped; });
  } else {
    _changed.wait(guard, [&] { return _stopped || _releases != ticket; });
  }
  --_held;
  return true;
}

void Holdup::release() {
  const std::lock_guard guard(_lock);
  ++_releases;
  _changed.notify_all();
}

void Holdup::stop() {
  const std::lock_guard guard(_lock);
  _stopped = true;
  _changed.notify_all();
}

}  // namespace tallow::devstore
