#include "platform/Cookies/CookieDatabase.h"

#include <fcntl.h>
#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "platform/Base/FolderLock.h"
#include "platform/Cookies/CookieFile.h"
#include "platform/Cookies/CookieJar.h"
#include "platform/Cookies/CookieRows.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {
namespace {

constexpr int kBusyMilliseconds = 500;

// Pages in the log. Whoever opens the file after a kill reads all of it before the first lookup, so
// that it is emptied early, off the way of who stores; and by who stores where that has not
// happened.
constexpr int kLongLog = 32;
constexpr int kTooLongLog = 256;

static_assert(CookieDatabase::kVersion == CookieRows::kVersion);

struct Finalize {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

struct Close {
  void operator()(sqlite3* database) const { sqlite3_close_v2(database); }
};

// Resets a statement when its use ends, so that it holds neither locks nor values.
class Use {
 public:
  explicit Use(sqlite3_stmt* statement) : _statement(statement) {}
  ~Use() {
    sqlite3_reset(_statement);
    sqlite3_clear_bindings(_statement);
  }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;

 private:
  sqlite3_stmt* _statement;
};

// A file name as the path of a file: URL.
std::string immutableURL(const std::filesystem::path& path) {
  const std::filesystem::path absolute = std::filesystem::absolute(path);
  std::string url = "file:";
  for (const char c : absolute.native()) {
    switch (c) {
      case '%':
        url += "%25";
        break;
      case '?':
        url += "%3f";
        break;
      case '#':
        url += "%23";
        break;
      default:
        url += c;
    }
  }
  return url + "?immutable=1";
}

}  // namespace

struct CookieDatabase::Connection {
  explicit Connection(std::filesystem::path path) : file(std::move(path)) {}

  using Glance = std::array<std::uint32_t, 12>;  // the 48 bytes of a write-ahead log's index header

  CookieFile file;
  State state = State::Closed;
  bool damaged = false;
  std::unique_ptr<sqlite3, Close> database;
  Statement begin, commit, rollback, put, remove, use, dataVersion;
  // The start of the index of the write-ahead log, shared with every process that has the file open
  // and changed by each transaction. Null where there is none.
  const volatile std::uint32_t* sharedHeader = nullptr;
  Glance seenHeader{};
  std::int64_t seenVersion = -1;
  int pagesInLog = 0;

  Error error(int code) {
    const int primary = code & 0xFF;
    if (primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB) damaged = true;
    return makeError(CookieJar::kClassName, code, sqlite3_errstr(code));
  }
  Error lastError() { return error(sqlite3_extended_errcode(database.get())); }

  void close();
  void closeFor(const Error& problem);
  std::optional<Error> connect(const std::string& name, int flags);
  std::optional<Error> connectToReadOnly();
  std::optional<Error> readFormat();
  std::optional<Error> checkVersion();
  std::optional<Error> makeFormat();
  void findSharedHeader();
  static int committed(void* connection, sqlite3* database, const char* schema, int pagesInLog);

  std::optional<Error> execute(const char* sql);
  // The integer that a query answers with.
  Result<std::int64_t> query(const char* sql);
  // The statement, prepared at its first use; null on an error.
  sqlite3_stmt* prepared(Statement& statement, const char* sql) const;
  // Runs a statement whose values are bound, to its end.
  std::optional<Error> run(sqlite3_stmt* statement);
  std::optional<Error> runAll(const CookieChanges& changes);

