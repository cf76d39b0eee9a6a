#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/Base/Clock.h"
#include "platform/Base/Directories.h"
#include "platform/Base/SharedInstance.h"
#include "platform/HTTP/ScriptedTransport.h"
#include "platform/Preferences/MemoryPreferences.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/CertificateAuthority.h"
#include "tests/support/ScopedDirectories.h"
#include "tests/support/TemporaryFolder.h"
#include "tools/tallowctl/BusFilesCheck.h"
#include "tools/tallowctl/InstallationChecks.h"
#include "tools/tallowctl/StoreChecks.h"

namespace tallow {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

// Later than any file that the machine has.
constexpr double kNow = 4'102'444'800;
constexpr const char* kNowText = "Fri, 01 Jan 2100 00:00:00 GMT";

// An installation in a temporary folder, which each test breaks in its own way.
class DoctorTest : public ::testing::Test {
 protected:
  DoctorTest() { makeWhole(); }

  void makeWhole() {
    for (const auto& entry : fs::directory_iterator(root)) fs::remove_all(entry);
    clock.set(Date{kNow});
    writeService("Name=com.vantor.tallowd\nExec=/bin/true\nSystemdService=tallowd.service\n");
    write("lib/systemd/user/tallowd.service", "");
    write("etc/tallowd/clients.d/store.toml",
          "identifier = \"com.example.store\"\n"
          "production-bag-urls = [\"https://one.example/bag\"]\n"
          "[[process]]\nexecutable = \"/bin/sh\"\n");
    write("etc/tallowd/anchors/root.pem", anchor(kNow + 100 * 86400.0));
    for (const fs::path& folder : {directories.configHome, directories.dataHome / "Cookies",
                                   directories.cacheHome, directories.stateHome / "orv"})
      ensureDirectoryExists(folder);
    serveStatus(200);
  }
  void serveStatus(int status) {
    transport.setHandler([status](const HTTPRequest& request) {
      return ScriptedTransport::response(request, status, {{"Date", kNowText}}, "");
    });
  }

  void writeService(const std::string& text) const {
    write("share/dbus-1/services/com.vantor.tallowd.service", "[D-BUS Service]\n" + text);
  }
  void write(const std::string& name, const std::string& text) const {
    const fs::path path = root / name;
    fs::create_directories(path.parent_path());
    std::ofstream(path) << text;
    fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write);
  }
  static std::string anchor(double notAfter) {
    CertificateOptions options = CertificateOptions::authority("Root");
    options.notAfter = Date{notAfter};
    return TestCertificate::selfSigned(TestKey::ellipticCurve("P-256"), options).pem();
  }
  ctl::Findings examined() const {
    ctl::Findings findings;
    if (!ctl::BusFilesCheck(false, {root / "share"}).run(findings))
      findings.problem("bus", "no service file", "install");
    ctl::checkClients(findings);
    ctl::checkFolders(findings, getuid());
    ctl::checkAnchors(findings);
    ctl::checkSandbox(findings);
    ctl::checkClock(findings);
    ctl::checkStores(findings);
    return findings;
  }
  // "area: what" of each problem, none of which may come without advice.
  static std::vector<std::string> problemsIn(const ctl::Findings& findings) {
    std::vector<std::string> problems;
    for (const Value& row : findings.rows()) {
      const Dictionary& finding = *row.dictionary();
      if (finding["severity"] != "problem") continue;
      EXPECT_NE(finding["advice"], "") << description(finding);
      problems.push_back(*finding["area"].string() + ": " + *finding["what"].string());
    }
    EXPECT_EQ(findings.problemCount(), problems.size());
    return problems;
  }

  const CapturedLog log;
  const TemporaryFolder folder;
  const fs::path& root = folder.path();
  ManualClock clock{Date{kNow}};
  MemoryPreferences preferences;
  const ScopedDirectories directories{root};
  ScriptedTransport transport;
  ScopedShared<Clock> sharedClock{clock};
  ScopedShared<Preferences> sharedPreferences{preferences};
  ScopedShared<HTTPTransport> sharedTransport{transport};
};

TEST_F(DoctorTest, FindsNothingWhereNothingIsWrong) {
  const ctl::Findings findings = examined();
  EXPECT_EQ(findings.problemCount(), 0u) << description(findings.rows());
  EXPECT_THAT(description(findings.rows()), HasSubstr("https://one.example/bag"));
}

TEST_F(DoctorTest, NamesEachThingThatIsBroken) {
  // With that broken, one of the problems says so.
  const auto finds = [this](const char* problem, const std::function<void()>& breakIt) {
    makeWhole();
    breakIt();
    EXPECT_THAT(problemsIn(examined()), ::testing::Contains(HasSubstr(problem)));
  };
  finds("bus: no service file",
        [&] { fs::remove(root / "share/dbus-1/services/com.vantor.tallowd.service"); });
  finds("which is no program",
        [&] { writeService("Name=com.vantor.tallowd\nExec=/nowhere/tallowd\n"); });
  finds("is for the name \"other\"", [&] { writeService("Name=other\nExec=/bin/true\n"); });
  finds("clients: no client is described", [&] { fs::remove_all(root / "etc/tallowd/clients.d"); });
  finds("broken.toml", [&] { write("etc/tallowd/clients.d/broken.toml", "identifier = 7\n"); });
  finds("/program: its executable is writable by others", [&] {
    write("program", "");
    fs::permissions(root / "program", fs::perms{0777});
    write("etc/tallowd/clients.d/loose.toml",
          "identifier = \"com.example.loose\"\n[[process]]\nexecutable = \"" +
              (root / "program").native() + "\"\n");
  });
  finds("data/tallowd can be written by others",
        [&] { fs::permissions(directories.dataHome, fs::perms{0777}); });
  finds("jar can be used by others", [&] {
    write("data/tallowd/Cookies/jar", "");
    fs::permissions(directories.dataHome / "Cookies/jar", fs::perms{0644});
  });
  finds("has expired on", [&] { write("etc/tallowd/anchors/old.pem", anchor(kNow - 1)); });
  finds("damaged, or no certificate",
        [&] { write("etc/tallowd/anchors/odd.pem", "-----BEGIN CERTIFICATE-----\n"); });
  finds("sandbox: ", [&] { write("share/tallowd/sandbox/com.vantor.tallowd.toml", "odd = 1\n"); });
  finds("clock: it is", [&] { clock.set(Date{1'000'000'000}); });
  finds("(com.example.store): offline",
        [&] { transport.setHandler(ScriptedTransport::fail(HTTPTransport::kCannotConnect)); });
  finds("answers with status 404", [&] { serveStatus(404); });
  finds("s ahead of that of https://one.example/bag", [&] { clock.set(Date{kNow + 10'000}); });
}

}  // namespace
}  // namespace tallow
