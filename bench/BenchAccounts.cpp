// The account store: a lookup among a thousand accounts, and a change on its way to disk next to
// one bare SQLite transaction of the same bytes in the same folder.

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/Base/SharedInstance.h"
#include "platform/Preferences/SQLitePreferences.h"
#include "platform/PropertyList/PropertyList.h"
#include "platform/VendBase/DefaultsKeys.h"
#include "src/AccountService/AccountStore.h"

namespace tallow {
namespace {

constexpr std::uint64_t kAccounts = 10;

std::shared_ptr<HSStoreAccount> account(std::uint64_t dsID) {
  auto made = std::make_shared<HSStoreAccount>();
  made->setDsID(dsID);
  made->setIdentifier("somebody" + std::to_string(dsID) + "@example.com");
  made->setStoreFront("143441-1,29");
  made->setCreditString("$0.00");
  return made;
}

// A store over preferences of its own, in the folder where the benchmark runs.
class World {
 public:
  explicit World(std::uint64_t accounts) {
    std::string name = std::filesystem::current_path() / "bench-XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) std::abort();
    folder = name;
    preferences = std::make_unique<SQLitePreferences>(
        SQLitePreferences::Configuration{folder / "preferences.db", {}, "host"});
    const ScopedShared<Preferences> scope(*preferences);
    auto client = std::make_shared<HSStoreClient>();
    client->identifier = client->agentPreferencesDomain = "com.vantor.bench";
    // All at once, as they are found on disk: each change writes every account.
    std::vector<Value> records;
    for (std::uint64_t dsID = 1; dsID <= accounts; ++dsID)
      records.emplace_back(*account(dsID)->persistedStoreDictionary());
    preferences->setValue(kDefaultsKnownAccountsKey, Array(std::move(records)), "com.vantor.bench",
                          Preferences::User::Current, Preferences::Host::Any);
    store = AccountStore::initWithStoreClient(client);
    store->makeAccountPrimary(store->accountWithDSID(1));
  }
  ~World() { std::filesystem::remove_all(folder); }
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // What a change writes.
  std::string writtenBytes() const {
    std::string bytes;
    for (const char* key : {kDefaultsPrimaryAccountKey, kDefaultsKnownAccountsKey}) {
      const Value value = preferences->copyValue(
          key, "com.vantor.bench", Preferences::User::Current, Preferences::Host::Any);
      bytes += PropertyList::encode(value, PropertyList::Format::Binary).view();
    }
    return bytes;
  }

  std::filesystem::path folder;
  std::unique_ptr<SQLitePreferences> preferences;
  std::shared_ptr<AccountStore> store;
};

// Each takes how many accounts there are.
void lookup(benchmark::State& state) {
  const auto accounts = static_cast<std::uint64_t>(state.range(0));
  const World world(accounts);
  std::uint64_t dsID = 0;
  for (auto _ : state) {
    dsID = dsID % accounts + 1;
    benchmark::DoNotOptimize(world.store->accountWithDSID(dsID));
  }
}
BENCHMARK(lookup)
    ->Name("account_lookup_1000_ns")
    ->Arg(1000)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK(lookup)
    ->Name("growth_account_lookup_ns")
    ->RangeMultiplier(10)
    ->Range(1, 1000)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

void write(benchmark::State& state) {
  const auto accounts = static_cast<std::uint64_t>(state.range(0));
  const World world(accounts);
  const ScopedShared<Preferences> scope(*world.preferences);
  std::uint64_t dsID = 0;
  for (auto _ : state) {
    dsID = dsID % accounts + 1;
    world.store->addAccount(account(dsID));
  }
}
BENCHMARK(write)
    ->Name("account_write_us")
    ->Arg(kAccounts)
    ->UseRealTime()
    ->Repetitions(5)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(write)
    ->Name("growth_account_write_us")
    ->RangeMultiplier(10)
    ->Range(1, 1000)
    ->UseRealTime()
    ->Repetitions(3)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMicrosecond);

void bareWrite(benchmark::State& state) {
  const World world(kAccounts);
  const std::string bytes = world.writtenBytes();
  sqlite3* database = nullptr;
  sqlite3_open((world.folder / "bare.db").c_str(), &database);
  sqlite3_exec(database,
               "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;"
               "CREATE TABLE t(k TEXT PRIMARY KEY, v BLOB)",
               nullptr, nullptr, nullptr);
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(database, "INSERT OR REPLACE INTO t VALUES('key', ?1)", -1, &statement,
                     nullptr);
  for (auto _ : state) {
    sqlite3_bind_blob(statement, 1, bytes.data(), static_cast<int>(bytes.size()), SQLITE_STATIC);
    sqlite3_step(statement);
    sqlite3_reset(statement);
  }
  sqlite3_finalize(statement);
  sqlite3_close(database);
}
BENCHMARK(bareWrite)
    ->Name("account_bare_write_us")
    ->UseRealTime()
    ->Repetitions(5)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace tallow
