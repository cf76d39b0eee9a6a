#pragma once

#include <string>

#include "bus/org.freedesktop.LogControl1_adaptor.h"

namespace tallow {

// The object /org/freedesktop/LogControl1, through which "systemctl service-log-level" sets how
// much is logged. Owned by the listener; called on the reading thread. The bus library lets only
// root and the service's own user write.
class LogControlObject final
    : public sdbus::AdaptorInterfaces<org::freedesktop::LogControl1_adaptor> {
 public:
  static constexpr const char* kPath = "/org/freedesktop/LogControl1";

  explicit LogControlObject(sdbus::IConnection& connection);
  ~LogControlObject();
  LogControlObject(const LogControlObject&) = delete;
  LogControlObject& operator=(const LogControlObject&) = delete;

 private:
  std::string LogLevel() override;
  void LogLevel(const std::string& value) override;
  std::string LogTarget() override;
  std::string SyslogIdentifier() override;
};

}  // namespace tallow
