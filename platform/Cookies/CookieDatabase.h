#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

#include "platform/Base/FileDescriptor.h"
#include "platform/Base/Result.h"
#include "platform/Cookies/CookieChanges.h"

namespace tallow {

// The SQLite file of a cookie jar: one table, one row a cookie, in WAL mode, so that a transaction
// is whole or absent whatever happens to the process, and several processes may have it open. Keeps
// as little in memory as SQLite can do with: the jar holds the cookies.
//
// Owned by a jar, which serialises access. Error domain "CookieJar"; the code is SQLite's extended
// result code, or an errno value where the file could not even be made.
class CookieDatabase {
 public:
  static constexpr int kVersion = 1;

  enum class State {
    Closed,    // could not be opened; nothing is known about its contents
    ReadOnly,  // can be loaded, not changed
    Writable,
    Newer,  // written by a version that knows more: never touched
  };

  explicit CookieDatabase(std::filesystem::path path);
  ~CookieDatabase();
  CookieDatabase(const CookieDatabase&) = delete;
  CookieDatabase& operator=(const CookieDatabase&) = delete;

  State state() const;
  const std::filesystem::path& path() const;
  // Opens the file, made first where there is none, closing it before if it was open.
  std::optional<Error> open();
  // True if open() failed on a file that is there.
  bool isUnreadable() const;
  // True when an operation has found that the file is not what it should be.
  bool isDamaged() const;
  // Closes the file and moves it aside.
  void setAside();
  // True when the path leads to another file by now.
  bool isReplaced() const;

  // Every row that is a cookie, domain by domain; others are logged and left out. An error closes
  // the file.
  Result<std::vector<StoredCookie>> load();

  // Whether another connection has written since the latest load() or hasChanged(). The first is a
  // glance at shared memory, so cheap that every lookup can afford it, and may be true without
  // need.
  bool mayHaveChanged() const;
  bool hasChanged();

  // Takes the right to write from all other processes until commit() or rollback().
  std::optional<Error> begin();
  // On an error nothing has been changed.
  std::optional<Error> commit(const CookieChanges& changes);
  void rollback();
  // The file that has to be synchronised for what has been committed to survive a power cut; none
  // when it survives one already. Synchronising it needs no lock of the database's.
  Result<FileDescriptor> fileToSync() const;
  // Whether so much is in the log that it should be emptied.
  bool isLogLong() const;
  // Moves what the log of the file at `path` holds into the file, as far as nobody reads it just
  // now; waits for the disk. What cannot be done now is done later. Any thread, beside whatever
  // else happens to the file.
  static void emptyLog(const std::filesystem::path& path);
  // Leaves no trace of removed cookies in the files, where no other process is reading just now.
  void scrub();

 private:
  struct Connection;
  std::unique_ptr<Connection> _connection;
};

}  // namespace tallow
