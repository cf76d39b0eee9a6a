#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/Base/Activity.h"
#include "platform/Base/Error.h"
#include "platform/Base/Format.h"
#include "platform/Base/SourceLocation.h"
#include "platform/Base/Value.h"

namespace tallow {

// A format text together with the place in the source that logs it.
template <class... Args>
struct LogFormat {
  consteval LogFormat(const char* text, SourceLocation caller = SourceLocation::current())
      : format(text), where(caller) {}
  CheckedFormat<Args...> format;
  SourceLocation where;
};

// The shared log. Levels: 1 failures and unexpected data, 2 warnings, 3 progress and detail. Lines
// go to the journal with structured fields (JournalLogSink), or to standard error where there is no
// journal. A line below the threshold costs one atomic read:
// nothing is formatted. Callable from any thread.
//
// Control characters and line breaks in arguments are written escaped, so that no peer can forge a
// line.
class VBLogManager {
 public:
  static constexpr const char* kClassName = "VBLogManager";

  // One line, with what is known of it beside its text.
  struct Line {
    int level;
    const SourceLocation& where;
    std::string_view file;  // of the source, as it is named in the log
    std::string_view text;
    std::shared_ptr<const Activity> activity = nullptr;  // whose call it was; may be null
    const Error* error = nullptr;                        // the first that it tells; may be null
  };
  // Where lines end up; replaceable by tests and by the service's host.
  class Sink {
   public:
    virtual ~Sink() = default;
    virtual void write(const Line& line) = 0;
    // A whole property list, for a person to read, under the name of a log file.
    virtual void writePropertyList(int level, std::string_view fileName, const Value& value) = 0;
    // Something that happened, for whoever counts such things.
    virtual void writeEvent(std::string_view name, const Dictionary& arguments) = 0;
  };

  // The name under which the service's lines are found.
  static constexpr const char* kIdentifier = "tallowd";
  static constexpr int kDefaultThreshold = 2;

  // Made on first use from the environment: TALLOW_LOG_LEVEL (0 to 3) is the threshold; TALLOW_LOG
  // ("journal", "stderr") says where lines go, else the journal if standard error leads there.
  static VBLogManager& sharedManager();

  bool isEnabled(int level) const { return level <= _threshold.load(std::memory_order_relaxed); }
  int threshold() const { return _threshold.load(std::memory_order_relaxed); }
  void setThreshold(int level) { _threshold.store(level, std::memory_order_relaxed); }
  // Returns the sink that was set before.
  std::shared_ptr<Sink> setSink(std::shared_ptr<Sink> sink);

  template <class... Args>
  void logLevel(int level, LogFormat<std::type_identity_t<Args>...> withFormat,
                const Args&... arguments) {
    logLevelAt(withFormat.where, level, withFormat.format, arguments...);
  }
  // In the name of another place.
  template <class... Args>
  void logLevelAt(const SourceLocation& where, int level,
                  CheckedFormat<std::type_identity_t<Args>...> withFormat,
                  const Args&... arguments) {
    if (!isEnabled(level)) return;
    const FormatArgument packed[sizeof...(Args) + 1] = {FormatArgument::make(arguments)...};
    _write(level, where, withFormat.text(), {packed, sizeof...(Args)}, errorAmong(arguments...));
  }

  // Dumps `value` at `level` to the log file named by the format.
  template <class... Args>
  void logPropertyList(int level, const Value& value,
                       CheckedFormat<std::type_identity_t<Args>...> fileName,
                       const Args&... arguments) {
    if (!isEnabled(level)) return;
    const FormatArgument packed[sizeof...(Args) + 1] = {FormatArgument::make(arguments)...};
    _writePropertyList(level, value, formatText(fileName.text(), {packed, sizeof...(Args)}));
  }

  // Whatever the threshold.
  void logEvent(std::string_view name, const Dictionary& arguments);

 private:
  static const Error* errorAmong() { return nullptr; }
  template <class First, class... Rest>
  static const Error* errorAmong(const First& first, const Rest&... rest) {
    if constexpr (std::is_same_v<First, Error>) {
      return &first;
    } else if constexpr (std::is_same_v<First, std::optional<Error>>) {
      if (first) return &*first;
    }
    return errorAmong(rest...);
  }

  VBLogManager();
  void _write(int level, const SourceLocation& where, std::string_view format,
              std::span<const FormatArgument> arguments, const Error* error = nullptr);
  void _readThresholdFromEnvironment();
  std::shared_ptr<Sink> _sink() const;
  void _writePropertyList(int level, const Value& value, const std::string& fileName);

  struct State;
  std::atomic<int> _threshold;
  std::unique_ptr<State> _state;
};

// VBLogManager::sharedManager().logLevel(...), spelled as it is used everywhere:
//   logLevel(1, "%@: Failed to initialize cookie store", kClassName);
template <class... Args>
void logLevel(int level, LogFormat<std::type_identity_t<Args>...> withFormat,
              const Args&... arguments) {
  VBLogManager::sharedManager().logLevel(level, withFormat, arguments...);
}

}  // namespace tallow
