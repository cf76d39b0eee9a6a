#include "platform/Orv/OrvLibrary.h"

#include <gtest/gtest.h>

#include <fstream>

#include "platform/Orv/OrvLibraryFile.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/FakeOrv.h"
#include "tests/support/TemporaryFolder.h"

namespace tallow {
namespace {

TEST(OrvLibraryTest, WhatABadLibraryReturnsReachesNobodyAndIsGivenBack) {
  const CapturedLog log;
  FakeOrv fake;
  const FakeOrv::Out bad[] = {
      {"", true}, {"", true, 12}, {""}, {"x", false, 2'000'000}, {"x", false, 0xffffffff}};
  for (const FakeOrv::Out& out : bad) {
    const bool isTooLong = out.claimedLength > TALLOW_ORV_LARGEST_BUFFER;
    fake.password = fake.clientData = out;
    OrvBuffer identifier, password, clientData;
    std::uint32_t session = 0;
    EXPECT_EQ(fake.library().requestPassword(1, identifier, password),
              isTooLong ? kOrvUnusableAnswer : kOrvSuccess);
    EXPECT_TRUE(password.isNil());
    EXPECT_EQ(identifier.isNil(), isTooLong) << "both or none";
    EXPECT_EQ(fake.library().synchronizeMachine(1, {}, identifier, clientData),
              isTooLong ? kOrvUnusableAnswer : kOrvSuccess);
    const std::int32_t status = fake.library().startProvisioning(1, {}, clientData, session);
    EXPECT_EQ(status, isTooLong ? kOrvUnusableAnswer : kOrvSuccess);
    if (status == kOrvSuccess) fake.library().endSession(session);
  }
  EXPECT_EQ(fake.buffers, 0);
  EXPECT_EQ(fake.sessions, 0);

  // A failure that opened a session and left bytes behind all the same.
  fake.startStatus = fake.syncStatus = -3;
  fake.clientData = {"x"};
  OrvBuffer identifier, clientData;
  std::uint32_t session = 0;
  EXPECT_EQ(fake.library().startProvisioning(1, {}, clientData, session), -3);
  EXPECT_EQ(fake.library().synchronizeMachine(1, {}, identifier, clientData), -3);
  EXPECT_TRUE(clientData.isNil());
  EXPECT_EQ(fake.buffers, 0);
  EXPECT_EQ(fake.sessions, 0);
  // One that opened none is not asked to end any.
  fake.opensSession = false;
  fake.calls.clear();
  EXPECT_EQ(fake.library().startProvisioning(1, {}, clientData, session), -3);
  EXPECT_EQ(fake.calls, std::vector<std::string>{"start 1 none"});

  fake.handsOutOneBuffer = true;
  OrvBuffer password;
  EXPECT_EQ(fake.library().requestPassword(1, identifier, password), kOrvSuccess);
  EXPECT_TRUE(password.isNil());
  identifier = OrvBuffer();
  EXPECT_EQ(fake.buffers, 0) << "released once";
}

TEST(OrvLibraryTest, TheExampleLibraryDoesWhatTheInterfaceAsks) {
  const TemporaryFolder folder;
  const auto table = OrvLibraryFile::loadUnchecked(EXAMPLE_ORV);
  ASSERT_TRUE(table) << table.error().localizedDescription();
  const auto library = OrvLibrary::open(*table, folder.path() / "orv");
  ASSERT_TRUE(library);
  const OrvLibrary& orv = **library;
  EXPECT_EQ(orv.name(), "Example");
  EXPECT_FALSE(orv.provisionedDSIDs()) << "it does not tell";
  OrvBuffer identifier, password, clientData;
  std::uint32_t session = 0;
  EXPECT_EQ(orv.requestPassword(7, identifier, password), kOrvNotProvisioned);
  EXPECT_LT(orv.startProvisioning(7, {}, clientData, session), 0);
  const std::uint8_t data[] = {1, 2, 3};
  ASSERT_EQ(orv.startProvisioning(7, data, clientData, session), kOrvSuccess);
  EXPECT_EQ(clientData.span().size(), 3u);
  EXPECT_EQ(orv.finishProvisioning(session, {}, {}), kOrvSuccess);
  orv.endSession(session);
  EXPECT_EQ(orv.requestPassword(7, identifier, password), kOrvSuccess);
  EXPECT_EQ(password.span().size(), 4u);
  EXPECT_EQ(orv.synchronizeMachine(7, data, identifier, clientData), kOrvSuccess);
  EXPECT_EQ(orv.resetProvisioning(7), kOrvSuccess);
  EXPECT_EQ(orv.requestPassword(7, identifier, password), kOrvNotProvisioned);
}

TEST(OrvLibraryTest, OnlyWhatRootAloneCanReplaceIsLoaded) {
  const TemporaryFolder folder;
  const std::filesystem::path file = folder.path() / "library.so";
  std::ofstream(file) << "no library";
  EXPECT_TRUE(OrvLibraryFile::objectionTo(file)) << "below a folder that everybody writes to";
  EXPECT_TRUE(OrvLibraryFile::objectionTo("library.so"));
  EXPECT_TRUE(OrvLibraryFile::objectionTo("/nonexistent/library.so"));
  EXPECT_TRUE(OrvLibraryFile::objectionTo("/usr/bin")) << "no file";
  EXPECT_FALSE(OrvLibraryFile::objectionTo("/usr/share/common-licenses/Artistic"));
  EXPECT_FALSE(OrvLibraryFile::load("/usr/share/common-licenses/Artistic")) << "no library";
  EXPECT_FALSE(OrvLibraryFile::load(file));

  const auto choice = [&](const char* text) {
    std::ofstream(folder.path() / "com.vantor.tallowd.toml") << text;
    return OrvLibraryFile::administratorsChoice(folder.path());
  };
  EXPECT_EQ(*OrvLibraryFile::administratorsChoice("/nonexistent"), std::nullopt);
  EXPECT_EQ(*choice("Other = 1\n"), std::nullopt);
  EXPECT_FALSE(choice("MachineIdentityLibrary = 1\n")) << "not the built-in one instead";
  EXPECT_FALSE(choice("MachineIdentityLibrary = \n"));
  EXPECT_FALSE(choice("MachineIdentityLibrary = \"/usr/lib/x.so\"\n")) << "anybody's file";
  tallow_orv_library incomplete{};
  incomplete.version = TALLOW_ORV_VERSION;
  EXPECT_FALSE(OrvLibrary::open(&incomplete, folder.path()));
}

}  // namespace
}  // namespace tallow
