#include <gtest/gtest.h>

#include "platform/Base/Clock.h"
#include "platform/Concurrency/ManualRunLoop.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/FakeDialogAgent.h"

namespace tallow {
namespace {

HSDialog dialog(Dictionary value) {
  return HSDialog::fromProtocolValue(value).value();
}

std::vector<std::string> titles(const HSDialog& dialog) {
  std::vector<std::string> list;
  for (const auto& button : dialog.buttons)
    list.push_back(button.title + (button.dismisses ? "*" : ""));
  return list;
}
using Titles = std::vector<std::string>;

TEST(HSDialogTest, TakesWhatCanBeShownAndLeavesTheRest) {
  const std::vector<Value> hundred(100, Value("x"));
  for (const Value& none : {Value(), Value("text"), Value(Array{"message"}), Value(Dictionary()),
                            Value(Dictionary{{"message", 5}, {"explanation", Data("x")}}),
                            Value(Dictionary{{"message", "\x1b\x07"}}),  // nothing is left of it
                            Value(Dictionary{{"signIn", true}})})
    EXPECT_FALSE(HSDialog::fromProtocolValue(none)) << description(none);
  EXPECT_EQ(titles(dialog({{"message", "m"}})), Titles{"OK"});
  EXPECT_EQ(titles(dialog({{"signIn", Dictionary()}})), (Titles{"Sign In", "Cancel*"}));
  const std::pair<Value, Titles> cases[] = {
      {"OK", {"OK"}},
      {Array{1, "", Dictionary(), Array{"x"}}, {"OK"}},
      {Array{"Yes", Dictionary{{"title", "No"}, {"dismisses", true}}}, {"Yes", "No*"}},
      {Array(hundred), Titles(8, "x")}};
  for (const auto& [buttons, shown] : cases)
    EXPECT_EQ(titles(dialog({{"message", "m"}, {"buttons", buttons}})), shown)
        << description(buttons);
  const HSDialog signIn =
      dialog({{"signIn", Dictionary{{"accountName", "\x1b]0;a\x07@b"}, {"fixed", "yes"}}}});
  EXPECT_EQ(signIn.signIn->accountName, "]0;a@b");
  EXPECT_TRUE(signIn.signIn->isFixed);
  EXPECT_FALSE(dialog({{"signIn", Dictionary{{"fixed", true}}}}).signIn->isFixed)
      << "nobody could sign in";
}

TEST(HSDialogTest, ShowsTextsHarmless) {
  EXPECT_EQ(HSDialog::shownText("a\x1b[31mb\x9b\xc2\x9bm\x7f\r"), "a[31mb\xEF\xBF\xBDm");
  EXPECT_EQ(HSDialog::shownText("\u202Eev\u00ADil\u2066\u200Bte\u034Fxt\uFEFF\U000E0041"),
            "eviltext");
  EXPECT_EQ(HSDialog::shownText("líne\n日本 \U0001F600\tend"), "líne\n日本 \U0001F600 end");
  EXPECT_EQ(dialog({{"message", "two\nlines"}}).message, "two lines");
  EXPECT_LE(dialog({{"message", std::string(1u << 20, 'x')}}).message.size(),
            HSDialog::kMaxMessageBytes);
}

class DialogCenterTest : public testing::Test {
 protected:
  // Shows a dialog; what comes back is in `answers`, "-" for a dismissal.
  std::uint64_t show(const std::string& client = "a") {
    return _scoped.center.show(_dialog, client, [this](const HSDialogAnswer& answer) {
      answers.push_back(answer.isDismissalOf(_dialog) ? "-" : answer.accountName);
    });
  }

  ManualClock _clock{Date{0}};
  ManualRunLoop _loop{_clock};
  ScopedShared<RunLoop> _sharedLoop{_loop};
  CapturedLog _log;
  const HSDialog _dialog = dialog({{"message", "m"}});
  std::vector<std::string> answers;
  ScopedDialogCenter _scoped;
  HSDialogCenter& _center = _scoped.center;
};
using Answers = std::vector<std::string>;

TEST_F(DialogCenterTest, AnswersOnceAndOnlyToTheAgentThatWasAsked) {
  const auto other = std::make_shared<FakeDialogAgent>("b");
  _center.addAgent(other);
  const std::uint64_t number = show("b");
  const auto press = [](const char* name) { return FakeDialogAgent::pressing(0, name); };
  EXPECT_FALSE(_center.answer(*_scoped.agent, number, press("x"))) << "another's dialog";
  EXPECT_FALSE(_center.answer(*other, number + 1, press("x"))) << "no such dialog";
  EXPECT_TRUE(_center.answer(*other, number, press("y")));
  EXPECT_FALSE(_center.answer(*other, number, press("z"))) << "the second time";
  EXPECT_EQ(answers, Answers{"y"});
  EXPECT_EQ(_loop.pendingTimers(), 0u);
  EXPECT_EQ(_center.openDialogCount(), 0u);
}

TEST_F(DialogCenterTest, AsksTheLatestAgentOfTheClientElseTheLatest) {
  const auto first = std::make_shared<FakeDialogAgent>("a");
  const auto second = std::make_shared<FakeDialogAgent>("b");
  _center.addAgent(first);
  _center.addAgent(second);
  show("a");
  show("c");
  EXPECT_EQ(first->shown.size(), 1u);
  EXPECT_EQ(second->shown.size(), 1u);
}

TEST_F(DialogCenterTest, DismissesWhatNobodyAnswers) {
  const std::uint64_t late = show();
  _loop.advance(HSDialogCenter::kPatienceSeconds);
  EXPECT_EQ(_scoped.agent->dismissed, std::vector{late});
  const std::uint64_t withdrawn = show();
  _center.withdraw(withdrawn);
  _center.withdraw(withdrawn);
  const std::uint64_t unshown = show();
  _center.dismissUnshown(*_scoped.agent, unshown);
  EXPECT_EQ(_scoped.agent->dismissed.back(), unshown) << "it may show it later";
  show();
  _center.removeAgent(_scoped.agent);
  EXPECT_EQ(answers, (Answers{"-", "-", "-", "-"}));
  EXPECT_EQ(show(), 0u) << "there is no agent";
  EXPECT_EQ(answers.size(), 5u);
  EXPECT_TRUE(
      _log.contains(1, "HSDialogCenter: A dialog for a is not shown: there is nobody to show it"));
}

TEST_F(DialogCenterTest, AServiceThatEndsAsksNobody) {
  show();
  EXPECT_EQ(_scoped.agent->shown.at(0).client, "a");
  _center.close();
  EXPECT_EQ(show(), 0u);
  EXPECT_EQ(answers, (Answers{"-", "-"}));
}

TEST_F(DialogCenterTest, BoundsAgentsAndOpenDialogs) {
  for (std::size_t i = 0; i < HSDialogCenter::kMaxOpenDialogsPerClient; ++i) EXPECT_NE(show(), 0u);
  EXPECT_EQ(show(), 0u);
  EXPECT_EQ(answers, Answers{"-"});
  for (std::size_t i = 0; _center.openDialogCount() < HSDialogCenter::kMaxOpenDialogs; ++i)
    show("client " + std::to_string(i));
  EXPECT_EQ(show("another"), 0u);
  std::size_t agents = 1;
  while (_center.addAgent(std::make_shared<FakeDialogAgent>())) ++agents;
  EXPECT_EQ(agents, HSDialogCenter::kMaxAgents);
}

}  // namespace
}  // namespace tallow
