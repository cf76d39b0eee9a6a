#include "platform/VendBase/VBLogManager.h"

#include <cstdlib>
#include <mutex>
#include <utility>

#include "platform/Base/Directories.h"
#include "platform/VendBase/JournalLogSink.h"
#include "platform/VendBase/LogText.h"
#include "platform/VendBase/StandardErrorLogSink.h"

namespace tallow {

namespace {

std::string_view environmentValue(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? std::string_view() : std::string_view(value);
}

std::shared_ptr<VBLogManager::Sink> makeSinkFromEnvironment() {
  const std::filesystem::path folder = Directories::shared().stateHome / "log";
  const std::string_view wanted = environmentValue("TALLOW_LOG");
  const bool toJournal =
      wanted == "journal" || (wanted != "stderr" && JournalLogSink::standardErrorIsJournal());
  if (toJournal) return std::make_shared<JournalLogSink>(folder);
  return std::make_shared<StandardErrorLogSink>(folder);
}

}  // namespace

struct VBLogManager::State {
  std::mutex mutex;
  std::shared_ptr<Sink> sink;
};

VBLogManager::VBLogManager() : _threshold(kDefaultThreshold), _state(std::make_unique<State>()) {
  _state->sink = makeSinkFromEnvironment();
}

VBLogManager& VBLogManager::sharedManager() {
  static VBLogManager& manager = *[] {
    auto made = std::unique_ptr<VBLogManager>(new VBLogManager);
    made->_readThresholdFromEnvironment();
    return made.release();  // lives for the process: threads log to its very end
  }();
  return manager;
}

void VBLogManager::_readThresholdFromEnvironment() {
  const std::string_view text = environmentValue("TALLOW_LOG_LEVEL");
  if (text.empty()) return;
  if (text.size() == 1 && text[0] >= '0' && text[0] <= '3') {
    setThreshold(text[0] - '0');
  } else {
    logLevel(1, "%@: TALLOW_LOG_LEVEL is \"%@\", not one of 0, 1, 2, 3", VBLogManager::kClassName,
             text);
  }
}

std::shared_ptr<VBLogManager::Sink> VBLogManager::setSink(std::shared_ptr<Sink> sink) {
  const std::lock_guard lock(_state->mutex);
  return std::exchange(_state->sink, std::move(sink));
}

std::shared_ptr<VBLogManager::Sink> VBLogManager::_sink() const {
  const std::lock_guard lock(_state->mutex);
  return _state->sink;
}

void VBLogManager::_write(int level, const SourceLocation& where, std::string_view format,
                          std::span<const FormatArgument> arguments, const Error* error) {
  const std::string text = LogText::escaped(formatText(format, arguments));
  if (const auto sink = _sink())
    sink->write({level, where, LogText::fileName(where.file), text, Activity::current(), error});
}

void VBLogManager::_writePropertyList(int level, const Value& value, const std::string& fileName) {
  if (const auto sink = _sink()) sink->writePropertyList(level, fileName, value);
}

void VBLogManager::logEvent(std::string_view name, const Dictionary& arguments) {
  if (const auto sink = _sink()) sink->writeEvent(name, arguments);
}

}  // namespace tallow
