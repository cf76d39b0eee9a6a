#include "src/RegisterPushNotificationOperation.h"

#include "platform/VendBase/HSError.h"
#include "platform/VendBase/MediaTypeMask.h"
#include "tests/src/PushFixture.h"

namespace tallow {
namespace {

using Operation = RegisterPushNotificationOperation;

const Dictionary kDone{{"status", 0}};
const Dictionary kUnknownDevice{{"status", -2}};

TEST(MediaTypeMask, NamesAndBitsConvertBothWays) {
  const std::vector<std::pair<Array, std::int64_t>> masks = {
      {{"ebook", "mac-software", "ebook", 7}, 3}, {{}, 0}, {{"music", "Ebook"}, 0}, {{"ebook"}, 2}};
  for (const auto& [names, mask] : masks) EXPECT_EQ(mediaTypeMask(names), mask);
  EXPECT_EQ(arrayWithMediaTypeMask(0), std::nullopt);
  EXPECT_EQ(arrayWithMediaTypeMask(4), Array());
  EXPECT_EQ(arrayWithMediaTypeMask(7), (Array{"mac-software", "ebook"}));
  EXPECT_EQ(arrayWithMediaTypeMask(std::uint64_t{1} << 63 | 2), Array{"ebook"});
}

class RegisterPushNotificationOperationTest : public PushFixture {
 protected:
  struct Ran {
    bool success;
    std::optional<Error> error;
  };
  Ran run(std::int64_t type, Value token = Data("token"), Value mask = 3) {
    const auto operation = std::make_shared<Operation>(
        Dictionary{{"1", type}, {"2", std::move(token)}, {"3", std::move(mask)}}, client);
    Ran ran{};
    ran.success = operation->runSyncReturningError(&ran.error);
    return ran;
  }
  static std::string pair(const std::string& dsID) { return std::string(kGUID) + ":" + dsID; }
};

TEST_F(RegisterPushNotificationOperationTest, BodiesHoldWhatThereIs) {
  signIn(7);
  EXPECT_TRUE(run(1).success);
  const Dictionary announcement{{"device-name", "Mac"},
                                {"environment", "production"},
                                {"guid", kGUID},
                                {"serial-number", "SERIAL"},
                                {"token", Data("token")}};
  EXPECT_EQ(posted(kRegister), std::vector<Value>{announcement});
  EXPECT_EQ(record(), (Dictionary{{pair("7"), Data("token")}}));
  EXPECT_TRUE(downloadChecks.empty()) << "the first announcement of this device";

  run(1, Data("token"), 0);  // no key for nothing
  run(1, Data("token"), 4);  // nor for what has no name
  run(0, nullptr, 3);        // always an empty array
  run(9, Data("token"));     // nothing is sent
  const Dictionary guid{{"guid", kGUID}};
  EXPECT_EQ(posted(kMediaTypes),
            (std::vector<Value>{guid.setting("media-types", Array{"mac-software", "ebook"}), guid,
                                guid, guid.setting("media-types", Array())}));
  EXPECT_EQ(posted(kRegister).size(), 1u) << "already sent";
  const auto dumped = world.log.propertyLists();
  const std::map<std::string, Value> dumps(dumped.begin(), dumped.end());
  EXPECT_EQ(dumps.at("RequestBodyRegisterSuccess"), Value(announcement));
  EXPECT_EQ(dumps.at("ResponseBody_register"), Value(kDone));
  EXPECT_EQ(dumps.count("RequestBodyMediaTypes"), 1u);
}

TEST_F(RegisterPushNotificationOperationTest, WhatTheStoreAnswersDecides) {
  pages[kMediaTypes] = {kDone};
  EXPECT_TRUE(run(0).success);
  const auto fails = [&](const Value& answer, std::int64_t code,
                         const std::optional<std::string>& message = "Failed to register") {
    pages[kMediaTypes] = {answer};
    const Ran ran = run(0);
    EXPECT_FALSE(ran.success) << description(answer);
    EXPECT_EQ(ran.error, HSError(code, "Register for push notification", message))
        << description(answer);
  };
  fails(Dictionary(), 0, std::nullopt);
  fails(Dictionary{{"status", 2}, {"customerMessage", "x"}}, 2);
  fails(Dictionary{{"failureType", "5002"}, {"customerMessage", "x"}}, 5002, "x");
  fails(Dictionary{{"status", "0"}, {"failureType", Array()}, {"customerMessage", 5}}, 0, {});
  fails(Dictionary{{"status", -7.0}}, -7);
  fails(Array{kDone}, 0);
  for (const char* body : {"", "<html>"}) {
    pages[kMediaTypes] = {Data(std::string_view(body))};
    EXPECT_EQ(run(0).error->code, kHSErrorInvalidPropertyList) << "the request's own error";
  }
  pages[kMediaTypes].clear();
  EXPECT_EQ(run(0).error->code, kHSErrorHTTPStatus) << "the request's own error";
}

TEST_F(RegisterPushNotificationOperationTest, ABagWithoutTheEntryIsAnError) {
  for (const Value& entry : {Value(), Value("https://store.example.com/register"), Value(Array()),
                             Value(Dictionary{{"register-success", 5}}),
                             Value(Dictionary{{"register-success", "no url"}})}) {
    bag = bag.setting("push-notifications", entry).setting("automatic-downloads2", entry);
    ServiceWorld::forgetControllers();
    std::filesystem::remove_all(world.directories.cacheHome);
    const Ran ran = run(2);
    EXPECT_FALSE(ran.success);
    EXPECT_EQ(*ran.error,
              HSError(3, "No bag entry", "Could not find key 'register-success' in bag."));
    EXPECT_EQ(run(0).error->userInfo["message"],
              Value("Could not find key 'register-media-types' in bag."));
  }
  EXPECT_TRUE(world.log.mentions(1, "Could not find register-success: "));
}

TEST_F(RegisterPushNotificationOperationTest, OnlyATokenThatStoodAsAnnouncedIsAnnouncedAgain) {
  signIn(7);
  pages[kMediaTypes] = {kUnknownDevice};
  EXPECT_EQ(run(1).error->code, -2);
  EXPECT_EQ(posted(kRegister).size(), 1u) << "it had not been recorded before";

  setRecord(Dictionary{{pair("7"), Data("token")}, {"OTHER:1", Data("x")}});
  pages[kMediaTypes] = {kUnknownDevice, kDone};
  EXPECT_TRUE(run(1).success);
  EXPECT_EQ(posted(kRegister).size(), 2u);
  EXPECT_EQ(record(), (Dictionary{{pair("7"), Data("token")}})) << "the reset took all pairs";
  EXPECT_TRUE(downloadChecks.empty()) << "after the reset it is the first time again";

  pages[kMediaTypes] = {kUnknownDevice};
  EXPECT_EQ(run(1).error->code, -2);
  EXPECT_EQ(posted(kRegister).size(), 3u) << "once, not for ever";
}

TEST_F(RegisterPushNotificationOperationTest, TheRecordIsReadInBothForms) {
  signIn(7);
  const auto check = [&](const Value& before, bool sends, bool isFirst) {
    SCOPED_TRACE(description(before));
    setRecord(before);
    downloadChecks.clear();
    const std::size_t sent = posted(kRegister).size();
    EXPECT_TRUE(run(2).success);
    EXPECT_EQ(posted(kRegister).size() - sent, sends ? 1u : 0u);
    EXPECT_EQ(downloadChecks.size(), sends && !isFirst ? 1u : 0u);
    const Value after = record();
    EXPECT_EQ((*after.dictionary())[pair("7")], Value(Data("token")));
    const Dictionary* const old = before.dictionary();
    EXPECT_EQ(after.dictionary()->count(), old && !old->contains(pair("7")) ? 2u : 1u);
  };
  for (const Value& nothing : {Value(), Value(Array{"OTHER:7", 5}), Value("text"),
                               Value(Dictionary{{"OTHER:7", Data("token")}})})
    check(nothing, true, true);
  check(Array{pair("7")}, true, false);
  check(Dictionary{{pair("7"), Data("token")}}, false, false);
  check(Dictionary{{pair("7"), "token"}}, true, false);
  check(Dictionary{{pair("8"), Data("token")}}, true, false);
}

TEST_F(RegisterPushNotificationOperationTest, TokensOfAnySizeAndTwoAtOnceAreKept) {
  const Data large(std::vector<std::uint8_t>(1 << 20, 0xab));
  for (const Data& token : {large, Data()}) {
    setRecord(Value());
    EXPECT_TRUE(run(2, token).success);
    EXPECT_EQ(record(), (Dictionary{{pair("(null)"), token}}));
  }
  EXPECT_FALSE(posted(kRegister).back().dictionary()->contains("token"))
      << "an empty one is left out";

  // Of two clients' accounts, each in its own store.
  setRecord(Value());
  signIn(1);
  const auto other = ServiceWorld::client("com.example.books", kHSStoreClientTypeBookStoreAgent);
  const auto account = std::make_shared<HSStoreAccount>();
  account->setDsID(2);
  AccountStore::accountStoreForClient(other)->makeAccountPrimary(account);
  for (const auto& each : {client, other})
    HSOperationQueue::mainQueue().addOperation(
        std::make_shared<Operation>(Dictionary{{"1", 2}, {"2", Data("t")}}, each));
  settle();
  EXPECT_EQ(record(), (Dictionary{{pair("1"), Data("t")}, {pair("2"), Data("t")}}));
}

TEST_F(RegisterPushNotificationOperationTest, EnabledMediaTypesNeedAnAccountAndAnArray) {
  const auto ask = [&](std::optional<Error>* error) {
    return std::make_shared<Operation>(Dictionary(), client)->enabledMediaTypesWithError(error);
  };
  std::optional<Error> error;
  EXPECT_EQ(ask(&error), std::nullopt);
  EXPECT_EQ(*error, HSError(5, "Not signed in", std::nullopt));
  signIn(7);
  pages[kEnabled] = {Dictionary{{"enabled-media-kinds", "ebook"}},
                     Dictionary{{"enabled-media-kinds", Array{"ebook"}}}};
  EXPECT_EQ(ask(nullptr), std::nullopt);
  EXPECT_EQ(ask(nullptr), Array{"ebook"});
}

}  // namespace
}  // namespace tallow
