#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/Base/FileDescriptor.h"

namespace tallow {

class RunLoop;

// Hears when the machine, or the control group that the service runs in, is short of memory, and
// gives back then what giveBackMemory() finds. What is watched is the service manager's choice
// (https://systemd.io/MEMORY_PRESSURE/): MEMORY_PRESSURE_WATCH names a file of the kernel's or a
// FIFO, MEMORY_PRESSURE_WRITE is, in base64, what asks the file to tell; /dev/null is for not at
// all. Without them it is the whole machine's pressure, where the kernel lets the process ask.
//
// Owned by the host, made before the process confines itself: afterwards such files cannot be
// opened for writing. Whatever cannot be watched is logged, and not watched.
class MemoryPressure {
 public:
  static constexpr const char* kClassName = "MemoryPressure";

  MemoryPressure();
  // On the loop's thread from then on. This object outlives the loop's last run.
  void watch(RunLoop& loop);

 private:
  std::optional<std::string> _openAsAsked(const std::string& path);
  std::optional<std::string> _open(const std::string& path, std::string_view trigger);

  FileDescriptor _file;
  bool _isKernelFile = false;  // which tells by an exceptional condition, and has nothing to read
};

// Gives back what the process holds and does not need for a call that finds everything at hand:
// freed memory of the heap, and the pages of libraries that are entered for bags and requests alone
// (cryptography, transport, patterns). They come back from the page cache when they are touched,
// some microseconds each. Any thread, at any time; takes up to a few milliseconds.
void giveBackMemory();

}  // namespace tallow
