#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Base/Result.h"
#include "platform/Base/Value.h"

namespace tallow {

// The platform preferences: property-list values by domain, key, user and host.
//
// Values of the current user are kept in one SQLite file in WAL mode (one row per domain, host and
// key, the value a binary property list), shared by several processes; those of any user are read
// from the administrators' files tallowd/preferences/DOMAIN.toml in the configuration directories,
// and are never written. A write survives kill -9 once the call has returned, and a power cut once
// the domain has been synchronized. When the disk refuses a write the change is kept in memory, the
// failure is logged, and the next write or synchronize tries again.
//
// Callable from any thread.
class Preferences {
 public:
  static constexpr const char* kClassName = "Preferences";  // in log lines

  enum class User { Current, Any };
  enum class Host { Current, Any };

  virtual ~Preferences() = default;
  static Preferences& shared();

  // The exact place only. Nil when there is no value, or when it cannot be read just now.
  virtual Value copyValue(std::string_view key, std::string_view domain, User user, Host host) = 0;
  // The same of the current user, for whom the difference matters: nil when there is no value, an
  // error when it cannot be told.
  virtual Result<Value> tryToCopyValue(std::string_view key, std::string_view domain,
                                       Host host) = 0;
  // The application's search list: current user and current host, current user and any host, then
  // any user.
  Value copyAppValue(std::string_view key, std::string_view domain);
  // The keys that have a value somewhere in the application's search list, in order.
  virtual std::vector<std::string> copyAppKeyList(std::string_view domain) = 0;
  // The search list's value if it answers to boolValue (and then *exists is true), else false.
  bool getAppBooleanValue(std::string_view key, std::string_view domain, bool* exists = nullptr);

  // Nil removes the key. Writing for any user is refused, logged, and changes nothing.
  virtual void setValue(std::string_view key, const Value& value, std::string_view domain,
                        User user, Host host) = 0;
  // Makes everything written to the domain so far durable, and picks up what other processes wrote:
  // what could not be read is looked for again at once.
  // False, logged, when something could not be written.
  virtual bool synchronize(std::string_view domain, User user, Host host) = 0;

  // Read-modify-write of the current user's values of one domain (any host) as one transaction that
  // excludes every other writer, in other processes too. `change` reads and sets through `Editor`;
  // it must not call back into Preferences. True when the change is on disk; else nothing has been
  // changed, and whoever wants it changed has to ask again: what was computed from one state must
  // not replace what others have written since.
  class Editor {
   public:
    virtual ~Editor() = default;
    virtual Value value(std::string_view key) = 0;
    virtual void setValue(std::string_view key, const Value& value) = 0;
  };
  virtual bool update(std::string_view domain, const std::function<void(Editor&)>& change) = 0;
};

}  // namespace tallow
