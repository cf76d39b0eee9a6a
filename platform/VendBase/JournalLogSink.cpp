#include "platform/VendBase/JournalLogSink.h"

// The fields of the place in the source are given by hand: it is the caller's, not this file's.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <sys/stat.h>
#include <sys/uio.h>
#include <syslog.h>
#include <systemd/sd-journal.h>

#include <array>
#include <cstdlib>
#include <string>
#include <utility>

namespace tallow {

namespace {

int priorityFor(int level) {
  if (level <= 1) return LOG_ERR;
  return level == 2 ? LOG_WARNING : LOG_DEBUG;
}

iovec vectorFor(const std::string& field) {
  return {const_cast<char*>(field.data()), field.size()};
}

}  // namespace

JournalLogSink::JournalLogSink(std::filesystem::path propertyListFolder)
    : _fallback(std::move(propertyListFolder)) {}

bool JournalLogSink::standardErrorIsJournal() {
  const char* const stream = std::getenv("JOURNAL_STREAM");
  struct stat status {};
  if (stream == nullptr || fstat(2, &status) != 0) return false;
  return format("%lu:%lu", status.st_dev, status.st_ino) == stream;
}

void JournalLogSink::write(int level, const SourceLocation& where, std::string_view file,
                           std::string_view line) {
  const std::array<std::string, 7> fields = {
      format("MESSAGE=%@", line),         format("PRIORITY=%d", priorityFor(level)),
      format("TALLOW_LEVEL=%d", level),   format("SYSLOG_IDENTIFIER=%s", VBLogManager::kIdentifier),
      format("CODE_FILE=%@", file),       format("CODE_FUNC=%s", where.function),
      format("CODE_LINE=%d", where.line),
  };
  std::array<iovec, fields.size()> vectors;
  for (std::size_t i = 0; i < fields.size(); ++i) vectors[i] = vectorFor(fields[i]);
  if (sd_journal_sendv(vectors.data(), static_cast<int>(vectors.size())) < 0) {
    _fallback.write(level, where, file, line);
  }
}

void JournalLogSink::writePropertyList(int level, std::string_view fileName, const Value& value) {
  _fallback.writePropertyList(level, fileName, value);
}

}  // namespace tallow
