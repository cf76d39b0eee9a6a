// Preferences next to bare SQLite transactions of the same bytes in the same folder.

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/Preferences/SQLitePreferences.h"

namespace tallow {
namespace {

constexpr const char* kDomain = "com.vantor.bench";
// About what ten account records take.
constexpr std::size_t kValueBytes = 2500;

class Folder {
 public:
  Folder() {
    std::string name = std::filesystem::current_path() / "bench-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) std::abort();
    path = name;
  }
  ~Folder() { std::filesystem::remove_all(path); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  std::filesystem::path path;
};

void readCached(benchmark::State& state) {
  const Folder folder;
  SQLitePreferences preferences({folder.path / "preferences.db", {}, "host"});
  preferences.setValue("key", "value", kDomain, Preferences::User::Current, Preferences::Host::Any);
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        preferences.copyValue("key", kDomain, Preferences::User::Current, Preferences::Host::Any));
  }
}
BENCHMARK(readCached);

void write(benchmark::State& state) {
  const Folder folder;
  SQLitePreferences preferences({folder.path / "preferences.db", {}, "host"});
  const Value value = std::string(kValueBytes, 'x');
  const bool isDurable = state.range(0) != 0;
  for (auto _ : state) {
    preferences.setValue("key", value, kDomain, Preferences::User::Current, Preferences::Host::Any);
    if (isDurable) {
      preferences.synchronize(kDomain, Preferences::User::Current, Preferences::Host::Any);
    }
  }
}
BENCHMARK(write)->ArgName("durable")->Arg(0)->Arg(1)->UseRealTime();

void bareTransaction(benchmark::State& state) {
  const Folder folder;
  sqlite3* database = nullptr;
  sqlite3_open((folder.path / "bare.db").c_str(), &database);
  const bool isDurable = state.range(0) != 0;
  sqlite3_exec(database, "PRAGMA journal_mode=WAL; CREATE TABLE t(k TEXT PRIMARY KEY, v BLOB)",
               nullptr, nullptr, nullptr);
  sqlite3_exec(database, isDurable ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL",
               nullptr, nullptr, nullptr);
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(database, "INSERT OR REPLACE INTO t VALUES('key', ?1)", -1, &statement,
                     nullptr);
  const std::string value(kValueBytes, 'x');
  for (auto _ : state) {
    sqlite3_bind_blob(statement, 1, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
    sqlite3_step(statement);
    sqlite3_reset(statement);
  }
  sqlite3_finalize(statement);
  sqlite3_close(database);
}
BENCHMARK(bareTransaction)->ArgName("durable")->Arg(0)->Arg(1)->UseRealTime();

}  // namespace
}  // namespace tallow
