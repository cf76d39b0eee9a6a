#pragma once

#include <string>
#include <string_view>
#include <type_traits>

#include "platform/Base/Format.h"

namespace tallow {

// The plain system log, beside the shared log manager: what goes here has no level and is written
// whatever the threshold is. Any thread.
//
//   systemLog("%@: %@ dsid is unexpected type (%@)", kClassName, identifier, typeName);
class SystemLog {
 public:
  virtual ~SystemLog() = default;
  // Where the log manager's lines go too: the journal (priority notice), or standard error.
  static SystemLog& shared();

  // One line without control characters.
  virtual void write(std::string_view line) = 0;
};

// Arguments are written escaped and cut as those of the log manager.
void writeToSystemLog(const std::string& text);

template <class... Args>
void systemLog(std::type_identity_t<CheckedFormat<Args...>> text, const Args&... arguments) {
  writeToSystemLog(format<Args...>(text, arguments...));
}

}  // namespace tallow
