#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <random>

#include "platform/Base/AtomicFile.h"
#include "tests/platform/Cookies/JarFixture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FullDisk.h"
#include "tests/support/ManyThreads.h"
#include "tests/support/ScopedDirectories.h"
#include "tests/support/Unprivileged.h"

namespace tallow {
namespace {

constexpr const char* kStore = "http://store.example/";

class CookieJarStorageTest : public JarFixture {
 protected:
  std::filesystem::path beside(const char* suffix) const {
    std::filesystem::path path = file();
    path += suffix;
    return path;
  }
  std::string contents() const { return std::string(readFile(file())->view()); }
  // Runs SQL on the file as another program would.
  void runSQL(const char* sql) const {
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(file().c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, sql, nullptr, nullptr, nullptr), SQLITE_OK)
        << sqlite3_errmsg(database);
    sqlite3_close(database);
  }
  std::ptrdiff_t countSetAside() const {
    return std::ranges::count_if(
        std::filesystem::directory_iterator(folder.path()), [](const auto& entry) {
          return entry.path().native().find(".cookies.corrupt") != std::string::npos;
        });
  }
};

TEST_F(CookieJarStorageTest, BringsBackEveryProperty) {
  const auto isPrivate = [](const std::filesystem::path& path) {
    return std::filesystem::status(path).permissions() == std::filesystem::perms(0600);
  };
  {
    const auto jar = open();
    setCookies(*jar, "https://www.store.example/",
               {"second=\xFF\xC3; Path=/; Max-Age=60; SameSite=Strict",
                "__Secure-a=1; Secure; HttpOnly; SameSite=None; Domain=store.example; Path=/x",
                "third=3; SameSite=Lax", "brief=4; Max-Age=5", "third=4; SameSite=Lax"});
    EXPECT_TRUE(isPrivate(file()) && isPrivate(beside("-wal")) && isPrivate(beside("-shm")));
    clock.advance(5);
  }
  ::chmod(file().c_str(), 0644);
  const auto jar = open();
  EXPECT_TRUE(isPrivate(file())) << "others' rights are taken away";
  EXPECT_EQ(jar->count(), 3U);
  const auto cookies = jar->cookiesForURL(url("https://www.store.example/x"), true);
  ASSERT_EQ(cookieHeaderValue(cookies), "__Secure-a=1; second=\xFF\xC3; third=4");
  EXPECT_TRUE(cookies[0]->secure && cookies[0]->httpOnly && !cookies[0]->hostOnly);
  EXPECT_EQ(cookies[0]->sameSite, Cookie::SameSite::None);
  EXPECT_EQ(cookies[0]->domain, "store.example");
  EXPECT_EQ(cookies[0]->path, "/x");
  EXPECT_FALSE(cookies[0]->expiresDate);
  EXPECT_EQ(cookies[1]->expiresDate, Date{1'700'000'060});
  EXPECT_EQ(cookies[1]->creationDate, Date{1'700'000'000});
  EXPECT_TRUE(cookies[1]->hostOnly && !cookies[1]->secure && !cookies[1]->httpOnly);
  EXPECT_EQ(cookies[1]->sameSite, Cookie::SameSite::Strict);
  EXPECT_EQ(cookies[2]->sameSite, Cookie::SameSite::Lax);
  EXPECT_TRUE(log.lines(1).empty());
}

TEST_F(CookieJarStorageTest, RemembersWhatWasUsed) {
  const CookieJar::Limits three{.cookiesPerDomain = 3, .cookiesPerJar = 3300};
  {
    const auto jar = open(three);
    setCookies(*jar, kStore, {"a=1; Path=/a", "b=2; Path=/b", "c=3; Path=/c"});
    header(*jar, "http://store.example/a");
  }
  auto jar = open(three);
  header(*jar, "http://store.example/c");
  clock.advance(3600);
  EXPECT_FALSE(jar->synchronize());  // writes it, since an hour has passed
  auto other = open(three);          // as if this process had been killed
  setCookie(*other, "d=4; Path=/d", kStore);
  EXPECT_EQ(header(*other, "http://store.example/b"), "");
  setCookie(*other, "e=5; Path=/e", kStore);
  EXPECT_EQ(header(*other, "http://store.example/a"), "");
  EXPECT_EQ(header(*other, "http://store.example/c"), "c=3");
}

TEST_F(CookieJarStorageTest, LeavesNoTraceOfDeletedCookies) {
  const auto jar = open();
  setCookie(*jar, "a=confidential", kStore);
  ASSERT_EQ(jar->synchronize(), std::nullopt);
  jar->deleteAllCookies();
  ASSERT_EQ(jar->synchronize(), std::nullopt);
  EXPECT_EQ(std::filesystem::file_size(beside("-wal")), 0U);
  EXPECT_EQ(contents().find("confidential"), std::string::npos);
  EXPECT_EQ(open()->count(), 0U);
}

// What is in the log must be read before anything else by whoever starts after a kill.
TEST_F(CookieJarStorageTest, KeepsItsLogShort) {
  constexpr std::uintmax_t kPage = 4096 + 24;
  const auto jar = open();
  for (int i = 0; i < 60; ++i) {
    setCookie(*jar, "c" + std::to_string(i) + "=1", kStore);
    ASSERT_EQ(jar->synchronize(), std::nullopt);
  }
  EXPECT_LT(std::filesystem::file_size(beside("-wal")), 48 * kPage);
  for (int i = 0; i < 600; ++i) setCookie(*jar, "d" + std::to_string(i % 7) + "=1", kStore);
  EXPECT_LT(std::filesystem::file_size(beside("-wal")), 300 * kPage) << "nobody synchronises";
  EXPECT_EQ(open()->count(), 67U);
}

TEST_F(CookieJarStorageTest, SetsADamagedFileAside) {
  {
    const auto jar = open();
    for (int i = 0; i < 200; ++i)
      setCookie(*jar, "c=" + std::string(500, 'x'), "http://h" + std::to_string(i) + ".example/");
  }
  const std::string sound = contents();
  const std::string body = sound.substr(0, 4096) + std::string(sound.size() - 4096, '\x5A');
  std::ptrdiff_t setAside = 0;
  for (const std::string& damaged : {std::string("no database at all, whatever it is"), body,
                                     sound.substr(0, sound.size() / 2)}) {
    std::ofstream(file(), std::ios::binary) << damaged;
    const auto jar = open();
    EXPECT_EQ(countSetAside(), ++setAside);
    EXPECT_TRUE(log.mentions(1, "is damaged and was moved to"));
    log.clear();
    EXPECT_EQ(jar->count(), 0U);
    setCookie(*jar, "a=1", kStore);
    EXPECT_EQ(header(*open(), kStore), "a=1");
  }
  // A database, but not a jar; and a jar without its table.
  for (const char* sql : {"DROP TABLE cookies; PRAGMA user_version = 0; CREATE TABLE other (x)",
                          "DROP TABLE cookies"}) {
    runSQL(sql);
    EXPECT_EQ(open()->count(), 0U);
    EXPECT_EQ(countSetAside(), ++setAside) << sql;
  }
}

TEST_F(CookieJarStorageTest, LosesNothingWhenTheFileIsDamagedInUse) {
  const auto jar = open();
  setCookies(*jar, kStore, {"a=1", "b=2"});
  {
    const auto merged = open();  // its closing leaves the log as it is, since the other is open
    ASSERT_EQ(merged->count(), 2U);
  }
  runSQL("PRAGMA wal_checkpoint(TRUNCATE)");
  const int descriptor = ::open(file().c_str(), O_WRONLY | O_CLOEXEC);
  const std::string rubbish(64 * 1024, '\x5A');
  ASSERT_EQ(::pwrite(descriptor, rubbish.data(), rubbish.size(), 4096), ssize_t(rubbish.size()));
  ::close(descriptor);
  setCookie(*jar, "c=3", kStore);
  EXPECT_EQ(countSetAside(), 1);
  EXPECT_EQ(header(*jar, kStore), "a=1; b=2; c=3");
  EXPECT_EQ(header(*open(), kStore), "a=1; b=2; c=3");
}

TEST_F(CookieJarStorageTest, BringsNothingBackThatWasTakenAway) {
  const auto jar = open();
  setCookie(*jar, "a=1", kStore);
  std::filesystem::rename(file(), folder / "elsewhere");
  for (const char* suffix : {"-wal", "-shm"}) std::filesystem::remove(beside(suffix));
  setCookie(*jar, "b=2", kStore);
  EXPECT_EQ(header(*jar, kStore), "b=2");
  EXPECT_EQ(header(*open(), kStore), "b=2");
}

TEST_F(CookieJarStorageTest, LeavesANewerFileAlone) {
  setCookie(*open(), "a=1", kStore);
  runSQL("PRAGMA user_version = 2; PRAGMA journal_mode = DELETE");
  const std::string before = contents();
  {
    const auto jar = open();
    EXPECT_TRUE(log.mentions(1, "written by a newer version"));
    EXPECT_EQ(setCookie(*jar, "b=2", kStore), CookieDecision::Stored);
    EXPECT_EQ(header(*jar, kStore), "b=2");
    jar->deleteAllCookies();
    EXPECT_EQ(jar->count(), 0U);
    EXPECT_EQ(jar->synchronize()->code, CookieJar::kNewerVersion);
  }
  EXPECT_EQ(contents(), before);
  EXPECT_EQ(countSetAside(), 0);
}

TEST_F(CookieJarStorageTest, LeavesOutRowsThatAreNoCookies) {
  setCookies(*open(), kStore, {"a=1", "b=2", "c=3", "d=4; Domain=store.example", "e=5"});
  runSQL(
      "UPDATE cookies SET value = char(13,10) || 'X: y' WHERE name = 'a';"
      "UPDATE cookies SET path = 'x' WHERE name = 'b';"
      "UPDATE cookies SET last_used = 9223372036854775807 WHERE name = 'c';"
      "UPDATE cookies SET domain = 'com' WHERE name = 'd'");
  const auto jar = open();
  EXPECT_EQ(header(*jar, kStore), "e=5");
  EXPECT_EQ(header(*jar, "http://other.com/"), "");
  EXPECT_TRUE(log.mentions(1, "Left out 3 rows"));
}

TEST_F(CookieJarStorageTest, GoesOnInMemoryWhenTheDiskIsFull) {
  auto jar = open();
  setCookies(*jar, kStore, {"a=1", "b=2"});
  {
    const FullDisk full;
    EXPECT_EQ(setCookie(*jar, "c=3", kStore), CookieDecision::Stored);
    EXPECT_TRUE(log.mentions(1, "Cannot write"));
    setCookies(*jar, kStore, {"a=; Max-Age=0", "b=4"});
    EXPECT_EQ(header(*jar, kStore), "b=4; c=3");
    EXPECT_TRUE(jar->synchronize());
    EXPECT_EQ(header(*open(), kStore), "a=1; b=2") << "the old contents stay whole";
  }
  setCookie(*jar, "d=5", kStore);
  EXPECT_EQ(header(*open(), kStore), "b=4; c=3; d=5");
  {
    const FullDisk full;
    jar->deleteAllCookies();
    setCookie(*jar, "e=6", kStore);
  }
  EXPECT_FALSE(jar->synchronize());  // tries again too
  EXPECT_EQ(header(*open(), kStore), "e=6");
}

TEST_F(CookieJarStorageTest, BeginsInMemoryWhereNoFileCanBeMade) {
  std::filesystem::remove(folder.path());
  const auto jar = open();
  EXPECT_TRUE(log.mentions(1, "its cookies are kept in memory"));
  setCookie(*jar, "a=1", kStore);
  std::filesystem::create_directory(folder.path());
  setCookie(*jar, "b=2", kStore);
  EXPECT_EQ(header(*open(), kStore), "a=1; b=2");
}

TEST_F(CookieJarStorageTest, FailsOnWhatIsNoReadableFile) {
  std::filesystem::create_directory(file());
  EXPECT_FALSE(CookieJar::open(file()));
  EXPECT_TRUE(log.mentions(1, "Cannot read"));
  EXPECT_TRUE(std::filesystem::is_directory(file()));

  std::filesystem::remove(file());
  std::filesystem::create_symlink(folder / "other", file());
  EXPECT_FALSE(CookieJar::open(file()));
  EXPECT_FALSE(std::filesystem::exists(folder / "other"));
}

TEST_F(CookieJarStorageTest, ReadsWhereItMayNotWrite) {
  setCookie(*open(), "a=1", kStore);
  const Unprivileged scope(folder.path());
  using std::filesystem::permissions, std::filesystem::perms;
  permissions(file(), perms(0444));
  permissions(folder.path(), perms(0555));
  {
    const auto jar = open();
    EXPECT_EQ(header(*jar, kStore), "a=1");
    setCookie(*jar, "b=2", kStore);
    EXPECT_EQ(header(*jar, kStore), "a=1; b=2");
    EXPECT_TRUE(jar->synchronize());
  }
  permissions(folder.path(), perms(0700));
  EXPECT_EQ(header(*open(), kStore), "a=1");
}

TEST_F(CookieJarStorageTest, SeesWhatOthersStoreInTheSameFile) {
  const auto one = open();
  const auto other = open();
  setCookie(*one, "a=1", kStore);
  EXPECT_EQ(header(*other, kStore), "a=1");
  setCookie(*other, "b=2", kStore);
  setCookie(*one, "c=3", kStore);
  setCookie(*other, "a=4; Path=/", kStore);
  EXPECT_EQ(header(*one, kStore), "a=4; b=2; c=3");
  EXPECT_EQ(header(*other, kStore), "a=4; b=2; c=3");
  one->deleteAllCookies();
  EXPECT_EQ(other->count(), 0U);

  // What one could not write joins what the other has written meanwhile.
  {
    const FullDisk full;
    setCookies(*one, kStore, {"d=5", "e=6"});
  }
  setCookies(*other, kStore, {"e=7", "f=8"});
  EXPECT_EQ(header(*one, kStore), "e=6; f=8; d=5");
  setCookie(*one, "g=9", kStore);
  EXPECT_EQ(header(*other, kStore), "e=6; f=8; d=5; g=9");
}

TEST_F(CookieJarStorageTest, WaitsForNobodyForever) {
  const auto jar = open();
  setCookie(*jar, "a=1", kStore);
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(file().c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
  setCookie(*jar, "b=2", kStore);
  EXPECT_TRUE(log.mentions(1, "Cannot write"));
  EXPECT_EQ(header(*jar, kStore), "a=1; b=2");
  sqlite3_close(other);
  EXPECT_EQ(jar->synchronize(), std::nullopt);
  EXPECT_EQ(header(*open(), kStore), "a=1; b=2");
}

// A child stores pairs of cookies, each pair in one response, and tells the number of each pair
// that it has stored. Whenever it is killed, the last pair told, or a later one, is there as a
// pair.
TEST_F(CookieJarStorageTest, SurvivesBeingKilledAtAnyMoment) {
  std::mt19937 random(20240601);
  for (int round = 0; round < 10; ++round) {
    ChildProcess child([this](const ChildProcess::Say& say) {
      const auto jar = CookieJar::open(file());
      for (int i = 0; jar; ++i) {
        const std::string number = std::to_string(i);
        (*jar)->setCookies({*parseSetCookie("a=" + number + std::string(1500, 'x')),
                            *parseSetCookie("b=" + number)},
                           url(kStore));
        if (i % 40 == 39) (*jar)->synchronize();
        say(i);
      }
    });
    std::int64_t told = -1;
    for (auto wanted = std::uniform_int_distribution(1, 300)(random); wanted > 0; --wanted) {
      const auto next = child.next();
      ASSERT_TRUE(next);
      told = *next;
    }
    told = child.kill(told);
    const auto jar = open();
    const auto cookies = jar->cookiesForURL(url(kStore), false);
    ASSERT_EQ(cookies.size(), 2U);
    const std::string number = cookies[1]->value;
    EXPECT_EQ(cookies[0]->value, number + std::string(1500, 'x'));
    EXPECT_GE(std::stoi(number), told);
  }
  EXPECT_EQ(countSetAside(), 0);
  EXPECT_TRUE(log.lines(1).empty());
}

TEST_F(CookieJarStorageTest, ServesManyThreads) {
  const auto one = open();
  const auto other = open();
  onManyThreads(4, [&](int thread) {
    CookieJar& jar = thread % 2 == 0 ? *one : *other;
    const std::string host = "http://h" + std::to_string(thread) + ".example/";
    for (int i = 0; i < 50; ++i) {
      setCookie(jar, "c" + std::to_string(i) + "=1", host);
      EXPECT_EQ(jar.cookiesForURL(url(host), false).size(), std::size_t(i) + 1);
    }
  });
  EXPECT_EQ(one->count(), 200U);
  EXPECT_EQ(other->count(), 200U);
}

TEST_F(CookieJarStorageTest, KeepsOneJarForTheProcessAndEachGroup) {
  const ScopedDirectories directories(folder.path());
  const auto jar = CookieJar::shared();
  ASSERT_TRUE(jar);
  EXPECT_EQ(jar, CookieJar::shared());
  const auto group = CookieJar::sharedForGroupContainer("com.example.group");
  ASSERT_TRUE(group);
  EXPECT_EQ(group, CookieJar::sharedForGroupContainer("com.example.group"));
  EXPECT_NE(group, CookieJar::sharedForGroupContainer("com.example.other"));
  setCookie(*group, "a=1", kStore);
  EXPECT_EQ(jar->count(), 0U);
  EXPECT_EQ(CookieJar::sharedForGroupContainer("../escape"), nullptr);
}

}  // namespace
}  // namespace tallow
