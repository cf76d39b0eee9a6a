#include "platform/VendBase/PropertyListLogFiles.h"

#include <string>
#include <system_error>
#include <utility>

#include "platform/Base/AtomicFile.h"
#include "platform/Base/Directories.h"
#include "platform/PropertyList/PropertyList.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {

PropertyListLogFiles::PropertyListLogFiles(std::filesystem::path folder, std::size_t maxFiles,
                                           std::size_t maxFileBytes)
    : _folder(std::move(folder)), _maxFiles(maxFiles), _maxFileBytes(maxFileBytes) {}

Data PropertyListLogFiles::contentsFor(const Value& value) const {
  if (value.isNil()) return Data(std::string_view("(null)\n"));
  Data whole = PropertyList::encode(value, PropertyList::Format::XML);
  if (whole.length() <= _maxFileBytes) return whole;
  std::string cut(whole.view().substr(0, _maxFileBytes));
  cut += format("\n<!-- cut here; %lu bytes in all -->\n", whole.length());
  return Data(std::string_view(cut));
}

void PropertyListLogFiles::write(std::string_view fileName, const Value& value) {
  if (!isSafePathComponent(fileName)) {
    logLevel(1, "%@: not a file name: %@", PropertyListLogFiles::kClassName, fileName);
    return;
  }
  const Data contents = contentsFor(value);
  const std::lock_guard lock(_mutex);
  if (!ensureDirectoryExists(_folder)) {
    logLevel(1, "%@: cannot make %@", PropertyListLogFiles::kClassName, _folder.native());
    return;
  }
  const std::filesystem::path path = _folder / fileName;
  std::error_code error;
  if (!std::filesystem::exists(path, error)) removeOldest();
  if (const auto failure = writeFileAtomically(path, contents)) {
    logLevel(1, "%@: cannot write %@: %@", PropertyListLogFiles::kClassName, path.native(),
             *failure);
  }
}

// Makes room for one more file.
void PropertyListLogFiles::removeOldest() {
  std::size_t count = 0;
  std::filesystem::path oldest;
  std::filesystem::file_time_type oldestTime = std::filesystem::file_time_type::max();
  std::error_code error;
  for (std::filesystem::directory_iterator entry(_folder, error), end; !error && entry != end;
       entry.increment(error)) {
    ++count;
    std::error_code vanished;
    const auto time = entry->last_write_time(vanished);
    if (vanished || time >= oldestTime) continue;
    oldestTime = time;
    oldest = entry->path();
  }
  if (count >= _maxFiles) std::filesystem::remove(oldest, error);
}

}  // namespace tallow
