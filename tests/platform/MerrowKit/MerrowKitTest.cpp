#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "platform/Base/Directories.h"
#include "platform/Base/SharedInstance.h"
#include "platform/MerrowKit/MKLocalizedString.h"
#include "platform/MerrowKit/MKMachine.h"
#include "tests/support/TemporaryFolder.h"

namespace tallow {
namespace {

class MKMachineTest : public ::testing::Test {
 protected:
  void write(const std::string& path, const std::string& text) const {
    std::filesystem::create_directories((root.path() / path).parent_path());
    std::ofstream(root.path() / path, std::ios::binary) << text;
  }
  TemporaryFolder root;
  std::unique_ptr<MKMachine> machine = MKMachine::make(root.path());
};

TEST_F(MKMachineTest, TheSerialNumberIsTheFirmwaresOrNone) {
  EXPECT_EQ(machine->serialNumber(), std::nullopt);
  write("sys/firmware/devicetree/base/serial-number", std::string("10000000abcd\0", 13));
  EXPECT_EQ(machine->serialNumber(), "10000000abcd");
  for (const char* nothing :
       {"\n", "None\n", "To Be Filled By O.E.M.", "0000000", "Default string"}) {
    write("sys/devices/virtual/dmi/id/product_serial", nothing);
    EXPECT_EQ(machine->serialNumber(), "10000000abcd") << nothing;
  }
  write("sys/devices/virtual/dmi/id/product_serial", " C02 X1\n");
  EXPECT_EQ(machine->serialNumber(), "C02 X1");
}

TEST_F(MKMachineTest, TheRecoveryPartitionIsToldByTheKernelOrItsName) {
  EXPECT_FALSE(machine->isOnRecoveryPartition());
  for (const auto& [line, isRecovery] :
       std::vector<std::pair<const char*, bool>>{{"root=UUID=1 ro quiet", false},
                                                 {"root=/dev/sda1 norecovery", false},
                                                 {"root=/dev/sda1 ro recovery nomodeset", false},
                                                 {"quiet root=PARTLABEL=Recovery", true}}) {
    write("proc/cmdline", line);
    EXPECT_EQ(machine->isOnRecoveryPartition(), isRecovery) << line;
  }
  write("proc/cmdline", "quiet");
  struct stat status {};
  ASSERT_EQ(stat(root.path().c_str(), &status), 0);
  const std::string record = "run/udev/data/b" + std::to_string(major(status.st_dev)) + ":" +
                             std::to_string(minor(status.st_dev));
  write(record, "S:disk/by-label/x\nE:ID_PART_ENTRY_NAME=System\n");
  EXPECT_FALSE(machine->isOnRecoveryPartition());
  write(record, "E:ID_PART_ENTRY_NAME=Recovery\\x20HD\n");
  EXPECT_TRUE(machine->isOnRecoveryPartition());
}

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
