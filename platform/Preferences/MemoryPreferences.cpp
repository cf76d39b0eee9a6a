#include "platform/Preferences/MemoryPreferences.h"

#include <cerrno>
#include <set>

#include "platform/VendBase/VBLogManager.h"

namespace tallow {

class MemoryPreferences::MemoryEditor final : public Editor {
 public:
  MemoryEditor(MemoryPreferences& preferences, std::string_view domain)
      : _preferences(preferences), _domain(domain) {}

  Value value(std::string_view key) override { return _preferences.valueAt(place(key)); }
  void setValue(std::string_view key, const Value& value) override {
    _preferences.setValueAt(place(key), value);
  }

 private:
  Place place(std::string_view key) const {
    return placeFor(key, _domain, User::Current, Host::Any);
  }

  MemoryPreferences& _preferences;
  const std::string_view _domain;
};

Value MemoryPreferences::copyValue(std::string_view key, std::string_view domain, User user,
                                   Host host) {
  const std::lock_guard lock(_mutex);
  if (_readsFail && user == User::Current) return {};
  return valueAt(placeFor(key, domain, user, host));
}

Result<Value> MemoryPreferences::tryToCopyValue(std::string_view key, std::string_view domain,
                                                Host host) {
  const std::lock_guard lock(_mutex);
  if (_readsFail) return makeError(Preferences::kClassName, EIO, "cannot be read");
  return valueAt(placeFor(key, domain, User::Current, host));
}

std::vector<std::string> MemoryPreferences::copyAppKeyList(std::string_view domain) {
  const std::lock_guard lock(_mutex);
  std::set<std::string> keys;
  for (const auto& [place, value] : _values) {
    if (std::get<2>(place) == domain) keys.insert(std::get<3>(place));
  }
  return {keys.begin(), keys.end()};
}

void MemoryPreferences::setValue(std::string_view key, const Value& value, std::string_view domain,
                                 User user, Host host) {
  if (user == User::Any) {
    logLevel(1, "Preferences: %@ of %@ for any user is for administrators to set", key, domain);
    return;
  }
  const std::lock_guard lock(_mutex);
  setValueAt(placeFor(key, domain, user, host), value);
}

bool MemoryPreferences::synchronize(std::string_view domain, User user, Host host) {
  const std::lock_guard lock(_mutex);
  _synchronizations.push_back({std::string(domain), user, host});
  return !_writesFail;
}

bool MemoryPreferences::update(std::string_view domain,
                               const std::function<void(Editor&)>& change) {
  const std::lock_guard lock(_mutex);
  MemoryEditor editor(*this, domain);
  const auto before = _values;
  change(editor);
  if (!_writesFail && !_readsFail) return true;
  _values = before;
  return false;
}

void MemoryPreferences::setAnyUserValue(std::string_view key, const Value& value,
                                        std::string_view domain) {
  const std::lock_guard lock(_mutex);
  setValueAt(placeFor(key, domain, User::Any, Host::Any), value);
}

void MemoryPreferences::setWritesFail(bool fail) {
  const std::lock_guard lock(_mutex);
  _writesFail = fail;
}

void MemoryPreferences::setReadsFail(bool fail) {
  const std::lock_guard lock(_mutex);
  _readsFail = fail;
}

std::vector<MemoryPreferences::Synchronization> MemoryPreferences::synchronizations() const {
  const std::lock_guard lock(_mutex);
  return _synchronizations;
}

// What an administrator wrote holds for the current host and for any.
MemoryPreferences::Place MemoryPreferences::placeFor(std::string_view key, std::string_view domain,
                                                     User user, Host host) {
  const Host placeHost = user == User::Any ? Host::Any : host;
  return {user, placeHost, std::string(domain), std::string(key)};
}

Value MemoryPreferences::valueAt(const Place& place) const {
  const auto found = _values.find(place);
  return found != _values.end() ? found->second : Value();
}

void MemoryPreferences::setValueAt(const Place& place, const Value& value) {
  if (value.isNil()) {
    _values.erase(place);
  } else {
    _values.insert_or_assign(place, value);
  }
}

}  // namespace tallow
