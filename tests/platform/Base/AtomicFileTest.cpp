#include "platform/Base/AtomicFile.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cerrno>
#include <fstream>
#include <set>
#include <string>

#include "tests/support/FullDisk.h"
#include "tests/support/TemporaryFolder.h"

namespace tallow {
namespace {

namespace fs = std::filesystem;

class AtomicFileTest : public testing::Test {
 protected:
  static void put(const fs::path& path, std::string_view text) { std::ofstream(path) << text; }
  std::set<std::string> names() const {
    std::set<std::string> result;
    for (const auto& entry : fs::directory_iterator(_folder.path()))
      result.insert(entry.path().filename().string());
    return result;
  }

  const TemporaryFolder _folder;
  const fs::path _file = _folder / "state";
};

TEST_F(AtomicFileTest, WritesAndReplacesPrivately) {
  const mode_t previous = umask(0);
  EXPECT_EQ(writeFileAtomically(_file, Data("old")), std::nullopt);
  chmod(_file.c_str(), 0644);
  EXPECT_EQ(writeFileAtomically(_file, Data(std::string(100'000, 'n'))), std::nullopt);
  umask(previous);
  EXPECT_EQ(readFile(_file)->view(), std::string(100'000, 'n'));
  EXPECT_EQ(fs::status(_file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(writeFileAtomically(_file, Data()), std::nullopt);
  EXPECT_TRUE(readFile(_file)->empty());
  EXPECT_THAT(names(), testing::ElementsAre("state"));
}

TEST_F(AtomicFileTest, WritingOverALinkReplacesTheLink) {
  put(_folder / "target", "precious");
  fs::create_symlink("target", _file);
  EXPECT_EQ(writeFileAtomically(_file, Data("new")), std::nullopt);
  EXPECT_FALSE(fs::is_symlink(_file));
  EXPECT_EQ(readFile(_folder / "target")->view(), "precious");
}

TEST_F(AtomicFileTest, AFailedWriteLeavesTheOldContentsAndNothingElse) {
  put(_file, "old");
  std::optional<Error> error;
  {
    const FullDisk full(1000);
    error = writeFileAtomically(_file, Data(std::string(5000, 'n')));
  }
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain, "File");
  EXPECT_EQ(error->code, EFBIG);
  EXPECT_EQ(readFile(_file)->view(), "old");
  EXPECT_THAT(names(), testing::ElementsAre("state"));

  fs::create_directory(_folder / "taken");
  EXPECT_EQ(writeFileAtomically(_folder / "taken", Data("x"))->code, EISDIR);
  EXPECT_EQ(writeFileAtomically(_folder / "missing" / "state", Data("x"))->code, ENOENT);
  EXPECT_EQ(writeFileAtomically(_folder / "", Data("x"))->code, EINVAL);
  EXPECT_EQ(writeFileAtomically(_folder / "..", Data("x"))->code, EINVAL);
  EXPECT_EQ(writeFileAtomically(_file / "state", Data("x"))->code, ENOTDIR);
  EXPECT_THAT(names(), testing::ElementsAre("state", "taken"));
}

TEST_F(AtomicFileTest, ReadsOnlyRegularFilesOfBoundedSize) {
  put(_file, "12345");
  EXPECT_EQ(readFile(_file, 5)->view(), "12345");
  EXPECT_EQ(readFile(_file, 4).error().code, EFBIG);
  EXPECT_EQ(readFile(_folder / "missing").error().code, ENOENT);
  EXPECT_EQ(readFile(_folder.path()).error().code, EISDIR);
  fs::create_symlink("state", _folder / "link");
  EXPECT_EQ(readFile(_folder / "link").error().code, ELOOP);
  // Neither waits for a writer nor reads what a device has to give.
  ASSERT_EQ(mkfifo((_folder / "fifo").c_str(), 0600), 0);
  EXPECT_EQ(readFile(_folder / "fifo").error().code, EINVAL);
  EXPECT_EQ(readFile("/dev/zero").error().code, EINVAL);
  // A file that does not tell its size, and one that has more to give than is wanted.
  EXPECT_FALSE(readFile("/proc/self/maps")->empty());
  EXPECT_EQ(readFile("/proc/self/maps", 100).error().code, EFBIG);
}

TEST_F(AtomicFileTest, DamagedFilesAreMovedAsideNeverOverwritten) {
  for (const char* expected : {"state.corrupt", "state.corrupt.2", "state.corrupt.3"}) {
    put(_file, expected);
    const auto moved = setAsideAsCorrupt(_file);
    ASSERT_TRUE(moved);
    EXPECT_EQ(*moved, _folder / expected);
    EXPECT_EQ(readFile(*moved)->view(), expected);
    EXPECT_FALSE(fs::exists(_file));
  }
  EXPECT_EQ(setAsideAsCorrupt(_file).error().code, ENOENT);
}

}  // namespace
}  // namespace tallow
