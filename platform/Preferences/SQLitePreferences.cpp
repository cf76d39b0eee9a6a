#include "platform/Preferences/SQLitePreferences.h"

#include <systemd/sd-id128.h>
#include <unistd.h>

#include <array>
#include <set>
#include <system_error>
#include <utility>

#include "platform/Base/Clock.h"
#include "platform/Base/Directories.h"
#include "platform/Preferences/Preferences.h"
#include "platform/PropertyList/PropertyList.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {

namespace {

constexpr double kSecondsBetweenTries = 1;

// What the property-list decoder would refuse to read back.
constexpr std::size_t kMaxValueBytes = 16u << 20;
// Encoded sizes; a decoded value takes a few times as much.
constexpr std::size_t kMaxCacheBytes = 32u << 10;
constexpr std::size_t kCacheEntryBytes = 128;

// Stands for this machine without telling which it is.
std::string currentHostIdentifier() {
  constexpr sd_id128_t kApplication = {{0x5e, 0x1d, 0x70, 0x8c, 0x9a, 0x3b, 0x4f, 0x02,  //
                                        0xb6, 0xc7, 0x21, 0xe4, 0x0d, 0x98, 0xa6, 0x13}};
  sd_id128_t machine;
  if (sd_id128_get_machine_app_specific(kApplication, &machine) >= 0) {
    std::array<char, SD_ID128_STRING_MAX> text{};
    return sd_id128_to_string(machine, text.data());
  }
  std::array<char, 256> name{};
  if (gethostname(name.data(), name.size() - 1) == 0 && name[0] != '\0') return name.data();
  return "localhost";
}

}  // namespace

// Inside update(): what has been set so far over what is stored.
class SQLitePreferences::UpdateEditor final : public Editor {
 public:
  UpdateEditor(SQLitePreferences& preferences, std::string_view domain)
      : _preferences(preferences), _domain(domain) {}

  Value value(std::string_view key) override {
    const Place place = placeFor(key);
    const auto changed = changes.find(place);
    if (changed != changes.end()) return changed->second.value;
    const Result<Value> stored = _preferences.tryToRead(place);
    hasFailed = hasFailed || !stored;
    return stored ? *stored : Value();
  }
  void setValue(std::string_view key, const Value& value) override {
    const Place place = placeFor(key);
    auto change = changeFor(place, value);
    hasFailed = hasFailed || !change;
    if (change) changes.insert_or_assign(place, *std::move(change));
  }

  Changes changes;
  // Something could not be read, or is too large to be written: what was computed is worth nothing.
  bool hasFailed = false;

 private:
  Place placeFor(std::string_view key) const {
    return _preferences.placeFor(key, _domain, Host::Any);
  }

  SQLitePreferences& _preferences;
  const std::string_view _domain;
};

SQLitePreferences::Configuration SQLitePreferences::configurationFor(
    const Directories& directories) {
  Configuration configuration{
      directories.configHome / "preferences.db", {}, currentHostIdentifier()};
  for (const std::filesystem::path& folder : directories.systemConfigDirs()) {
    configuration.administratorFolders.push_back(folder / "preferences");
  }
  return configuration;
}

SQLitePreferences::SQLitePreferences(Configuration configuration)
    : _configuration(std::move(configuration)),
      _administrators(_configuration.administratorFolders) {}

SQLitePreferences::~SQLitePreferences() {
  const std::lock_guard lock(_mutex);
  static_cast<void>(writePending());
}

Value SQLitePreferences::copyValue(std::string_view key, std::string_view domain, User user,
                                   Host host) {
  if (user == User::Any) return _administrators.value(key, domain);
  const std::lock_guard lock(_mutex);
  return read(placeFor(key, domain, host));
}

Result<Value> SQLitePreferences::tryToCopyValue(std::string_view key, std::string_view domain,
                                                Host host) {
  const std::lock_guard lock(_mutex);
  return tryToRead(placeFor(key, domain, host));
}

std::vector<std::string> SQLitePreferences::copyAppKeyList(std::string_view domain) {
  std::set<std::string> keys = _administrators.keys(domain);
  const std::lock_guard lock(_mutex);
  for (const Host host : {Host::Any, Host::Current}) {
    const std::string hostName = placeFor("", domain, host).host;
    std::set<std::string> stored;
    if (ensureOpen(false)) {
      if (auto found = _file->keys(domain, hostName)) {
        stored = *std::move(found);
      } else {
        static_cast<void>(recoverFrom(found.error(), "read"));
      }
    }
    for (const auto& [place, change] : _pending) {
      if (place.domain != domain || place.host != hostName) continue;
      if (change.value.isNil()) {
        stored.erase(place.key);
      } else {
        stored.insert(place.key);
      }
    }
    keys.merge(stored);
  }
  return {keys.begin(), keys.end()};
}

