#include "platform/VendBase/StandardErrorLogSink.h"

#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>

#include "platform/Base/Clock.h"

namespace tallow {

StandardErrorLogSink::StandardErrorLogSink(std::filesystem::path propertyListFolder, int descriptor)
    : _descriptor(descriptor), _files(std::move(propertyListFolder)) {}

void StandardErrorLogSink::write(int level, const SourceLocation& where, std::string_view file,
                                 std::string_view line) {
  const std::string text =
      format("%@ %s[%d] %d %@:%d: %@\n", Clock::shared().now(), VBLogManager::kIdentifier, getpid(),
             level, file, where.line, line);
  std::string_view rest = text;
  while (!rest.empty()) {
    const ssize_t written = ::write(_descriptor, rest.data(), rest.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;  // there is nowhere to report it
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
}

void StandardErrorLogSink::writePropertyList(int, std::string_view fileName, const Value& value) {
  _files.write(fileName, value);
}

}  // namespace tallow
