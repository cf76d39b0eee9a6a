#include "platform/VendBase/JournalLogSink.h"

// The fields of the place in the source are given by hand: it is the caller's, not this file's.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <sys/stat.h>
#include <sys/uio.h>
#include <syslog.h>
#include <systemd/sd-journal.h>

#include <cstdlib>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/VendBase/LogText.h"

namespace tallow {

namespace {

int priorityFor(int level) {
  if (level <= 1) return LOG_ERR;
  return level == 2 ? LOG_WARNING : LOG_DEBUG;
}

bool send(std::span<const std::string> fields) {
  std::vector<iovec> vectors;
  for (const std::string& field : fields)
    vectors.push_back({const_cast<char*>(field.data()), field.size()});
  return sd_journal_sendv(vectors.data(), static_cast<int>(vectors.size())) >= 0;
}

// Capitals, digits and underscores are all that the journal has in names.
std::string fieldName(std::string_view key) {
  std::string name(key);
  for (char& c : name) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    if (!(c >= 'A' && c <= 'Z') && !(c >= '0' && c <= '9')) c = '_';
  }
  return name;
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

std::vector<std::string> JournalLogSink::fieldsOf(const VBLogManager::Line& line) {
  std::vector<std::string> fields = {
      format("MESSAGE=%@", line.text),
      format("PRIORITY=%d", priorityFor(line.level)),
      format("TALLOW_LEVEL=%d", line.level),
      format("SYSLOG_IDENTIFIER=%s", VBLogManager::kIdentifier),
      format("CODE_FILE=%@", line.file),
      format("CODE_FUNC=%s", line.where.function),
      format("CODE_LINE=%d", line.where.line),
  };
  if (line.activity) {
    fields.push_back(format("TALLOW_CLIENT=%@", LogText::escaped(line.activity->client)));
    fields.push_back(format("TALLOW_OPERATION=%@", LogText::escaped(line.activity->operation)));
  }
  if (line.error != nullptr) {
    fields.push_back(format("TALLOW_ERROR_DOMAIN=%@", LogText::escaped(line.error->domain)));
    fields.push_back(format("TALLOW_ERROR_CODE=%ld", line.error->code));
  }
  return fields;
}

void JournalLogSink::write(const VBLogManager::Line& line) {
  if (!send(fieldsOf(line))) _fallback.write(line);
}

void JournalLogSink::writeEvent(std::string_view name, const Dictionary& arguments) {
  std::vector<std::string> fields = {
      format("MESSAGE=event %@ %@", name, arguments), format("PRIORITY=%d", LOG_INFO),
      format("SYSLOG_IDENTIFIER=%s", VBLogManager::kIdentifier), format("TALLOW_EVENT=%@", name)};
  for (const auto& [key, value] : arguments)
    fields.push_back(format("TALLOW_EVENT_%@=%@", fieldName(key), value));
  if (!send(fields)) _fallback.writeEvent(name, arguments);
}

void JournalLogSink::writePropertyList(int level, std::string_view fileName, const Value& value) {
  _fallback.writePropertyList(level, fileName, value);
}

}  // namespace tallow
