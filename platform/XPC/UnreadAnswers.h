#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/XPC/SDBus.h"

namespace tallow {

// Asks the bus daemon how much of what was sent to a caller it has not read yet: nobody else can
// know. Bus daemons that cannot say are asked once. Owned by the CallerTable; reading thread only.
class UnreadAnswers {
 public:
  explicit UnreadAnswers(sdbus::IConnection& connection);

  bool canAsk() const { return *_canAsk; }
  // `done` runs on the reading thread, later; nothing when the bus daemon does not say.
  void ask(const std::string& uniqueName,
           std::function<void(std::optional<std::uint64_t> bytes)> done);

 private:
  std::unique_ptr<sdbus::IProxy> _busDaemon;
  std::shared_ptr<bool> _canAsk = std::make_shared<bool>(true);
};

}  // namespace tallow
