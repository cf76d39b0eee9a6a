#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "platform/VendBase/StandardErrorLogSink.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {

// Writes log lines to the system's journal with the fields MESSAGE, PRIORITY (3 error, 4 warning, 7
// debug for levels 1, 2, 3), TALLOW_LEVEL, SYSLOG_IDENTIFIER, CODE_FILE, CODE_FUNC, CODE_LINE;
// where it was written for a call, TALLOW_CLIENT and TALLOW_OPERATION; where it tells of an error,
// TALLOW_ERROR_DOMAIN and TALLOW_ERROR_CODE.
// An event has TALLOW_EVENT for its name and TALLOW_EVENT_KEY for each argument, the key in
// capitals. What the journal does not take goes to standard error. Any thread.
class JournalLogSink final : public VBLogManager::Sink {
 public:
  explicit JournalLogSink(std::filesystem::path propertyListFolder);

  // Whether standard error is the stream that the service manager has connected to the journal
  // (systemd.exec(5), JOURNAL_STREAM).
  static bool standardErrorIsJournal();

  // What is sent for a line, each "NAME=value".
  static std::vector<std::string> fieldsOf(const VBLogManager::Line& line);

  void write(const VBLogManager::Line& line) override;
  void writePropertyList(int level, std::string_view fileName, const Value& value) override;
  void writeEvent(std::string_view name, const Dictionary& arguments) override;

 private:
  StandardErrorLogSink _fallback;
};

}  // namespace tallow
