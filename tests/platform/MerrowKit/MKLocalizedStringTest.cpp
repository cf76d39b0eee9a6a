#include "platform/MerrowKit/MKLocalizedString.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "platform/Base/Directories.h"
#include "platform/Base/SharedInstance.h"

namespace tallow {
namespace {

constexpr const char* kPrefix = "AUTO_PUSH_FIRST_BUY_NOTIFICATION_";

// The language is taken from the environment once a process: each gets one of its own.
[[noreturn]] void printTexts(const char* language, const std::filesystem::path& data) {
  setenv("LANGUAGE", language, 1);
  setenv("LC_ALL", "C.UTF-8", 1);
  Directories directories;
  directories.dataDirs = {"/nonexistent", data};
  const ScopedShared<Directories> shared(directories);
  for (const char* key : {"TITLE", "BODY", "ACTION_BUTTON", "CLOSE_BUTTON"})
    std::fprintf(stderr, "%s|", MKLocalizedString(std::string(kPrefix) + key).c_str());
  std::exit(0);
}

TEST(MKLocalizedStringDeathTest, EveryLanguageHasTheFourTexts) {
  const std::filesystem::path catalogs = TALLOW_CATALOGS;
  const std::vector<std::pair<const char*, const char*>> languages = {
      {"en", "^Automatic Downloads\\|Would you .*\\|Turn On\\|Not Now\\|$"},
      {"de", "^Automatische Downloads\\|Möchten Sie.*\\|Aktivieren\\|Jetzt nicht\\|$"},
      {"fr", "^Téléchargements automatiques\\|Voulez-vous.*\\|Activer\\|Plus tard\\|$"},
      {"es", "^Descargas automáticas\\|¿Quiere.*\\|Activar\\|Ahora no\\|$"},
      {"ja", "^自動ダウンロード\\|.*\\|オンにする\\|今はしない\\|$"},
      {"xx", "^Automatic Downloads\\|Would you .*\\|Turn On\\|Not Now\\|$"},
      {"xx:fr", "^Téléchargements automatiques\\|"}};
  for (const auto& [language, texts] : languages)
    EXPECT_EXIT(printTexts(language, catalogs), ::testing::ExitedWithCode(0), texts) << language;
  EXPECT_EXIT(printTexts("de", "/nonexistent"), ::testing::ExitedWithCode(0), "^Automatic D")
      << "without catalogs";
}

TEST(MKLocalizedString, AnUnknownKeyIsItsOwnText) {
  EXPECT_EQ(MKLocalizedString("NO_SUCH_KEY"), "NO_SUCH_KEY");
}

}  // namespace
}  // namespace tallow
