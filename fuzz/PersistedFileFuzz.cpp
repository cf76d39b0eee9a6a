// Input: which of the service's files, and what a disk has made of it. Whatever is in it, the file
// stays or is set aside, and what is acknowledged afterwards is there after a restart.

#include <fstream>
#include <string>
#include <string_view>

#include "fuzz/FuzzTarget.h"
#include "fuzz/FuzzWorld.h"
#include "fuzz/Require.h"
#include "platform/Cookies/CookieJar.h"
#include "platform/Preferences/SQLitePreferences.h"
#include "src/Bag.h"

using namespace tallow;

namespace {

using User = Preferences::User;
using Host = Preferences::Host;

void put(const std::filesystem::path& file, std::string_view contents) {
  std::filesystem::remove_all(file.parent_path());
  std::filesystem::create_directories(file.parent_path());
  std::ofstream(file, std::ios::binary) << contents;
}

bool wasSetAside(std::filesystem::path file) {
  file += ".corrupt";
  return std::filesystem::exists(file);
}

bool isStillThere(const std::filesystem::path& file) {
  return std::filesystem::exists(file) || wasSetAside(file);
}

void checkPreferences(const Directories& directories, std::string_view contents) {
  const auto configuration = SQLitePreferences::configurationFor(directories);
  put(configuration.file, contents);
  bool isKept = false;
  {
    SQLitePreferences preferences(configuration);
    for (const std::string& key : preferences.copyAppKeyList("domain"))
      static_cast<void>(preferences.copyAppValue(key, "domain"));
    preferences.setValue("written", 42, "domain", User::Current, Host::Any);
    isKept = preferences.synchronize("domain", User::Current, Host::Any);
    REQUIRE(preferences.copyValue("written", "domain", User::Current, Host::Any) == Value(42));
  }
  REQUIRE(isStillThere(configuration.file));
  if (!isKept) return;
  SQLitePreferences again(configuration);
  const Value written = again.copyValue("written", "domain", User::Current, Host::Any);
  // Damage that neither reading nor writing has met costs what was written into it; when it is met,
  // the file is set aside.
  REQUIRE(written == Value(42) || wasSetAside(configuration.file));
}

void checkCookies(const FuzzWorld& world, std::string_view contents) {
  static const URL url = *URL::parse("https://www.store.example/page");
  const std::filesystem::path file = world.folder / "jars/fuzz.cookies";
  put(file, contents);
  const auto holdsWritten = [](CookieJar& jar) {
    bool holds = false;
    for (const CookiePointer& cookie : jar.cookiesForURL(url, true)) {
      REQUIRE(CookiePolicy::isWellFormed(*cookie));
      REQUIRE(CookiePolicy::domainMatches(url.host(), cookie->domain));
      holds = holds || (cookie->name == "written" && cookie->value == "now");
    }
    return holds;
  };
  bool isKept = false;
  {
    auto jar = CookieJar::open(file);
    REQUIRE(jar);
    static_cast<void>(holdsWritten(**jar));
    (*jar)->setCookies({*parseSetCookie("written=now; Path=/; Secure")}, url);
    isKept = !(*jar)->synchronize();
    REQUIRE(holdsWritten(**jar));
  }
  REQUIRE(isStillThere(file));
  constexpr char kVersionAt = 60;  // of the file's header: who wrote it, in four bytes
  const bool isNewer = contents.size() > kVersionAt + 4 &&
                       contents.starts_with("SQLite format 3") &&
                       contents.substr(kVersionAt, 4) > std::string_view("\0\0\0\1", 4);
  if (!isKept || isNewer) return;
  auto again = CookieJar::open(file);
  REQUIRE(again && (holdsWritten(**again) || wasSetAside(file)));
}

void checkBag(const FuzzWorld& world, std::string_view contents) {
  const auto client = FuzzWorld::client();
  const auto file = world.directories.cacheHome / *client->identifier / "ProductionBag";
  put(file, contents);
  const auto bag = Bag::initWithBagType(kBagTypeProduction, client, {});
  REQUIRE(isStillThere(file));
  if (!bag->isValid()) return;
  // No anchor is installed: what counts has come over https.
  const auto decoded = PropertyList::decode(Data(contents));
  REQUIRE(decoded && decoded->dictionary() != nullptr);
  const Value archive = (*decoded->dictionary())["archive"];
  REQUIRE(archive.dictionary() != nullptr);
  const std::string* const from = (*archive.dictionary())["bootstrapURL"].string();
  REQUIRE(from != nullptr && from->starts_with("https:"));
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const FuzzWorld world;
  if (size == 0) return 0;
  const std::string_view contents(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (data[0] % 3) {
    case 0:
      checkPreferences(world.directories, contents);
      break;
    case 1:
      checkCookies(world, contents);
      break;
    default:
      checkBag(world, contents);
  }
  return 0;
}
