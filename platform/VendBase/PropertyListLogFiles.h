#pragma once

#include <filesystem>
#include <mutex>
#include <string_view>

#include "platform/Base/Value.h"

namespace tallow {

// The folder of property lists that were dumped for a person to read: one XML file (0600) per name,
// replaced as a whole by each dump of that name. Owned by a log sink. Any thread.
//
// Names come from requests and descriptors, so whatever is not a safe file name is refused, the
// number of files is bounded (the oldest goes), and so is their size (the rest is cut off).
class PropertyListLogFiles {
 public:
  static constexpr const char* kClassName = "PropertyListLogFiles";  // in log lines

  static constexpr std::size_t kMaxFiles = 128;
  static constexpr std::size_t kMaxFileBytes = 8u << 20;

  explicit PropertyListLogFiles(std::filesystem::path folder, std::size_t maxFiles = kMaxFiles,
                                std::size_t maxFileBytes = kMaxFileBytes);

  // What cannot be written is logged at level 1; a dump is never worth more than that.
  void write(std::string_view fileName, const Value& value);

 private:
  Data contentsFor(const Value& value) const;
  void removeOldest();

  const std::filesystem::path _folder;
  const std::size_t _maxFiles, _maxFileBytes;
  std::mutex _mutex;
};

}  // namespace tallow
