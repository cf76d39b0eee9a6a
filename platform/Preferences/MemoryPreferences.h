#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "platform/Preferences/Preferences.h"

namespace tallow {

// Preferences for tests, in memory only:
//   MemoryPreferences preferences;
//   const ScopedShared<Preferences> scope(preferences);
// Any thread.
class MemoryPreferences final : public Preferences {
 public:
  Value copyValue(std::string_view key, std::string_view domain, User user, Host host) override;
  Result<Value> tryToCopyValue(std::string_view key, std::string_view domain, Host host) override;
  std::vector<std::string> copyAppKeyList(std::string_view domain) override;
  void setValue(std::string_view key, const Value& value, std::string_view domain, User user,
                Host host) override;
  bool synchronize(std::string_view domain, User user, Host host) override;
  bool update(std::string_view domain, const std::function<void(Editor&)>& change) override;

  // What an administrator would have written.
  void setAnyUserValue(std::string_view key, const Value& value, std::string_view domain);
  // From now on the disk refuses writes: what setValue() changes is only in memory, update()
  // changes nothing, and synchronize() and update() answer false.
  void setWritesFail(bool fail);
  // From now on nothing of the current user's can be read, nor updated.
  void setReadsFail(bool fail);

  struct Synchronization {
    std::string domain;
    User user;
    Host host;
    friend bool operator==(const Synchronization&, const Synchronization&) = default;
  };
  // Every synchronize() so far, in order.
  std::vector<Synchronization> synchronizations() const;

 private:
  using Place = std::tuple<User, Host, std::string, std::string>;
  class MemoryEditor;

  static Place placeFor(std::string_view key, std::string_view domain, User user, Host host);
  Value valueAt(const Place& place) const;
  void setValueAt(const Place& place, const Value& value);

  mutable std::mutex _mutex;  // guards everything below
  std::map<Place, Value> _values;
  std::vector<Synchronization> _synchronizations;
  bool _writesFail = false;
  bool _readsFail = false;
};

}  // namespace tallow
