#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

namespace tallow {

// A password. Its bytes lie in memory of their own that is neither swapped out nor dumped, and are
// overwritten when the last copy goes: copies share them. There is no description of it, so it
// cannot be logged by mistake. Immutable; safe to read from any thread.
class Secret {
 public:
  Secret() = default;
  // The caller wipes what it has copied from.
  explicit Secret(std::string_view text);

  // Lives as long as this object.
  std::string_view view() const;
  bool empty() const { return view().empty(); }

  // Overwrites in a way that is not optimised away.
  static void wipe(void* bytes, std::size_t length);

 private:
  class Memory;
  std::shared_ptr<const Memory> _memory;
};

// Keeps this process from ever leaving a core file, for processes that handle secrets all their
// life. Nobody but root can look into their memory then, either.
void forbidCoreDumps();

}  // namespace tallow