  Glance glance() const;
  std::optional<Error> readRows(std::vector<StoredCookie>& rows);
  // What is wrong with the file, or kept it from being looked at, which takes reading all of it.
  std::optional<Error> unsoundness();
};

void CookieDatabase::Connection::close() {
  for (Statement* const statement :
       {&begin, &commit, &rollback, &put, &remove, &use, &dataVersion}) {
    statement->reset();
  }
  sharedHeader = nullptr;
  seenVersion = -1;
  // The log of a damaged file goes aside with it, unmerged.
  if (damaged && database != nullptr) {
    sqlite3_db_config(database.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  }
  database.reset();
  state = State::Closed;
}

void CookieDatabase::Connection::closeFor(const Error& problem) {
  close();
  if (problem.code == SQLITE_MISMATCH) state = State::Newer;
}

std::optional<Error> CookieDatabase::Connection::connect(const std::string& name, int flags) {
  sqlite3* opened = nullptr;
  const int code = sqlite3_open_v2(name.c_str(), &opened,
                                   flags | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_PRIVATECACHE, nullptr);
  database.reset(opened);
  if (code != SQLITE_OK) return error(code);
  sqlite3_extended_result_codes(opened, 1);
  sqlite3_busy_timeout(opened, kBusyMilliseconds);
  sqlite3_db_config(opened, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(opened, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  if (auto problem = execute(
          "PRAGMA cache_size = -64; PRAGMA cell_size_check = ON; PRAGMA secure_delete = ON"))
    return problem;
  return readFormat();
}

// A write-ahead log needs a file for its index even to be read; on a medium that cannot have one, a
// file without a log can be read as it is.
std::optional<Error> CookieDatabase::Connection::connectToReadOnly() {
  if (file.hasLog()) return error(SQLITE_READONLY_CANTINIT);
  return connect(immutableURL(file.path()), SQLITE_OPEN_READONLY | SQLITE_OPEN_URI);
}

std::optional<Error> CookieDatabase::Connection::readFormat() {
  if (auto problem = checkVersion()) return problem;
  const Result<std::int64_t> version = query("PRAGMA user_version");
  if (!version) return version.error();
  const bool readOnly = sqlite3_db_readonly(database.get(), "main") == 1;
  if (!readOnly) {
    if (auto problem = execute("PRAGMA journal_mode = WAL;"
                               "PRAGMA synchronous = NORMAL;"
                               "PRAGMA journal_size_limit = 1048576")) {
      return problem;
    }
    sqlite3_wal_hook(database.get(), &committed, this);
  }
  if (*version < kVersion) {
    const Result<std::int64_t> tables = query("SELECT count(*) FROM sqlite_schema");
    if (!tables) return tables.error();
    if (*version < 0 || *tables > 0) return error(SQLITE_NOTADB);  // not a jar
    if (readOnly) return error(SQLITE_READONLY);                   // an empty one
    if (auto problem = makeFormat()) return problem;
  }
  state = readOnly ? State::ReadOnly : State::Writable;
  return std::nullopt;
}

std::optional<Error> CookieDatabase::Connection::checkVersion() {
  const Result<std::int64_t> version = query("PRAGMA user_version");
  if (!version) return version.error();
  if (*version <= kVersion) return std::nullopt;
  return makeError(CookieJar::kClassName, SQLITE_MISMATCH, "written by a newer version");
}

std::optional<Error> CookieDatabase::Connection::makeFormat() {
  if (auto problem = execute("BEGIN IMMEDIATE")) return problem;
  if (auto problem = execute(CookieRows::kSchema)) {
    execute("ROLLBACK");
    return problem;
  }
  return execute("COMMIT");
}

void CookieDatabase::Connection::findSharedHeader() {
  constexpr int kIndexBytes = 32768;
  sqlite3_file* shared = nullptr;
  if (sqlite3_file_control(database.get(), "main", SQLITE_FCNTL_FILE_POINTER, &shared) !=
          SQLITE_OK ||
      shared == nullptr || shared->pMethods == nullptr || shared->pMethods->iVersion < 2) {
    return;
  }
  void volatile* region = nullptr;
  if (shared->pMethods->xShmMap(shared, 0, kIndexBytes, 0, &region) != SQLITE_OK) return;
  sharedHeader = static_cast<const volatile std::uint32_t*>(region);
}

int CookieDatabase::Connection::committed(void* connection, sqlite3* database, const char* schema,
                                          int pagesInLog) {
  static_cast<Connection*>(connection)->pagesInLog = pagesInLog;
  // What cannot be emptied now can be later: the commit itself has been made.
  if (pagesInLog >= kTooLongLog)
    sqlite3_wal_checkpoint_v2(database, schema, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
  return SQLITE_OK;
}

std::optional<Error> CookieDatabase::Connection::execute(const char* sql) {
  if (sqlite3_exec(database.get(), sql, nullptr, nullptr, nullptr) == SQLITE_OK) {
    return std::nullopt;
  }
  return lastError();
}

Result<std::int64_t> CookieDatabase::Connection::query(const char* sql) {
  Statement statement;
  if (prepared(statement, sql) == nullptr || sqlite3_step(statement.get()) != SQLITE_ROW) {
    return lastError();
  }
  return static_cast<std::int64_t>(sqlite3_column_int64(statement.get(), 0));
}

sqlite3_stmt* CookieDatabase::Connection::prepared(Statement& statement, const char* sql) const {
  if (statement == nullptr) {
    sqlite3_stmt* made = nullptr;
    sqlite3_prepare_v3(database.get(), sql, -1, SQLITE_PREPARE_PERSISTENT, &made, nullptr);
    statement.reset(made);
  }
  return statement.get();
}

std::optional<Error> CookieDatabase::Connection::run(sqlite3_stmt* statement) {
  if (statement == nullptr) return lastError();
  const Use use(statement);
  const int code = sqlite3_step(statement);
  if (code == SQLITE_DONE || code == SQLITE_ROW) return std::nullopt;
  return error(code);
}

std::optional<Error> CookieDatabase::Connection::runAll(const CookieChanges& changes) {
  if (changes.removeAll) {
    if (auto problem = execute("DELETE FROM cookies")) return problem;
  }
  for (const Cookie* const cookie : changes.removals) {
    sqlite3_stmt* const statement = prepared(remove, CookieRows::kRemove);
    if (statement != nullptr) CookieRows::bindIdentity(statement, *cookie);
    if (auto problem = run(statement)) return problem;
  }
  for (const CookieRow& row : changes.puts) {
    sqlite3_stmt* const statement = prepared(put, CookieRows::kPut);
    if (statement != nullptr) CookieRows::bind(statement, row);
    if (auto problem = run(statement)) return problem;
  }
  for (const CookieRow& row : changes.uses) {
    sqlite3_stmt* const statement = prepared(use, CookieRows::kUse);
    if (statement != nullptr) {
      CookieRows::bindUse(statement, row);
    }
    if (auto problem = run(statement)) return problem;
  }
  return std::nullopt;
}

CookieDatabase::Connection::Glance CookieDatabase::Connection::glance() const {
  Glance words{};
  if (sharedHeader != nullptr) std::copy_n(sharedHeader, words.size(), words.begin());
  return words;
}

std::optional<Error> CookieDatabase::Connection::readRows(std::vector<StoredCookie>& rows) {
  Statement select;
  if (prepared(select, CookieRows::kSelect) == nullptr) {
    // The version says that the table is there.
    const Error problem = lastError();
    return problem.code == SQLITE_ERROR ? error(SQLITE_NOTADB) : problem;
  }
  std::size_t refused = 0;
  int code = SQLITE_ROW;
  while ((code = sqlite3_step(select.get())) == SQLITE_ROW) {
    if (auto row = CookieRows::read(select.get()))
      rows.push_back(std::move(*row));
    else
      ++refused;
  }
  if (code != SQLITE_DONE) return error(code);
  // Nobody writes such rows: the file may be damaged where reading does not meet it, and would
  // swallow what is written next.
  if (refused > 0) {
    if (auto problem = unsoundness()) return problem;
    logLevel(1, "%@: Left out %lu rows of %@ that are no cookies", CookieJar::kClassName, refused,
             file.path().native());
  }
  return std::nullopt;
}

std::optional<Error> CookieDatabase::Connection::unsoundness() {
  Statement check;
  if (prepared(check, "PRAGMA quick_check(1)") == nullptr) return lastError();
  if (const int code = sqlite3_step(check.get()); code != SQLITE_ROW) return error(code);
  const unsigned char* const found = sqlite3_column_text(check.get(), 0);
  if (found != nullptr && reinterpret_cast<const char*>(found) == std::string_view("ok"))
    return std::nullopt;
  return error(SQLITE_CORRUPT);
}

CookieDatabase::CookieDatabase(std::filesystem::path path)
    : _connection(std::make_unique<Connection>(std::move(path))) {}

CookieDatabase::~CookieDatabase() {
  _connection->close();
}

CookieDatabase::State CookieDatabase::state() const {
  return _connection->state;
}

const std::filesystem::path& CookieDatabase::path() const {
  return _connection->file.path();
}

bool CookieDatabase::isUnreadable() const {
  return _connection->file.isUnreadable();
}

bool CookieDatabase::isDamaged() const {
  return _connection->damaged;
}

bool CookieDatabase::isReplaced() const {
  return _connection->file.isReplaced();
}

std::optional<Error> CookieDatabase::open() {
  Connection& connection = *_connection;
  connection.close();
  connection.damaged = false;
  const FolderLock lock(connection.file.path().parent_path());
  if (auto problem = connection.file.prepare()) return problem;

  auto problem = connection.connect(connection.file.path().native(), SQLITE_OPEN_READWRITE);
  if (problem) {
    const int primary = static_cast<int>(problem->code & 0xFF);
    // A full disk has no room for the shared index either; the jar is whole all the same.
    if (primary == SQLITE_CANTOPEN || primary == SQLITE_READONLY || primary == SQLITE_IOERR ||
        primary == SQLITE_FULL) {
      problem = connection.connectToReadOnly();
    }
  }
  if (problem) {
    connection.closeFor(*problem);
    return problem;
  }
  if (connection.state == State::Writable) connection.findSharedHeader();
  return std::nullopt;
}

void CookieDatabase::setAside() {
  _connection->close();
  _connection->file.setAside();
}

Result<std::vector<StoredCookie>> CookieDatabase::load() {
  Connection& connection = *_connection;
  connection.seenHeader = connection.glance();
  // One transaction, so that the rows and the version belong together.
  const bool alone = sqlite3_get_autocommit(connection.database.get()) != 0;
  if (alone) {
    if (auto problem = connection.execute("BEGIN")) return *problem;
  }
  std::vector<StoredCookie> rows;
  auto problem = connection.checkVersion();
  if (!problem) problem = connection.readRows(rows);
  if (!problem) {
    const Result<std::int64_t> version = connection.query("PRAGMA data_version");
    if (version)
      connection.seenVersion = *version;
    else
      problem = version.error();
  }
  if (problem) {
    connection.closeFor(*problem);
    return *problem;
  }
  if (alone) connection.execute("COMMIT");
  sqlite3_db_release_memory(connection.database.get());
  return rows;
}

bool CookieDatabase::mayHaveChanged() const {
  const Connection& connection = *_connection;
  if (connection.database == nullptr) return false;
  return connection.sharedHeader == nullptr || connection.glance() != connection.seenHeader;
}

bool CookieDatabase::hasChanged() {
  Connection& connection = *_connection;
  if (connection.database == nullptr) return false;
  // The glance comes first: a transaction between the two is then seen at the next glance.
  connection.seenHeader = connection.glance();
  sqlite3_stmt* const statement =
      connection.prepared(connection.dataVersion, "PRAGMA data_version");
  if (statement != nullptr) {
    const Use use(statement);
    if (sqlite3_step(statement) == SQLITE_ROW) {
      return sqlite3_column_int64(statement, 0) != connection.seenVersion;
    }
  }
  connection.seenHeader = {};  // so that the next glance asks again
  return false;
}

std::optional<Error> CookieDatabase::begin() {
  return _connection->run(_connection->prepared(_connection->begin, "BEGIN IMMEDIATE"));
}

std::optional<Error> CookieDatabase::commit(const CookieChanges& changes) {
  Connection& connection = *_connection;
  auto problem = connection.runAll(changes);
  if (!problem) problem = connection.run(connection.prepared(connection.commit, "COMMIT"));
  if (problem) rollback();
  sqlite3_db_release_memory(connection.database.get());
  return problem;
}

void CookieDatabase::rollback() {
  // Some failures have rolled back already.
  if (sqlite3_get_autocommit(_connection->database.get()) != 0) return;
  _connection->run(_connection->prepared(_connection->rollback, "ROLLBACK"));
}

Result<FileDescriptor> CookieDatabase::fileToSync() const {
  // All that has been committed and is not yet in the database file, which a checkpoint syncs, is
  // in the log. Without a log, the commit itself has synced.
  std::filesystem::path log = path();
  log += "-wal";
  FileDescriptor file(::open(log.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (!file && errno != ENOENT)
    return makeError(CookieJar::kClassName, errno, std::strerror(errno));
  return file;
}

bool CookieDatabase::isLogLong() const {
  return _connection->pagesInLog >= kLongLog;
}

void CookieDatabase::emptyLog(const std::filesystem::path& path) {
  // A connection of its own takes no lock that a lookup, or a change, would have to wait for.
  sqlite3* opened = nullptr;
  std::unique_ptr<sqlite3, Close> database;
  {
    // Who sets the file aside between the two would leave it with the next one's log.
    const FolderLock lock(path.parent_path());
    const int code = sqlite3_open_v2(
        path.c_str(), &opened,
        SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_PRIVATECACHE, nullptr);
    database.reset(opened);
    // The log is found when something is read.
    if (code != SQLITE_OK ||
        sqlite3_exec(opened, "PRAGMA user_version", nullptr, nullptr, nullptr) != SQLITE_OK)
      return;
  }
  sqlite3_wal_checkpoint_v2(opened, "main", SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
}

void CookieDatabase::scrub() {
  sqlite3_wal_checkpoint_v2(_connection->database.get(), "main", SQLITE_CHECKPOINT_TRUNCATE,
                            nullptr, nullptr);
}

}  // namespace tallow
