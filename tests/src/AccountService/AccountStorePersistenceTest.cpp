#include <gmock/gmock.h>

#include "platform/Preferences/SQLitePreferences.h"
#include "tests/src/AccountService/AccountsFixture.h"
#include "tests/support/FullDisk.h"
#include "tests/support/InTheWay.h"

namespace tallow {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kPrimary = kDefaultsPrimaryAccountKey;
constexpr const char* kKnown = kDefaultsKnownAccountsKey;
constexpr const char* kMigrated = kDefaultsPrimaryAccountMigratedKey;
constexpr std::uint64_t kLargestDSID = 18446744073709551615u;

Dictionary record(std::uint64_t dsID, const char* name = "n") {
  return {{"dsid", dsID}, {"identifier", name}};
}
Dictionary oldRecord(const Value& dsID) {
  return {{"Store DSID", dsID}, {"Store Vantor ID", "old"}, {"storefront", "143441"}};
}

class AccountsOnDiskTest : public AccountsTest {
 protected:
  AccountsOnDiskTest() { std::filesystem::create_directories(world.directories.configHome); }

  const SQLitePreferences::Configuration configuration =
      SQLitePreferences::configurationFor(world.directories);
};

TEST_F(AccountsTest, EverythingButTheTokenComesBack) {
  const auto signedIn = store()->addAccountWithAuthenticationResponse(
      HSAuthenticationResponse({{"dsPersonId", kLargestDSID},
                                {"identifier", "\u0645\u062b\u0627\u0644 \U0001F600"},
                                {"token", "t"},
                                {"storefront", "143441-1,29"},
                                {"creditDisplay", "$5"},
                                {"kind", 2}}),
      true);
  store()->addAccount(account(7, std::string(1 << 20, 'x')));
  store()->addAccount(account(8, ""));
  const auto again = storeReadAgain();
  const auto primary = again->primaryAccount();
  ASSERT_NE(primary, nullptr);
  EXPECT_EQ(primary->persistedStoreDictionary(), signedIn->persistedStoreDictionary());
  EXPECT_EQ(primary->dsID(), kLargestDSID);
  EXPECT_TRUE(primary->isSignedIn());
  EXPECT_EQ(primary->token(), std::nullopt);
  EXPECT_EQ(again->accounts().front(), primary) << "the primary one is one of them, and first";
  EXPECT_THAT(dsIDs(*again), ElementsAre(kLargestDSID, 7u, 8u));
  EXPECT_EQ(again->accountWithDSID(7)->identifier()->size(), 1u << 20);
  EXPECT_FALSE((world.stored(kKnown).array()->begin())->dictionary()->contains("token"));

  again->signOut();
  EXPECT_EQ(storeReadAgain()->primaryAccount(), nullptr);
  EXPECT_THAT(dsIDs(*store()), ElementsAre(kLargestDSID, 7u, 8u));
}

TEST_F(AccountsTest, StoresOfOneDomainKeepEachOthersPrimaryAccounts) {
  auto sandboxed = std::make_shared<HSStoreClient>(*client);
  sandboxed->requiredBagType = kBagTypeSandbox;
  auto book = std::make_shared<HSStoreClient>(*client);
  book->clientType = kHSStoreClientTypeBookStoreAgent;
  world.write(kPrimary,
              Dictionary{{"dsid", 9}, {"7", Dictionary{{"1", record(70)}}}, {"x", Array{}}});
  world.write(kMigrated, true);
  std::uint64_t dsID = 0;
  for (const auto& each : {client, sandboxed, book})
    AccountStore::accountStoreForClient(each)->addAccountWithAuthenticationResponse(
        response(++dsID), true);
  store()->signOut();
  const Dictionary table = *world.stored(kPrimary).dictionary();
  EXPECT_TRUE((*table["0"].dictionary())["1"].isNil());
  EXPECT_EQ((*(*table["0"].dictionary())["2"].dictionary())["dsid"], Value(2));
  EXPECT_EQ((*(*table["1"].dictionary())["1"].dictionary())["dsid"], Value(3));
  EXPECT_EQ((*(*table["7"].dictionary())["1"].dictionary())["dsid"], Value(70));
  EXPECT_EQ(table.count(), 3u) << "what is left of a flat record goes with the first write";
  EXPECT_EQ(world.stored(kKnown).array()->count(), 1u)
      << "the known accounts are the last writer's";
  EXPECT_EQ(world.preferences.synchronizations().back(),
            (MemoryPreferences::Synchronization{*client->identifier, Preferences::User::Current,
                                                Preferences::Host::Any}));
}

TEST_F(AccountsTest, AFlatRecordIsBroughtOverOnceFromWhereverItWas) {
  const std::string agent = "com.example.agent";
  client->agentPreferencesDomain = agent;
  const auto check = [&](const std::string& domain, std::int64_t clientType, const Value& flat,
                         std::uint64_t dsID) {  // 0: nothing is found
    SCOPED_TRACE(domain + " " + std::to_string(clientType) + " " + description(flat));
    for (const char* old : {"com.example.store", "com.vantor.pellagent", "com.vantor.folioagent"})
      world.write(kPrimary, {}, old);
    for (const char* key : {kPrimary, kKnown, kMigrated}) world.write(key, {}, agent);
    world.write(kPrimary, flat, domain);
    client->clientType = clientType;
    const auto primary = storeReadAgain()->primaryAccount();
    EXPECT_EQ(primary ? primary->dsID().value_or(0) : 0, dsID);
    EXPECT_EQ(world.stored(kMigrated, agent), Value(true)) << "also when nothing was found";
    EXPECT_EQ(!world.stored(kPrimary, agent).isNil(), dsID != 0) << "written when it was brought";
    // A second time it is not looked for.
    world.write(kPrimary, {}, agent);
    world.write(kPrimary, record(99), "com.example.store");
    EXPECT_EQ(storeReadAgain()->primaryAccount(), nullptr);
  };
  check("com.example.store", 0, record(1), 1);
  check("com.example.store", 2, oldRecord("2"), 2);
  check("com.vantor.pellagent", 0, record(3), 3);
  check("com.vantor.folioagent", 1, oldRecord(kLargestDSID), kLargestDSID);
  check("com.vantor.folioagent", 0, record(5), 0);
  check("com.vantor.pellagent", 2, record(6), 0);
  check("com.example.store", 0, "no record", 0);
  check("com.example.store", 0, Dictionary{{"dsid", -1}}, 0);
}

TEST_F(AccountsTest, KnownAccountsOfAnOlderLayoutComeOverWithTheMigrationOnly) {
  const Array known{record(1),    oldRecord("2"),
                    "garbage",    record(1, "twice"),
                    Dictionary(), Dictionary{{"dsid", "3"}},
                    Array{},      record(9, "the primary one again")};
  client->agentPreferencesDomain = "com.example.agent";
  world.write(kKnown, known, "com.example.agent");
  world.write(kPrimary, record(9), "com.example.store");
  EXPECT_THAT(dsIDs(*store()), ElementsAre(9u, 1u, 2u, 1u, 3u));
  EXPECT_EQ(store()->accountWithDSID(2)->identifier(), "old");
  EXPECT_EQ(world.stored(kKnown, "com.example.agent").array()->count(), 5u);

  world.write(kKnown, known, "com.example.agent");
  EXPECT_THAT(dsIDs(*storeReadAgain()), ElementsAre(9u, 1u, 1u, 3u));
  store()->addAccount(account(1, "one"));
  EXPECT_THAT(dsIDs(*store()), ElementsAre(9u, 3u, 1u)) << "one entry is left";
}

TEST_F(AccountsTest, TheMediaStoresAccountIsTakenWithoutBeingWritten) {
  client = ServiceWorld::client("com.example.media", kHSStoreClientTypeMediaStore);
  const auto set = [&](const Value& name, const Value& dsID, const Value& storefront) {
    world.write("Store Vantor ID", name, "com.vantor.Harlow");
    world.write("Store DSID", dsID, "com.vantor.Harlow");
    world.write("storefront", storefront, "com.vantor.Harlow");
  };
  set("a@example.com", kLargestDSID, "143441");
  const auto primary = store()->primaryAccount();
  ASSERT_NE(primary, nullptr);
  EXPECT_EQ(*primary->persistedStoreDictionary(), (Dictionary{{"bagtype", 1},
                                                              {"dsid", kLargestDSID},
                                                              {"identifier", "a@example.com"},
                                                              {"kind", 0},
                                                              {"signedin", true},
                                                              {"storefront", "143441"}}));
  EXPECT_TRUE(world.stored(kPrimary, "com.example.media").isNil());

  set("a@example.com", "7", nullptr);
  EXPECT_EQ(storeReadAgain()->primaryAccount(), nullptr);
  EXPECT_TRUE(world.log.contains(1,
                                 "AccountStore: failed to create primaryAccount "
                                 "vantorIDString:a@example.com dsidValue:7 "
                                 "storefrontString:(null)"));
  client = ServiceWorld::client("com.example.agent", kHSStoreClientTypeStoreAgent);
  set("a@example.com", 7, "143441");
  EXPECT_EQ(store()->primaryAccount(), nullptr) << "for the media store's clients only";
}

TEST_F(AccountsTest, WrongTypesAtEveryLevelAreReadAsNothing) {
  const Value wrong[] = {true, 7, "text", Data("ab"), Date{1}, Array{1, Dictionary()}, 0.5};
  for (const Value& value : wrong) {
    SCOPED_TRACE(description(value));
    const Value levels[] = {value, Dictionary{{"0", value}},
                            Dictionary{{"0", Dictionary{{"1", value}}}},
                            Dictionary{{"0", Dictionary{{"1", Dictionary{{"dsid", Array{}}}}}}}};
    for (const Value& level : levels) {
      world.write(kPrimary, level);
      world.write(kKnown, value);
      world.write(kMigrated, Dictionary());
      const auto store = storeReadAgain();
      EXPECT_EQ(store->primaryAccount(), nullptr);
      EXPECT_THAT(dsIDs(*store), IsEmpty());
      store->addAccountWithAuthenticationResponse(response(1), true);
      EXPECT_EQ(storeReadAgain()->primaryAccount()->dsID(), 1u);
    }
  }
  std::vector<Value> many;
  for (std::uint64_t i = 1; i <= 10'000; ++i) {
    many.emplace_back(record(i));
    many.push_back(wrong[i % std::size(wrong)]);
  }
  world.write(kKnown, Array(many));
  EXPECT_EQ(storeReadAgain()->accounts().size(), 10'000u);
  EXPECT_NE(store()->accountWithDSID(10'000), nullptr);
}

TEST_F(AccountsOnDiskTest, WhatAFullDiskRefusesStaysInMemoryAndIsWrittenNextTime) {
  SQLitePreferences files(configuration);
  const ScopedShared<Preferences> onDisk(files);
  store()->addAccount(account(9, "before"));
  {
    const FullDisk full;
    store()->addAccountWithAuthenticationResponse(response(1), true);
    EXPECT_TRUE(world.log.contains(1, "AccountStore: failed to writeAccountsToPersistedStore"));
    EXPECT_EQ(store()->primaryAccount()->dsID(), 1u);
    EXPECT_FALSE(AccountStore::writeWhatWasRefused());
  }
  store()->addAccount(account(2, "b"));
  EXPECT_THAT(dsIDs(*storeReadAgain()), ElementsAre(1u, 9u, 2u));
  {
    const FullDisk full;
    store()->signOut();
    finishOperations();
  }
  EXPECT_TRUE(AccountStore::writeWhatWasRefused());
  EXPECT_EQ(storeReadAgain()->primaryAccount(), nullptr);
}

TEST_F(AccountsOnDiskTest, WhatCannotBeReadYetIsNotWrittenOver) {
  {
    SQLitePreferences before(configuration);
    const ScopedShared<Preferences> onDisk(before);
    store()->addAccount(account(9, "known"));
    store()->addAccountWithAuthenticationResponse(response(1), true);
  }
  for (const bool signsOut : {false, true}) {
    SQLitePreferences files(configuration);
    const ScopedShared<Preferences> onDisk(files);
    std::shared_ptr<AccountStore> unread;
    const auto observer = std::make_shared<Observer>();
    {
      const InTheWay folder(configuration.file);
      unread = storeReadAgain();
      unread->addAccountStoreObserver(observer);
      EXPECT_THAT(dsIDs(*unread), IsEmpty());
      EXPECT_EQ(AccountStore::accountStoreForClientIfAtHand(client), nullptr);
      unread->addAccount(account(2, "new"));
      unread->addAccount(account(1, "newer"));
      EXPECT_FALSE(AccountStore::writeWhatWasRefused());
    }
    if (signsOut) {
      unread->signOut();
      finishOperations();
    } else {
      world.clock.advance(1);
      EXPECT_EQ(store()->primaryAccount()->dsID(), 1u) << "whoever asks has it looked for";
      EXPECT_EQ(store()->primaryAccount(), store()->accountWithDSID(1)) << "the known one";
      EXPECT_THAT(observer->told, ElementsAre(1u));
      EXPECT_TRUE(AccountStore::writeWhatWasRefused());
    }
    const auto again = storeReadAgain();
    EXPECT_THAT(dsIDs(*again), testing::UnorderedElementsAre(1u, 9u, 2u));
    EXPECT_EQ(again->primaryAccount() == nullptr, signsOut);
  }
}

TEST_F(AccountsTest, TextsAreTheSameBeforeAndAfterARestartAndLeftOutWhenTooLong) {
  const std::pair<std::string, std::optional<std::string>> cases[] = {
      {std::string(1u << 20, 'x'), std::nullopt}, {std::string("a\0b", 3), "a\uFFFDb"}};
  for (const auto& [text, kept] : cases) {
    store()->addAccountWithAuthenticationResponse(
        HSAuthenticationResponse({{"dsPersonId", 1}, {"identifier", text}}), true);
    store()->parseCreditStringForProtocol({{"creditDisplay", text}});
    for (const auto& each : {store(), storeReadAgain()}) {
      EXPECT_EQ(each->primaryAccount()->dsID(), 1u);
      EXPECT_EQ(each->primaryAccount()->identifier(), kept);
      EXPECT_EQ(each->primaryAccount()->creditString(), kept);
    }
  }
}

}  // namespace
}  // namespace tallow
