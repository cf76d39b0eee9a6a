#include "platform/Preferences/PreferencesFile.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <cerrno>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/Base/AtomicFile.h"
#include "platform/Base/Directories.h"
#include "platform/Base/FileDescriptor.h"
#include "platform/Base/FolderLock.h"
#include "platform/Base/Format.h"

namespace tallow {

namespace {

using Failure = PreferencesFile::Failure;

constexpr int kBusyTimeoutMilliseconds = 5000;
constexpr mode_t kPrivateMode = S_IRUSR | S_IWUSR;
// Small allocations a connection keeps at hand: the library's default would hold six times as much.
constexpr int kLookasideBytes = 128, kLookasideCount = 64;

// Every database of the process, this file and others, allocates pages as it needs them and not 80
// KiB in advance. The library takes its configuration only before its first use and from one thread
// alone: before main().
[[maybe_unused]] const bool kIsConfigured =
    sqlite3_config(SQLITE_CONFIG_PAGECACHE, nullptr, 0, 0) == SQLITE_OK &&
    sqlite3_config(SQLITE_CONFIG_LOOKASIDE, kLookasideBytes, kLookasideCount) == SQLITE_OK;

// The page cache is small on purpose: the values in use are cached above, decoded.
constexpr const char* kSettings =
    "PRAGMA cache_size=-64; PRAGMA temp_store=MEMORY; PRAGMA trusted_schema=OFF;"
    "PRAGMA cell_size_check=ON";
// A commit reaches the log (and so survives this process) at once; makeDurable() brings it to the
// disk.
constexpr const char* kWriterSettings =
    "PRAGMA synchronous=NORMAL; PRAGMA wal_autocheckpoint=256; PRAGMA journal_size_limit=1048576";
constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS preferences(domain TEXT NOT NULL, host TEXT NOT NULL,"
    " key TEXT NOT NULL, value BLOB NOT NULL, PRIMARY KEY(domain, host, key)) STRICT";

struct ConnectionClose {
  void operator()(sqlite3* connection) const { sqlite3_close_v2(connection); }
};
struct StatementFinalize {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using ConnectionPointer = std::unique_ptr<sqlite3, ConnectionClose>;
using StatementPointer = std::unique_ptr<sqlite3_stmt, StatementFinalize>;

Error fileError(Failure failure, std::string text) {
  return makeError(PreferencesFile::kErrorDomain, static_cast<std::int64_t>(failure),
                   std::move(text));
}

bool isFailure(const Error& error, Failure failure) {
  return error.code == static_cast<std::int64_t>(failure);
}

// Makes the file with the right mode from the start. An existing one is never opened here: closing
// it would drop the locks that this process's other connections hold on it.
void createPrivately(const std::filesystem::path& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    const FileDescriptor made(
        ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kPrivateMode));
  } else if (S_ISREG(status.st_mode) && (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    static_cast<void>(chmod(path.c_str(), kPrivateMode));
  }
}

// The file as an immutable one in the library's own notation.
std::string immutableName(const std::filesystem::path& path) {
  std::string name = "file:";
  for (const char character : path.native()) {
    switch (character) {
      case '%':
        name += "%25";
        break;
      case '?':
        name += "%3f";
        break;
      case '#':
        name += "%23";
        break;
      default:
        name += character;
    }
  }
  return name + "?immutable=1";
}

// A prepared statement in use; ready for its next use afterwards.
class Running {
 public:
  explicit Running(const StatementPointer& statement) : _statement(statement.get()) {}
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;
  ~Running() {
    sqlite3_reset(_statement);
    sqlite3_clear_bindings(_statement);
  }

  // What is bound must live until the statement has run.
  void bind(int index, std::string_view text) {
    sqlite3_bind_text64(_statement, index, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
  }
  void bind(int index, const Data& bytes) {
    if (bytes.empty()) {
      sqlite3_bind_zeroblob(_statement, index, 0);
    } else {
      sqlite3_bind_blob64(_statement, index, bytes.bytes(), bytes.length(), SQLITE_STATIC);
    }
  }
  void bind(const PreferencesFile::Place& place) {
    bind(1, place.domain);
    bind(2, place.host);
    bind(3, place.key);
  }
  int step() { return sqlite3_step(_statement); }

  std::int64_t integer() const { return sqlite3_column_int64(_statement, 0); }
  std::string_view text() const {
    const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(_statement, 0));
    return bytes == nullptr ? std::string_view() : std::string_view(bytes);
  }
  Data data() const {
    const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(_statement, 0));
    const auto length = static_cast<std::size_t>(sqlite3_column_bytes(_statement, 0));
    return Data(std::span<const std::uint8_t>(bytes, length));
  }

 private:
  sqlite3_stmt* const _statement;
};

}  // namespace

struct PreferencesFile::Database {
  ConnectionPointer connection;
  StatementPointer dataVersion, read, write, remove, begin, commit, rollback;
  dev_t device = 0;
  ino_t inode = 0;
  bool isWritable = false;

