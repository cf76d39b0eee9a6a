#include "platform/VendBase/StandardErrorLogSink.h"

#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>

#include "platform/Base/Clock.h"
#include "platform/VendBase/LogText.h"

namespace tallow {

StandardErrorLogSink::StandardErrorLogSink(std::filesystem::path propertyListFolder, int descriptor)
    : _descriptor(descriptor), _files(std::move(propertyListFolder)) {}

void StandardErrorLogSink::write(const VBLogManager::Line& line) {
  writeLine(format("%@ %s[%d] %d %@:%d: %@\n", Clock::shared().now(), VBLogManager::kIdentifier,
                   getpid(), line.level, line.file, line.where.line, line.text));
}

void StandardErrorLogSink::writeEvent(std::string_view name, const Dictionary& arguments) {
  writeLine(format("%@ %s[%d] event %@ %@\n", Clock::shared().now(), VBLogManager::kIdentifier,
                   getpid(), LogText::escaped(std::string(name)),
                   LogText::escaped(description(arguments))));
}

void StandardErrorLogSink::writeLine(std::string_view text) const {
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
