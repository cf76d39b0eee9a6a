#include "platform/Orv/BuiltInOrv.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>

#include "platform/Base/AtomicFile.h"
#include "platform/Base/Clock.h"
#include "platform/Base/SharedInstance.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FullDisk.h"
#include "tests/support/TemporaryFolder.h"

namespace tallow {
namespace {

constexpr std::uint64_t kDSID = 1234567890123;

// A store that provisions and synchronises one machine.
struct Store {
  OrvCrypto::KeyPair first = OrvCrypto::makeKeyPair(), second = OrvCrypto::makeKeyPair();
  OrvMessages::ProvisioningStart start{{1, 2, 3}, first.publicKey};
  OrvMessages::Settings settings{{9, 9, 9}, 30, 1'800'000'000'000};
  std::optional<OrvIdentityKeys> keys;
  SecretVector fingerprint;

  std::pair<Data, Data> answerTo(const SecretVector& clientData, std::uint64_t dsID) {
    const auto request = OrvMessages::ProvisioningRequest::decode(clientData);
    auto agreement = OrvAgreement::ofStore(dsID, first, *request);
    const auto opened = OrvCrypto::open(agreement->requestKey(), request->provisioning,
                                        request->sealedFingerprint.span());
    if (opened) fingerprint = *opened;
    agreement->addTransportKeyOfMachine(second, request->machineKey);
    keys = agreement->identityKeys();
    return {settings.seal(agreement->settingsKey()),
            OrvMessages::TransportKey{second.publicKey}.encode()};
  }
  std::string passwordAt(std::uint64_t milliseconds) const {
    return OrvCrypto::timeBasedPassword(keys->password.span(), milliseconds / 30'000, 8);
  }
  Data syncStart(std::uint64_t storeTime) const {
    OrvMessages::SyncStart sync{{4, 4}, storeTime, {}};
    sync.proof = sync.proofWith(keys->sync);
    return sync.encode();
  }
};

class BuiltInOrvTest : public ::testing::Test {
 protected:
  BuiltInOrv machine(const char* id = "this machine") {
    const std::string_view text = id;
    return {folder.path() / "orv",
            {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()},
            boot,
            [this](int, const std::string& line) { log += line + "\n"; }};
  }
  std::int32_t provision(BuiltInOrv& orv, Store& store, std::uint64_t dsID = kDSID) {
    const std::int32_t status =
        orv.startProvisioning(dsID, store.start.encode().span(), clientData, session);
    if (status != kOrvSuccess) return status;
    const auto [info, key] = store.answerTo(clientData, dsID);
    const std::int32_t finished = orv.finishProvisioning(session, info.span(), key.span());
    orv.endSession(session);
    return finished;
  }
  std::string passwordOf(BuiltInOrv& orv, std::uint64_t dsID = kDSID) {
    SecretVector password;
    const std::int32_t status = orv.requestPassword(dsID, identifier, password);
    return status == kOrvSuccess ? std::string(password.begin(), password.end())
                                 : std::to_string(status);
  }
  // Of this machine, which was the first to make one.
  std::filesystem::path file() {
    if (machineFolder.empty())
      machineFolder = std::filesystem::directory_iterator(folder.path() / "orv")->path();
    return machineFolder / (std::to_string(kDSID) + ".identity");
  }
  std::uint64_t now() const {
    return static_cast<std::uint64_t>(clock.now().secondsSince1970 * 1000);
  }