void SQLitePreferences::setValue(std::string_view key, const Value& value, std::string_view domain,
                                 User user, Host host) {
  if (user == User::Any) {
    logLevel(1, "%@: %@ of %@ for any user is for administrators to set", Preferences::kClassName,
             key, domain);
    return;
  }
  const Place place = placeFor(key, domain, host);
  std::optional<Change> change = changeFor(place, value);
  if (!change) return;
  const std::lock_guard lock(_mutex);
  _pending.insert_or_assign(place, *std::move(change));
  static_cast<void>(writePending());
}

// There is one file, so whatever is asked for, everything becomes durable.
bool SQLitePreferences::synchronize(std::string_view, User, Host) {
  const std::lock_guard lock(_mutex);
  _failedToOpenSeconds.reset();
  // A file that could only be read as it was is opened afresh: it sees no other process's writes.
  if (_file && !_file->isWritable()) close();
  if (!writePending()) return false;
  if (_isDurable || !_file) return true;
  if (const auto error = _file->makeDurable()) {
    static_cast<void>(recoverFrom(*error, "synchronize"));
    return false;
  }
  _isDurable = true;
  return true;
}

bool SQLitePreferences::update(std::string_view domain,
                               const std::function<void(Editor&)>& change) {
  const std::lock_guard lock(_mutex);
  if (!beginWriting()) return false;
  UpdateEditor editor(*this, domain);
  change(editor);
  if (editor.hasFailed) {
    if (_isWriting) _file->rollback();
    _isWriting = false;
    return false;
  }
  _pendingIfRefused = _pending;
  for (const auto& [place, changed] : editor.changes) _pending.insert_or_assign(place, changed);
  // A damaged file that was found while reading has ended the transaction.
  const bool isWritten =
      _isWriting ? commitPending() || (!_file && writePending()) : writePending();
  // What was computed from one state of the file is not written over a later one.
  if (!isWritten) _pending = *std::move(_pendingIfRefused);
  _pendingIfRefused.reset();
  return isWritten;
}

std::size_t SQLitePreferences::pendingChanges() const {
  const std::lock_guard lock(_mutex);
  return _pending.size();
}

SQLitePreferences::Place SQLitePreferences::placeFor(std::string_view key, std::string_view domain,
                                                     Host host) const {
  const std::string hostName = host == Host::Current ? _configuration.hostIdentifier : "";
  return {std::string(domain), hostName, std::string(key)};
}

std::optional<SQLitePreferences::Change> SQLitePreferences::changeFor(const Place& place,
                                                                      const Value& value) {
  if (value.isNil()) return Change{};
  Data bytes = PropertyList::encode(value, PropertyList::Format::Binary);
  if (bytes.length() <= kMaxValueBytes) return Change{value, std::move(bytes)};
  logLevel(1, "%@: %@ of %@ is too large: %lu bytes", Preferences::kClassName, place.key,
           place.domain, bytes.length());
  return std::nullopt;
}

bool SQLitePreferences::ensureOpen(bool isForWriting) {
  if (_isWriting) return true;
  if (_file && !_file->isAt(_configuration.file)) {
    logLevel(2, "%@: %@ has been replaced", Preferences::kClassName, _configuration.file.native());
    close();
  }
  if (!_file) {
    // Reading makes no file.
    return (isForWriting || (mayTryToOpen() && fileExists())) && open() && ensureOpen(isForWriting);
  }
  if (!isForWriting || _file->isWritable()) return true;
  // It could only be opened for reading; perhaps that has changed.
  close();
  if (!open()) return false;
  if (!_file->isWritable()) {
    logLevel(1, "%@: cannot write to %@: it is read-only", Preferences::kClassName,
             _configuration.file.native());
  }
  return _file->isWritable();
}

// What stands in the way may pass; but readers do not try each time, and log it.
bool SQLitePreferences::mayTryToOpen() const {
  return !_failedToOpenSeconds ||
         Clock::shared().monotonicSeconds() - *_failedToOpenSeconds >= kSecondsBetweenTries;
}

// Also when it cannot be told: opening will say why.
bool SQLitePreferences::fileExists() const {
  std::error_code error;
  return std::filesystem::exists(_configuration.file, error) || error;
}

bool SQLitePreferences::open() {
  for (int attempt = 0; attempt < 2; ++attempt) {
    auto opened = PreferencesFile::open(_configuration.file);
    if (opened) {
      _file = std::move(*opened);
      return true;
    }
    if (!recoverFrom(opened.error(), "open")) break;
  }
  _failedToOpenSeconds = Clock::shared().monotonicSeconds();
  return false;
}

void SQLitePreferences::close() {
  _file.reset();
  _failedToOpenSeconds.reset();
  _isWriting = false;
  clearCache();
}

Value SQLitePreferences::read(const Place& place) {
  const Result<Value> stored = tryToRead(place);
  return stored ? *stored : Value();
}

