#pragma once

#include <filesystem>

#include "platform/VendBase/PropertyListLogFiles.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {

// Writes log lines to a file descriptor, standard error as a rule, one write per line so that lines
// of several threads and processes do not mix:
//   2026-03-01 12:30:00 +0000 tallowd[4711] 1 Bag:120: text
//   2026-03-01 12:30:00 +0000 tallowd[4711] event com.example.event {"result": "fail"}
// Any thread.
class StandardErrorLogSink final : public VBLogManager::Sink {
 public:
  explicit StandardErrorLogSink(std::filesystem::path propertyListFolder, int descriptor = 2);

  void write(const VBLogManager::Line& line) override;
  void writePropertyList(int level, std::string_view fileName, const Value& value) override;
  void writeEvent(std::string_view name, const Dictionary& arguments) override;

 private:
  void writeLine(std::string_view text) const;

  const int _descriptor;
  PropertyListLogFiles _files;
};

}  // namespace tallow