  TemporaryFolder folder;
  std::filesystem::path machineFolder;
  StoreClock::Boot boot{1};
  mutable ManualClock clock{Date{1'800'000'000}};
  ScopedShared<Clock> sharedClock{clock};
  std::string log;
  Store store;
  SecretVector identifier, clientData;
  std::uint32_t session = 0;
};

TEST_F(BuiltInOrvTest, AProvisionedMachineProvesItselfUntilItIsReset) {
  BuiltInOrv orv = machine();
  EXPECT_EQ(passwordOf(orv), "-45061");
  ASSERT_EQ(provision(orv, store), kOrvSuccess);
  EXPECT_EQ(passwordOf(orv), store.passwordAt(now()));
  EXPECT_EQ(passwordOf(orv, kDSID + 1), "-45061") << "for one account alone";
  const auto said = OrvMessages::MachineIdentifier::decode(identifier);
  ASSERT_TRUE(said);
  EXPECT_EQ(said->machine, store.settings.machine);
  EXPECT_EQ(said->proof, OrvMessages::MachineIdentifier::proofFor(store.keys->identifier, kDSID,
                                                                  store.fingerprint));
  struct stat status {};
  ASSERT_EQ(::stat(file().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);

  Store anonymous;
  ASSERT_EQ(provision(orv, anonymous, UINT64_MAX), kOrvSuccess);
  EXPECT_NE(anonymous.fingerprint, store.fingerprint) << "not to be told to be of one machine";
  EXPECT_EQ(orv.provisionedDSIDs(), (std::vector<std::uint64_t>{kDSID, UINT64_MAX}));
  BuiltInOrv again = machine();  // as after a restart
  EXPECT_EQ(passwordOf(again), store.passwordAt(now()));
  EXPECT_EQ(again.resetProvisioning(kDSID), kOrvSuccess);
  EXPECT_EQ(again.resetProvisioning(kDSID), kOrvSuccess) << "nothing to forget";
  clock.advance(1);
  EXPECT_EQ(passwordOf(orv), "-45061") << "in the first one, too";
  EXPECT_EQ(passwordOf(again, UINT64_MAX), anonymous.passwordAt(now()));
}

TEST_F(BuiltInOrvTest, WhatIsNotFromTheStoreProvisionsNothing) {
  BuiltInOrv orv = machine();
  const Data start = store.start.encode();
  for (const Data& bad : {Data(), Data(start.span().first(48)), Data(std::string(1u << 20, '\1'))})
    EXPECT_EQ(orv.startProvisioning(kDSID, bad.span(), clientData, session), kOrvMalformed);
  ASSERT_EQ(orv.startProvisioning(kDSID, start.span(), clientData, session), kOrvSuccess);
  const auto [info, key] = store.answerTo(clientData, kDSID);
  const auto [otherInfo, otherKey] = store.answerTo(clientData, kDSID + 1);
  Store stranger;
  const auto [strangeInfo, strangeKey] = stranger.answerTo(clientData, kDSID);
  EXPECT_EQ(orv.finishProvisioning(session, {}, {}), kOrvMalformed);
  EXPECT_EQ(orv.finishProvisioning(session, {}, key.span()), kOrvNotGenuine);
  EXPECT_EQ(orv.finishProvisioning(session, otherInfo.span(), otherKey.span()), kOrvNotGenuine);
  EXPECT_EQ(orv.finishProvisioning(session, strangeInfo.span(), strangeKey.span()), kOrvNotGenuine);
  EXPECT_EQ(orv.finishProvisioning(session, info.span(), strangeKey.span()), kOrvNotGenuine);
  EXPECT_EQ(orv.finishProvisioning(session + 1, info.span(), key.span()), kOrvUnknownSession);
  EXPECT_EQ(passwordOf(orv), "-45061");
  EXPECT_EQ(orv.finishProvisioning(session, info.span(), key.span()), kOrvSuccess);
  orv.endSession(session);
  EXPECT_EQ(orv.finishProvisioning(session, info.span(), key.span()), kOrvUnknownSession);

  std::int32_t status = kOrvSuccess;
  for (int i = 0; i < 100 && status == kOrvSuccess; ++i)
    status = orv.startProvisioning(kDSID, start.span(), clientData, session);
  EXPECT_EQ(status, kOrvTooManySessions);
}

TEST_F(BuiltInOrvTest, ADiskThatRefusesIsAskedOnceAMinute) {
  BuiltInOrv orv = machine();
  ASSERT_EQ(provision(orv, store), kOrvSuccess);
  const std::string password = passwordOf(orv);
  clock.set(Date{clock.now().secondsSince1970 + 5000});
  {
    const FullDisk full;
    for (int i = 0; i < 100; ++i) EXPECT_EQ(passwordOf(orv), password);
  }
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
  EXPECT_TRUE(orv.passwordIsAtHand(kDSID));
  const Data before = *readFile(file());
  clock.advance(60);
  passwordOf(orv);
  EXPECT_NE(*readFile(file()), before);
}

TEST_F(BuiltInOrvTest, FilesThatCannotBeTrustedAreNotUsed) {
  const auto write = [this](const Data& contents) {
    ASSERT_FALSE(writeFileAtomically(file(), contents));
    clock.advance(1);
  };
  {
    BuiltInOrv orv = machine();
    ASSERT_EQ(provision(orv, store), kOrvSuccess);
  }
  const Data good = *readFile(file());
  const auto damaged = [&good](std::size_t at) {
    std::vector<std::uint8_t> bytes(good.span().begin(), good.span().end());
    bytes[at] ^= 1;
    return Data(std::move(bytes));
  };
  BuiltInOrv orv = machine();
  int setAside = 0;
  for (const Data& bad : {damaged(0), damaged(20), damaged(good.length() - 1), Data(),
                          Data(good.span().first(100)), Data(std::string(100'000, 'x'))}) {
    write(good);
    EXPECT_EQ(passwordOf(orv), store.passwordAt(now()));
    write(bad);
    EXPECT_EQ(passwordOf(orv), "-45061");
    EXPECT_FALSE(std::filesystem::exists(file()));
    ++setAside;
  }
  EXPECT_TRUE(std::filesystem::exists(file().native() + ".corrupt." + std::to_string(setAside)));

  write(good);
  BuiltInOrv elsewhere = machine("another machine");
  EXPECT_EQ(passwordOf(elsewhere), "-45061") << "it has a folder of its own";
  EXPECT_TRUE(std::filesystem::exists(file())) << "and leaves this one alone";
  Store other;
  ASSERT_EQ(provision(elsewhere, other), kOrvSuccess);
  for (const auto& place : std::filesystem::directory_iterator(folder.path() / "orv"))
    if (place.path() != machineFolder) {
      ASSERT_FALSE(writeFileAtomically(place.path() / file().filename(), good));
    }
  clock.advance(1);
  EXPECT_EQ(passwordOf(elsewhere), "-45061") << "carried over";

  write(good);
  EXPECT_EQ(passwordOf(orv), store.passwordAt(now()));
  ::chmod(file().c_str(), 0644);
  clock.advance(1);
  EXPECT_EQ(passwordOf(orv), "-45061");
  EXPECT_NE(log.find("others could have read"), std::string::npos);
  EXPECT_TRUE(std::filesystem::exists(file())) << "until the next provisioning";
  EXPECT_TRUE(orv.provisionedDSIDs().empty());
  ASSERT_EQ(provision(orv, store), kOrvSuccess);
  EXPECT_EQ(passwordOf(orv), store.passwordAt(now()));

  const std::filesystem::path elsewhereFile = folder.path() / "elsewhere";
  std::filesystem::rename(file(), elsewhereFile);
  std::filesystem::create_symlink(elsewhereFile, file());
  clock.advance(1);
  EXPECT_EQ(passwordOf(orv), "-45061") << "a link";
  // What a write that was cut off has left behind goes with the next start.
  const auto left = file().parent_path() / ".tallowd-0123456789abcdef.tmp";
  std::ofstream(left) << "secret";
  machine();
  EXPECT_FALSE(std::filesystem::exists(left));

  std::vector<std::uint8_t> future(good.span().begin(), good.span().end());
  future[15] = 2;
  const Data newer(std::move(future));
  write(newer);
  EXPECT_EQ(passwordOf(orv), std::to_string(kOrvNewerFormat));
  EXPECT_EQ(provision(orv, store), kOrvNewerFormat);
  EXPECT_EQ(orv.resetProvisioning(kDSID), kOrvNewerFormat);
  EXPECT_EQ(*readFile(file()), newer) << "left alone";
}

TEST_F(BuiltInOrvTest, PasswordsStayRightWhenTheClockIsSet) {
  BuiltInOrv orv = machine();
  clock.set(Date{1'700'000'000});  // wrong from the beginning
  ASSERT_EQ(provision(orv, store), kOrvSuccess);
  std::uint64_t storeNow = store.settings.storeTime;
  for (const double jump : {0.0, 3600.0, -7200.0}) {
    clock.set(Date{1'700'000'000 + jump});
    clock.advance(100);
    storeNow += 100'000;
    EXPECT_EQ(passwordOf(orv), store.passwordAt(storeNow)) << jump;
  }
  BuiltInOrv again = machine();
  EXPECT_EQ(passwordOf(again), store.passwordAt(storeNow)) << "after a restart of the service";

  const std::uint64_t late = storeNow + 5'000'000;  // this machine's clock ran behind
  EXPECT_EQ(orv.synchronizeMachine(kDSID, {}, identifier, clientData), kOrvMalformed);
  EXPECT_EQ(orv.synchronizeMachine(kDSID + 1, {}, identifier, clientData), kOrvNotProvisioned);
  ASSERT_EQ(orv.synchronizeMachine(kDSID, store.syncStart(late).span(), identifier, clientData),
            kOrvSuccess);
  EXPECT_EQ(passwordOf(orv), store.passwordAt(late));
  const auto request = OrvMessages::SyncRequest::decode(clientData);
  ASSERT_TRUE(request);
  EXPECT_EQ(request->machineTime, storeNow);
  EXPECT_EQ(request->proof, request->proofWith(store.keys->sync));

  EXPECT_EQ(orv.synchronizeMachine(kDSID, store.syncStart(late).span(), identifier, clientData),
            kOrvOutdated)
      << "an old order sets no clock back";
  store.keys->sync.writable()[0] ^= 1;
  EXPECT_EQ(orv.synchronizeMachine(kDSID, store.syncStart(late + 1).span(), identifier, clientData),
            kOrvNotGenuine);
  EXPECT_EQ(passwordOf(orv), store.passwordAt(late));
}

TEST_F(BuiltInOrvTest, WordsThatWereLongOnTheirWayAndANewStartKeepTheClockRight) {
  {
    BuiltInOrv orv = machine();
    ASSERT_EQ(orv.startProvisioning(kDSID, store.start.encode().span(), clientData, session),
              kOrvSuccess);
    const auto [info, key] = store.answerTo(clientData, kDSID);
    clock.advance(120);  // a minute each way
    ASSERT_EQ(orv.finishProvisioning(session, info.span(), key.span()), kOrvSuccess);
    orv.endSession(session);
    std::uint64_t storeNow = store.settings.storeTime + 60'000;
    EXPECT_EQ(passwordOf(orv), store.passwordAt(storeNow));

    const Data order = store.syncStart(storeNow + 10'000);
    clock.advance(600);
    storeNow += 600'000;
    ASSERT_EQ(orv.synchronizeMachine(kDSID, order.span(), identifier, clientData), kOrvSuccess);
    EXPECT_EQ(passwordOf(orv), store.passwordAt(storeNow)) << "an order that waited";
  }
  // Set while it runs, then started anew: the clock that the next start finds is the one that
  // counts, by what it was off when last looked at.
  for (const double jump : {3600.0, -3600.0}) {
    ++boot[0];
    BuiltInOrv orv = machine();
    Store again;
    ASSERT_EQ(provision(orv, again), kOrvSuccess);
    EXPECT_TRUE(orv.passwordIsAtHand(kDSID) || !passwordOf(orv).empty());
    clock.set(Date{clock.now().secondsSince1970 + jump});
    EXPECT_EQ(passwordOf(orv), again.passwordAt(again.settings.storeTime));
    EXPECT_FALSE(orv.passwordIsAtHand(kDSID)) << "there is something to write";
    passwordOf(orv);
    ++boot[0];
    BuiltInOrv later = machine();
    EXPECT_EQ(passwordOf(later), again.passwordAt(again.settings.storeTime)) << jump;
    EXPECT_TRUE(later.passwordIsAtHand(kDSID));
  }
}

// Killed at a moment of nobody's choosing, a machine has the old secret or the new one.
TEST_F(BuiltInOrvTest, AKillInTheMiddleOfProvisioningLosesNothing) {
  Store before;
  {
    BuiltInOrv orv = machine();
    ASSERT_EQ(provision(orv, before), kOrvSuccess);
  }
  for (int round = 0; round < 10; ++round) {
    ChildProcess child([this](const ChildProcess::Say& say) {
      BuiltInOrv orv = machine();
      Store store;
      for (int i = 0;; ++i) {
        provision(orv, store);
        say(i);
      }
    });
    while (child.next().value_or(3 + round) < 3 + round) continue;
    EXPECT_GE(child.kill(3 + round), 3 + round);
    BuiltInOrv orv = machine();
    EXPECT_EQ(passwordOf(orv).size(), 8u) << "a whole secret";
    EXPECT_EQ(orv.provisionedDSIDs(), std::vector<std::uint64_t>{kDSID});
  }
  EXPECT_EQ(log, "");
}

TEST_F(BuiltInOrvTest, ADiskThatRefusesFailsTheProvisioningAndNoMore) {
  BuiltInOrv orv = machine();
  std::ofstream(folder.path() / "orv") << "where the folder should be";
  EXPECT_EQ(provision(orv, store), kOrvNotStored);
  EXPECT_EQ(passwordOf(orv), "-45061");
  EXPECT_NE(log.find("Cannot make the folder"), std::string::npos);
  std::filesystem::remove(folder.path() / "orv");
  EXPECT_EQ(provision(orv, store), kOrvSuccess);
}

}  // namespace
}  // namespace tallow