// A value that is pending here is newer than what is stored.
Result<Value> SQLitePreferences::tryToRead(const Place& place) {
  if (const auto pending = _pending.find(place); pending != _pending.end()) {
    return pending->second.value;
  }
  if (!ensureOpen(false)) {
    if (!fileExists()) return Value();
    return makeError(PreferencesFile::kErrorDomain,
                     static_cast<std::int64_t>(PreferencesFile::Failure::Refused),
                     _configuration.file.native() + " cannot be opened");
  }
  Result<Value> stored = readFromFile(place);
  if (stored || !recoverFrom(stored.error(), "read")) return stored;
  // What the damaged file is known to have held is pending now.
  const auto kept = _pending.find(place);
  return kept != _pending.end() ? kept->second.value : Value();
}

Result<Value> SQLitePreferences::readFromFile(const Place& place) {
  if (const auto error = dropCacheIfOthersWrote()) return *error;
  if (const auto cached = _cache.find(place); cached != _cache.end()) return cached->second;
  const Result<std::optional<Data>> bytes = _file->read(place);
  if (!bytes) return bytes.error();
  Value value;
  if (*bytes) {
    if (Result<Value> decoded = PropertyList::decode(**bytes, kMaxValueBytes)) {
      value = *std::move(decoded);
    } else {
      logLevel(1, "%@: %@ of %@ cannot be understood: %@", Preferences::kClassName, place.key,
               place.domain, decoded.error().localizedDescription());
    }
  }
  remember(place, value, *bytes ? (*bytes)->length() : 0);
  return value;
}

std::optional<Error> SQLitePreferences::dropCacheIfOthersWrote() {
  const Result<std::int64_t> version = _file->dataVersion();
  if (!version) return version.error();
  if (*version != _cacheVersion) clearCache();
  _cacheVersion = *version;
  return std::nullopt;
}

void SQLitePreferences::remember(const Place& place, const Value& value, std::size_t bytes) {
  const std::size_t size = bytes + kCacheEntryBytes;
  _cache.erase(place);
  if (size > kMaxCacheBytes) return;
  if (_cachedBytes + size > kMaxCacheBytes) clearCache();
  _cachedBytes += size;
  _cache.emplace(place, value);
}

void SQLitePreferences::clearCache() {
  _cache.clear();
  _cachedBytes = 0;
}

bool SQLitePreferences::writePending() {
  if (_pending.empty()) return true;
  // Once more if a damaged file had to make room for a new one.
  return beginWriting() && (commitPending() || (!_file && beginWriting() && commitPending()));
}

bool SQLitePreferences::beginWriting() {
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (!ensureOpen(true)) return false;
    const auto error = _file->beginWriting();
    _isWriting = !error;
    if (!error) return true;
    if (!recoverFrom(*error, "write to")) return false;
  }
  return false;
}

bool SQLitePreferences::commitPending() {
  // While nobody else can write: what is remembered below is what this state of the file holds.
  std::optional<Error> error = dropCacheIfOthersWrote();
  for (const auto& [place, change] : _pending) {
    if (!error) error = _file->write(place, change.bytes);
  }
  if (error) {
    _file->rollback();
  } else {
    error = _file->commit();
  }
  _isWriting = false;
  if (error) {
    static_cast<void>(recoverFrom(*error, "write to"));
    return false;
  }
  for (const auto& [place, change] : _pending) {
    remember(place, change.value, change.bytes ? change.bytes->length() : 0);
  }
  _isDurable = _isDurable && _pending.empty();
  _pending.clear();
  return true;
}

bool SQLitePreferences::recoverFrom(const Error& error, const char* action) {
  const std::filesystem::path& path = _configuration.file;
  logLevel(1, "%@: cannot %s %@: %@", Preferences::kClassName, action, path.native(),
           error.localizedDescription());
  if (error.code != static_cast<std::int64_t>(PreferencesFile::Failure::Corrupt)) return false;
  // What is read without its log may only look damaged.
  if (_file && !_file->isWritable()) return false;
  // What this process knows goes into the new file.
  for (const auto& [place, value] : _cache) {
    if (value.isNil()) continue;
    const auto change = changeFor(place, value);
    if (!change) continue;
    _pending.emplace(place, *change);
    if (_pendingIfRefused) _pendingIfRefused->emplace(place, *change);
  }
  std::unique_ptr<PreferencesFile> damaged = std::move(_file);
  close();
  if (const auto failure = PreferencesFile::setAside(path, std::move(damaged))) {
    logLevel(1, "%@: cannot set %@ aside: %@", Preferences::kClassName, path.native(),
             failure->localizedDescription());
    _failedToOpenSeconds = Clock::shared().monotonicSeconds();
    return false;
  }
  logLevel(1, "%@: %@ is damaged and has been set aside", Preferences::kClassName, path.native());
  return true;
}

}  // namespace tallow
