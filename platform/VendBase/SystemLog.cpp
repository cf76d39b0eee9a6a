#include "platform/VendBase/SystemLog.h"

#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

#include "platform/Base/Clock.h"
#include "platform/Base/SharedInstance.h"
#include "platform/VendBase/JournalLogSink.h"
#include "platform/VendBase/LogText.h"

namespace tallow {

namespace {

bool goesToJournal() {
  const char* const wanted = std::getenv("TALLOW_LOG");
  const std::string_view where = wanted == nullptr ? "" : wanted;
  return where == "journal" || (where != "stderr" && JournalLogSink::standardErrorIsJournal());
}

class PlainSystemLog final : public SystemLog {
 public:
  void write(std::string_view line) override {
    const std::string text(line);
    if (_toJournal &&
        sd_journal_send("MESSAGE=%s", text.c_str(), "PRIORITY=%i", LOG_NOTICE,
                        "SYSLOG_IDENTIFIER=%s", VBLogManager::kIdentifier, nullptr) >= 0)
      return;
    const std::string whole =
        format("%@ %s[%d] %@\n", Clock::shared().now(), VBLogManager::kIdentifier, getpid(), text);
    // A line that standard error does not take can be reported nowhere.
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, whole.data(), whole.size());
  }

 private:
  const bool _toJournal = goesToJournal();
};

}  // namespace

SystemLog& SystemLog::shared() {
  return SharedInstance<SystemLog>::get([] { return std::make_unique<PlainSystemLog>(); });
}

void writeToSystemLog(const std::string& text) {
  SystemLog::shared().write(LogText::escaped(text));
}

}  // namespace tallow
