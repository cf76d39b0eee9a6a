#include "platform/Concurrency/MemoryPressure.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "platform/Base/Base64.h"
#include "platform/Concurrency/ManualRunLoop.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/TemporaryFolder.h"

namespace tallow {
namespace {

// What the process has of a library in its memory, in kilobytes, without what it has written to.
long residentCleanKilobytes(const std::string& library) {
  std::ifstream mappings("/proc/self/smaps");
  long sum = 0, resident = 0;
  bool isWanted = false;
  for (std::string line; std::getline(mappings, line);) {
    if (line.find(" r") != std::string::npos && line.find('-') < line.find(' '))
      isWanted = line.find(library) != std::string::npos;
    if (line.starts_with("Rss:")) resident = std::atol(line.c_str() + 4);
    if (isWanted && line.starts_with("Anonymous:")) sum += resident - std::atol(line.c_str() + 10);
  }
  return sum;
}

TEST(MemoryPressureTest, WhatIsSeldomEnteredIsGivenBackAndComesAgain) {
  const std::string text = base64Encode(Data("the cryptographic library does this"));
  const long before = residentCleanKilobytes("/libcrypto.so");
  ASSERT_GT(before, 0);
  giveBackMemory();
  EXPECT_LT(residentCleanKilobytes("/libcrypto.so"), before / 2);
  EXPECT_EQ(base64Encode(Data("the cryptographic library does this")), text);
}

TEST(MemoryPressureTest, IsHeardWhereTheServiceManagerSays) {
  const TemporaryFolder folder;
  const CapturedLog log;
  const std::string path = folder.path() / "pressure";
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  struct {
    std::string watch, write;
    bool isHeard;
    const char* line;
  } const cases[] = {
      {path, "", true, "memory is short"},
      {"/dev/null", "", false, nullptr},
      {folder.path() / "absent", "", false, "No such file"},
      {folder.path(), "", false, "Is a directory"},
      {path, "no base64!", false, "MEMORY_PRESSURE_WRITE is no base64"},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.watch + " " + each.write);
    setenv("MEMORY_PRESSURE_WATCH", each.watch.c_str(), 1);
    setenv("MEMORY_PRESSURE_WRITE", each.write.c_str(), 1);
    ManualClock clock{Date{0}};
    ManualRunLoop loop{clock};
    MemoryPressure pressure;
    pressure.watch(loop);
    const FileDescriptor end(open(path.c_str(), O_RDWR | O_NONBLOCK));
    ASSERT_EQ(write(end.get(), "x", 1), 1);
    loop.advance(0);
    char letter = 0;
    EXPECT_EQ(read(end.get(), &letter, 1) < 0, each.isHeard);
    if (each.line != nullptr) {
      EXPECT_TRUE(log.mentions(each.isHeard ? 3 : 1, each.line));
    }
  }
  unsetenv("MEMORY_PRESSURE_WATCH");
  unsetenv("MEMORY_PRESSURE_WRITE");
}

}  // namespace
}  // namespace tallow
