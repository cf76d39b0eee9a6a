#include "platform/XPC/LogControlObject.h"

#include <cerrno>
#include <utility>

#include "platform/VendBase/VBLogManager.h"

namespace tallow {

namespace {

// syslog(3) knows eight levels, the log three, and none at all.
constexpr std::pair<const char*, int> kLevels[] = {
    {"emerg", 0},   {"alert", 0},  {"crit", 0}, {"err", 1},   {"error", 1},
    {"warning", 2}, {"notice", 2}, {"info", 3}, {"debug", 3},
};
constexpr const char* kNames[] = {"crit", "err", "warning", "debug"};

}  // namespace

LogControlObject::LogControlObject(sdbus::IConnection& connection)
    : AdaptorInterfaces(connection, sdbus::ObjectPath{kPath}) {
  registerAdaptor();
}

LogControlObject::~LogControlObject() {
  unregisterAdaptor();
}

std::string LogControlObject::LogLevel() {
  return kNames[VBLogManager::sharedManager().threshold()];
}

void LogControlObject::LogLevel(const std::string& value) {
  for (const auto& [name, level] : kLevels) {
    if (value != name) continue;
    VBLogManager::sharedManager().setThreshold(level);
    return;
  }
  throw sdbus::createError(EINVAL, "\"" + value + "\" is not a log level");
}

std::string LogControlObject::LogTarget() {
  return "auto";
}

std::string LogControlObject::SyslogIdentifier() {
  return "tallowd";
}

}  // namespace tallow
