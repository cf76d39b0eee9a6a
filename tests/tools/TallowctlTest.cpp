#include <iomanip>
#include <sstream>

#include "platform/Preferences/MemoryPreferences.h"
#include "platform/PropertyList/JSON.h"
#include "platform/VendBase/HSError.h"
#include "tests/platform/XPC/ListenerFixture.h"
#include "tools/tallowctl/Application.h"

namespace tallow {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr const char* kURL = "https://store.example/";

struct Outcome {
  int status;
  std::string output;
  std::string errors;
};

// One run of the program.
Outcome run(std::vector<std::string> arguments) {
  std::vector<const char*> line{"tallowctl"};
  for (const std::string& argument : arguments) line.push_back(argument.c_str());
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  Outcome outcome{};
  outcome.status = ctl::Application().run(static_cast<int>(line.size()), line.data());
  outcome.output = testing::internal::GetCapturedStdout();
  outcome.errors = testing::internal::GetCapturedStderr();
  return outcome;
}

// The one JSON value that a run with --json printed.
Value json(std::vector<std::string> arguments, int status) {
  arguments.insert(arguments.begin(), "--json");
  const Outcome outcome = run(std::move(arguments));
  EXPECT_EQ(outcome.status, status) << outcome.output;
  EXPECT_THAT(outcome.errors, IsEmpty());
  const auto value = JSON::decode(outcome.output);
  EXPECT_TRUE(value) << outcome.output;
  return value ? *value : Value();
}

// What the JSON value of a run that failed says of its error.
Value errorOf(std::vector<std::string> arguments, int status, std::string_view key) {
  const Value value = json(std::move(arguments), status);
  const Dictionary* const all = value.dictionary();
  const Dictionary* const error = all == nullptr ? nullptr : (*all)["error"].dictionary();
  return error == nullptr ? Value() : (*error)[key];
}

using TallowctlServiceTest = ListenerTest;

TEST_F(TallowctlServiceTest, AsksTheServiceAndShowsItsAnswers) {
  prepare = [](FakeAccountService& service) {
    service.bag = Dictionary{{"buy", "https://store.example/buy"}, {"evil", "\033[31m\xC2\x9B"}};
    service.headers = [](const auto&) {
      return Dictionary{{"Cookie", "a=b; c=d"}, {"X-Test", "1"}};
    };
  };
  const Outcome bag = run({"bag"});
  EXPECT_EQ(bag.output, "buy   https://store.example/buy\nevil  \\x1b[31m\\x9b\n");
  EXPECT_THAT(bag.errors, IsEmpty());
  EXPECT_EQ(json({"bag"}, 0), Value(service(0)->bag));
  EXPECT_EQ(run({"headers", kURL, "--dsid", "7", "--identity"}).output,
            "Cookie: a=b; c=d\nX-Test: 1\n");
  EXPECT_THAT(service(2)->calls(),
              testing::ElementsAre("httpHeadersForURL " + std::string(kURL) + " 7 orv"));
  EXPECT_EQ(run({"trusted", kURL}).output, "yes\n");
  EXPECT_EQ(json({"bag", "valid"}, 0), true);
  EXPECT_EQ(run({"consume", kURL, "Set-Cookie: a=b", "Date:  now", "Set-Cookie: c=d"}).status, 0);
  EXPECT_EQ(service(5)->consumed().at(0).headers,
            (Dictionary{{"Set-Cookie", Array{"a=b", "c=d"}}, {"Date", "now"}}));
  EXPECT_EQ(json({"storefront"}, 1), Value());
  EXPECT_EQ(run({"storefront", "143441"}).status, 0);
  EXPECT_EQ(service(7)->storeFrontID(), "143441");
  EXPECT_EQ(run({"storefront", "--clear"}).status, 0);
  EXPECT_EQ(service(8)->calls().at(0), "setStoreFrontID nil");
  EXPECT_THAT(run({"status"}).output, HasSubstr("com.example.self"));
}

TEST_F(TallowctlServiceTest, SaysNoWithItsExitStatus) {
  EXPECT_EQ(run({"bag", "missing"}).status, 1);
  EXPECT_EQ(json({"bag"}, 1), Value());
  prepare = [](FakeAccountService& service) {
    service.loadError = makeError("HSErrorDomain", 14, "The bag is not signed");
  };
  const Outcome load = run({"bag", "load", "production"});
  EXPECT_EQ(load.status, 1);
  EXPECT_THAT(load.errors, HasSubstr("The bag is not signed"));
  EXPECT_EQ(errorOf({"bag", "load", "sandbox"}, 1, "code"), 14);

  const Outcome refused = run({"--client", "com.example.other", "bag", "valid"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.errors, HasSubstr("may-act-as-others"));
  writeDescriptor("self.toml", "");
  const Outcome unknown = run({"bag", "valid"});
  EXPECT_EQ(unknown.status, 1);
  EXPECT_THAT(unknown.output, IsEmpty());
  EXPECT_THAT(unknown.errors, HasSubstr("tallowd-clients.d(5)"));
}

TEST_F(TallowctlServiceTest, SaysThatACommandNeedsAClient) {
  recogniseThisProcess("store-client = false");
  for (const auto& command : {"sign-out", "accounts", "invalidate", "password-settings"}) {
    const Outcome outcome = run({command});
    EXPECT_EQ(outcome.status, 1) << command;
    EXPECT_THAT(outcome.errors, HasSubstr("Name a client with --client")) << command;
  }
  EXPECT_EQ(run({"status"}).status, 0);
}

TEST_F(TallowctlServiceTest, SaysWhenTheServiceIsNotThere) {
  listener->stop();
  EXPECT_EQ(run({"bag", "valid"}).status, 3);
  EXPECT_EQ(run({"--system", "bag", "valid"}).status, 3);
  bus.stop();
  const Outcome outcome = run({"status"});
  EXPECT_EQ(outcome.status, 3);
  EXPECT_THAT(outcome.errors, HasSubstr("tallowd(8)"));
  EXPECT_EQ(errorOf({"status"}, 3, "code"), AccountServiceClient::kUnreachable);
}

TEST(TallowctlTest, RefusesWrongUsageAndPasswordsAsArgumentsBeforeItAsksAnybody) {
  // As a person would type them, each up to its semicolon.
  std::istringstream lines(R"(
    ; nonsense; --nonsense bag; bag load other; bag load; trusted; trusted "no url";
    headers https://a.example/ --dsid -1; headers https://a.example/ --dsid 18446744073709551616;
    consume https://a.example/ "no header"; storefront 1 --clear; push nonsense;
    push registered 1 99999999999999999999; push deliver --dsid -1; push deliver --payload /;
    eligibility 99999999999999999999; accounts add 18446744073709551616; sign-in name password;
    sign-in --password-stdin; password-settings set; password-settings set =b;
    --system defaults read domain; push --dsid 3; defaults write domain key; defaults write domain key x --type int;
    defaults write domain key 2026-02-30T00:00:00Z --type date;
    defaults write domain key x --type odd;)");
  int count = 0;
  for (std::string line; std::getline(lines, line, ';'); ++count) {
    SCOPED_TRACE(line);
    std::vector<std::string> arguments;
    std::istringstream words(line);
    for (std::string word; words >> std::quoted(word);) arguments.push_back(word);
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, 2);
    EXPECT_THAT(outcome.output, IsEmpty());
    EXPECT_THAT(outcome.errors, HasSubstr("--help"));
    EXPECT_THAT(outcome.errors, Not(HasSubstr("no command \"-")));
    EXPECT_EQ(errorOf(arguments, 2, "domain"), "usage");
  }
  EXPECT_EQ(count, 27);
}

TEST(TallowctlTest, TellsOfItself) {
  EXPECT_THAT(run({"--version"}).output, testing::StartsWith("tallowctl "));
  EXPECT_FALSE((*json({"--version"}, 0).dictionary())["version"].isNil());
  EXPECT_THAT(run({"--help"}).output, HasSubstr("storefront"));
  EXPECT_THAT(run({"bag", "load", "--help"}).output, HasSubstr("sandbox"));
  EXPECT_THAT(*(*json({"bag", "--help"}, 0).dictionary())["help"].string(), HasSubstr("KEY"));
}

TEST_F(TallowctlServiceTest, ReadsAndChangesPasswordSettings) {
  prepare = [](FakeAccountService& service) {
    service.passwordSettings = Dictionary{{"a", "b"}, {"c", Array{1}}};
  };
  EXPECT_EQ(run({"password-settings"}).output, "a  b\nc  [1]\n");
  EXPECT_EQ(json({"password-settings"}, 0), Value(Dictionary{{"a", "b"}, {"c", Array{1}}}));
  EXPECT_EQ(run({"password-settings", "set", "a=b=c", "n=1", "t=\"1\"", "e="}).status, 0);
  // The last connection asks; on a terminal there is one before it that would show dialogs.
  EXPECT_EQ(service(acceptedCount() - 1)->passwordSettings,
            (Dictionary{{"a", "b=c"}, {"n", 1}, {"t", "1"}, {"e", ""}}));

  // A refusal has no message, only a title, and may try what it likes with the terminal.
  prepare = [](FakeAccountService& service) {
    service.passwordSettingsError = HSError(32, "No\x1b[31m!", std::nullopt);
  };
  const Outcome refused = run({"password-settings", "set", "a=b"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.errors, HasSubstr("No\\x1b[31m!"));
  EXPECT_EQ(errorOf({"password-settings"}, 1, "code"), 32);
}

TEST(TallowctlTest, KeepsPreferencesOfEveryType) {
  MemoryPreferences preferences;
  const ScopedShared<Preferences> scope(preferences);
  const auto writes = [&](const char* type, const char* text) {
    EXPECT_EQ(run({"defaults", "write", "d", "k", text, "--type", type}).status, 0) << type;
    return preferences.copyAppValue("k", "d");
  };
  EXPECT_EQ(writes("string", "7"), "7");
  EXPECT_EQ(writes("int", "18446744073709551615"), Value(18446744073709551615u));
  EXPECT_EQ(writes("bool", "yes"), true);
  EXPECT_EQ(writes("real", "7"), Value(7.0));
  EXPECT_EQ(writes("date", "2001-09-09T01:46:40Z"), Value(Date{1000000000}));
  EXPECT_EQ(writes("date", "1000000000.5"), Value(Date{1000000000.5}));
  EXPECT_EQ(writes("data", "Zm91cg=="), Value(Data("four")));
  EXPECT_EQ(writes("json", "{\"a\": [1, \"b\"]}"), Value(Dictionary{{"a", Array{1, "b"}}}));
  EXPECT_EQ(json({"defaults", "read", "d", "k"}, 0), Value(Dictionary{{"a", Array{1, "b"}}}));
  run({"defaults", "write", "d", "other", "text"});
  EXPECT_EQ(run({"defaults", "read", "d"}).output, "k      {\"a\":[1,\"b\"]}\nother  text\n");
  EXPECT_EQ(run({"defaults", "delete", "d", "k"}).status, 0);
  EXPECT_EQ(run({"defaults", "read", "d", "k"}).status, 1);
  EXPECT_EQ(run({"defaults", "delete", "d"}).status, 0);
  EXPECT_THAT(preferences.copyAppKeyList("d"), IsEmpty());
  preferences.setWritesFail(true);
  EXPECT_EQ(run({"defaults", "write", "d", "k", "v"}).status, 1);
}

TEST_F(TallowctlServiceTest, ShowsAndAddsAccounts) {
  prepare = [](FakeAccountService& service) {
    service.signedInAccount = std::make_shared<HSStoreAccount>();
    service.knownAccounts = {service.signedInAccount};
    service.signedInAccount->mergeValuesFromAuthenticationResponse(HSAuthenticationResponse(
        {{"dsid", 18446744073709551615u}, {"identifier", "a\033b"}, {"token", "t"}}));
  };
  EXPECT_THAT(run({"whoami"}).output, HasSubstr("identifier  a\\x1bb"));
  EXPECT_EQ((*json({"whoami"}, 0).dictionary())["dsid"], Value(18446744073709551615u));
  EXPECT_EQ(run({"token"}).output, "t\n");
  EXPECT_EQ(run({"account", "18446744073709551615"}).status, 0);
  EXPECT_EQ(run({"account", "7"}).status, 1);
  EXPECT_EQ(run({"accounts", "add", "7", "name"}).status, 0);
  EXPECT_EQ(run({"credit"}).status, 1);
}

}  // namespace
}  // namespace tallow