  std::optional<Error> connect(const std::filesystem::path& path, const char* name, int flags);
  std::optional<Error> prepareFormat();
  std::optional<Error> prepareStatements();
  std::optional<Error> prepare(const char* sql, StatementPointer& statement) const;
  std::optional<Error> execute(const char* sql) const;
  Result<std::int64_t> formatVersion() const;
  std::optional<Error> useLog() const;
  std::optional<Error> run(const StatementPointer& statement) const;
  Error lastError() const;
  // Closing this connection will not fold the log into the file.
  void leaveLogAlone() const;
};

Error PreferencesFile::Database::lastError() const {
  const int code = sqlite3_errcode(connection.get()) & 0xff;
  std::string text = sqlite3_errmsg(connection.get());
  const int system = sqlite3_system_errno(connection.get());
  const bool isFromSystem = code == SQLITE_IOERR || code == SQLITE_CANTOPEN || code == SQLITE_FULL;
  if (isFromSystem && system != 0) {
    text += " (" + std::generic_category().message(system) + ")";
  }
  const bool isCorrupt = code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
  return fileError(isCorrupt ? Failure::Corrupt : Failure::Refused, std::move(text));
}

std::optional<Error> PreferencesFile::Database::connect(const std::filesystem::path& path,
                                                        const char* name, int flags) {
  sqlite3* opened = nullptr;
  const int result =
      sqlite3_open_v2(name, &opened, flags | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE, nullptr);
  connection.reset(opened);
  if (opened == nullptr) return fileError(Failure::Refused, "out of memory");
  if (result != SQLITE_OK) return lastError();
  sqlite3_busy_timeout(opened, kBusyTimeoutMilliseconds);
  isWritable = sqlite3_db_readonly(opened, "main") == 0;
  struct stat status {};
  if (stat(path.c_str(), &status) == 0) {
    device = status.st_dev;
    inode = status.st_ino;
  }
  return execute(kSettings);
}

// Looks at the version before anything is changed, and makes the table in a new file.
std::optional<Error> PreferencesFile::Database::prepareFormat() {
  Result<std::int64_t> version = formatVersion();
  if (!version) return version.error();
  if (*version > kFormatVersion) {
    return fileError(Failure::NewerFormat,
                     format("format %ld is newer than %d, the newest this program knows", *version,
                            kFormatVersion));
  }
  if (isWritable) {
    if (auto error = useLog()) return error;
    if (auto error = execute(kWriterSettings)) return error;
    if (*version < kFormatVersion) {
      const std::string upgrade =
          format("BEGIN IMMEDIATE; %s; PRAGMA user_version=%d; COMMIT", kSchema, kFormatVersion);
      if (auto error = execute(upgrade.c_str())) return error;
    }
  } else if (*version < kFormatVersion) {
    return fileError(Failure::Refused, "not a preferences file, and read-only");
  }
  return prepareStatements();
}

Result<std::int64_t> PreferencesFile::Database::formatVersion() const {
  StatementPointer statement;
  if (auto error = prepare("PRAGMA user_version", statement)) return *error;
  Running query(statement);
  if (query.step() != SQLITE_ROW) return lastError();
  return query.integer();
}

std::optional<Error> PreferencesFile::Database::useLog() const {
  StatementPointer statement;
  if (auto error = prepare("PRAGMA journal_mode=WAL", statement)) return error;
  Running change(statement);
  if (change.step() != SQLITE_ROW) return lastError();
  if (change.text() == "wal") return std::nullopt;
  return fileError(Failure::Refused, "this file system does not allow a write-ahead log");
}

std::optional<Error> PreferencesFile::Database::prepareStatements() {
  const std::pair<const char*, StatementPointer&> all[] = {
      {"PRAGMA data_version", dataVersion},
      {"SELECT value FROM preferences WHERE domain=?1 AND host=?2 AND key=?3", read},
      {"INSERT INTO preferences(domain, host, key, value) VALUES(?1, ?2, ?3, ?4)"
       " ON CONFLICT(domain, host, key) DO UPDATE SET value=excluded.value",
       write},
      {"DELETE FROM preferences WHERE domain=?1 AND host=?2 AND key=?3", remove},
      {"BEGIN IMMEDIATE", begin},
      {"COMMIT", commit},
      {"ROLLBACK", rollback},
  };
  for (const auto& [sql, statement] : all) {
    auto error = prepare(sql, statement);
    // The version is right but the table is not what it says.
    const bool isMalformed = error && sqlite3_errcode(connection.get()) == SQLITE_ERROR;
    if (isMalformed) return fileError(Failure::Corrupt, error->localizedDescription());
    if (error) return error;
  }
  return std::nullopt;
}

std::optional<Error> PreferencesFile::Database::prepare(const char* sql,
                                                        StatementPointer& statement) const {
  sqlite3_stmt* prepared = nullptr;
  const int result =
      sqlite3_prepare_v3(connection.get(), sql, -1, SQLITE_PREPARE_PERSISTENT, &prepared, nullptr);
  statement.reset(prepared);
  if (result != SQLITE_OK) return lastError();
  return std::nullopt;
}

std::optional<Error> PreferencesFile::Database::execute(const char* sql) const {
  if (sqlite3_exec(connection.get(), sql, nullptr, nullptr, nullptr) == SQLITE_OK) {
    return std::nullopt;
  }
  return lastError();
}

std::optional<Error> PreferencesFile::Database::run(const StatementPointer& statement) const {
  Running running(statement);
  if (running.step() == SQLITE_DONE) return std::nullopt;
  return lastError();
}

void PreferencesFile::Database::leaveLogAlone() const {
  sqlite3_db_config(connection.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
}

namespace {

bool hasLog(const std::filesystem::path& path) {
  std::error_code error;
  const auto bytes = std::filesystem::file_size(path.native() + "-wal", error);
  return !error && bytes > 0;
}

}  // namespace

PreferencesFile::PreferencesFile(std::unique_ptr<Database> database)
    : _database(std::move(database)) {}

PreferencesFile::~PreferencesFile() = default;

Result<std::unique_ptr<PreferencesFile>> PreferencesFile::open(const std::filesystem::path& path) {
  static_cast<void>(ensureDirectoryExists(path.parent_path()));
  const FolderLock lock(path.parent_path());
  return openLocked(path);
}

Result<std::unique_ptr<PreferencesFile>> PreferencesFile::openLocked(
    const std::filesystem::path& path) {
  createPrivately(path);
  auto database = std::make_unique<Database>();
  std::optional<Error> error = database->connect(path, path.c_str(), SQLITE_OPEN_READWRITE);
  if (!error) error = database->prepareFormat();
  if (error) database->leaveLogAlone();
  if (error && isFailure(*error, Failure::Refused) && !hasLog(path)) {
    // No log can be made. What the file itself holds can still be read; with a log that cannot be
    // used, that would be an older state, or half of two.
    auto immutable = std::make_unique<Database>();
    if (!immutable->connect(path, immutableName(path).c_str(),
                            SQLITE_OPEN_READONLY | SQLITE_OPEN_URI) &&
        !immutable->prepareFormat()) {
      database = std::move(immutable);
      error.reset();
    }
  }
  if (error) return *error;
  return std::unique_ptr<PreferencesFile>(new PreferencesFile(std::move(database)));
}

bool PreferencesFile::isWritable() const {
  return _database->isWritable;
}

bool PreferencesFile::isAt(const std::filesystem::path& path) const {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && status.st_dev == _database->device &&
         status.st_ino == _database->inode;
}

Result<std::int64_t> PreferencesFile::dataVersion() {
  Running query(_database->dataVersion);
  if (query.step() != SQLITE_ROW) return _database->lastError();
  return query.integer();
}

Result<std::optional<Data>> PreferencesFile::read(const Place& place) {
  Running query(_database->read);
  query.bind(place);
  const int result = query.step();
  if (result == SQLITE_DONE) return std::optional<Data>();
  if (result != SQLITE_ROW) return _database->lastError();
  return std::optional<Data>(query.data());
}

Result<std::set<std::string>> PreferencesFile::keys(std::string_view domain,
                                                    std::string_view host) {
  StatementPointer statement;  // asked for by people only: not worth keeping
  if (auto error =
          _database->prepare("SELECT key FROM preferences WHERE domain=?1 AND host=?2", statement))
    return *error;
  Running query(statement);
  query.bind(1, domain);
  query.bind(2, host);
  std::set<std::string> keys;
  int result = query.step();
  for (; result == SQLITE_ROW; result = query.step()) keys.emplace(query.text());
  if (result != SQLITE_DONE) return _database->lastError();
  return keys;
}

std::optional<Error> PreferencesFile::beginWriting() {
  if (!_database->isWritable) return fileError(Failure::Refused, "open for reading only");
  return _database->run(_database->begin);
}

std::optional<Error> PreferencesFile::write(const Place& place, const std::optional<Data>& bytes) {
  Running change(bytes ? _database->write : _database->remove);
  change.bind(place);
  if (bytes) change.bind(4, *bytes);
  if (change.step() == SQLITE_DONE) return std::nullopt;
  return _database->lastError();
}

std::optional<Error> PreferencesFile::commit() {
  auto error = _database->run(_database->commit);
  if (error) rollback();
  return error;
}

void PreferencesFile::rollback() {
  // Some failures have ended the transaction already.
  if (sqlite3_get_autocommit(_database->connection.get()) != 0) return;
  static_cast<void>(_database->run(_database->rollback));
}

std::optional<Error> PreferencesFile::makeDurable() {
  sqlite3_file* log = nullptr;
  sqlite3_file_control(_database->connection.get(), "main", SQLITE_FCNTL_JOURNAL_POINTER, &log);
  if (log == nullptr || log->pMethods == nullptr) return std::nullopt;  // nothing was ever written
  if (log->pMethods->xSync(log, SQLITE_SYNC_NORMAL) == SQLITE_OK) return std::nullopt;
  return fileError(Failure::Refused, "cannot bring the log to the disk");
}

std::optional<Error> PreferencesFile::setAside(const std::filesystem::path& path,
                                               std::unique_ptr<PreferencesFile> damaged) {
  const FolderLock lock(path.parent_path());
  if (damaged) {
    // Another process may have been here first; the file that is there now is not the damaged one.
    if (!damaged->isAt(path)) return std::nullopt;
    damaged->_database->leaveLogAlone();
    damaged.reset();
  } else if (Result<std::unique_ptr<PreferencesFile>> now = openLocked(path);
             now || !isFailure(now.error(), Failure::Corrupt)) {
    return std::nullopt;
  }
  // The log goes first: were this process to end in between, it must not be taken for the log of
  // the file that will be made next.
  std::filesystem::path log = path, logIndex = path;
  log += "-wal";
  logIndex += "-shm";
  std::error_code ignored;
  if (std::filesystem::exists(log, ignored)) {
    if (const auto moved = setAsideAsCorrupt(log); !moved) return moved.error();
  }
  std::filesystem::remove(logIndex, ignored);  // holds nothing that the log does not
  if (const auto moved = setAsideAsCorrupt(path); !moved) return moved.error();
  return std::nullopt;
}

}  // namespace tallow
