#include <pthread.h>

#include <csignal>
#include <cstdio>

#include "platform/PropertyList/JSON.h"
#include "platform/VendBase/RecentFailures.h"
#include "tools/tallowctl/Application.h"
#include "tools/tallowctl/TerminalDialog.h"

namespace tallow::ctl {

namespace {

// The status has the advice with each failure; people are told once.
Array withoutAdvice(const Array& failures) {
  std::vector<Value> rows;
  for (const Value& failure : failures)
    if (const Dictionary* const row = failure.dictionary())
      rows.emplace_back(row->removing("advice"));
  return Array(std::move(rows));
}

// What to do about what the status tells, by the name of the trouble.
Dictionary adviceIn(const Dictionary& status) {
  Dictionary advice;
  if (const Array* const failures = status["failures"].array())
    for (const Value& failure : *failures)
      if (const Dictionary* const row = failure.dictionary())
        if (const std::string* const kind = (*row)["kind"].string())
          advice = advice.setting(*kind, (*row)["advice"]);
  if (const Array* const accounts = status["accounts"].array())
    for (const Value& account : *accounts)
      if (const Dictionary* const row = account.dictionary();
          row != nullptr && (*row)["primary"] == true && (*row)["token"] == "expired")
        advice = advice.setting(nameOf(FailureKind::Expired), adviceFor(FailureKind::Expired));
  return advice;
}

int showStatus(const Output& output, const std::string& text) {
  const Result<Value> status = JSON::decode(text);
  if (!status || status->dictionary() == nullptr)
    return output.failure(makeError("tallowctl", 1, "The service's status is not readable"));
  if (output.isJSON()) {
    output.value(*status);
    return kDone;
  }
  Dictionary single;
  for (const auto& entry : *status->dictionary())
    if (entry.value.array() == nullptr) single = single.setting(entry.key, entry.value);
  output.table(single);
  for (const auto& entry : *status->dictionary()) {
    if (entry.value.array() == nullptr || entry.value.array()->empty()) continue;
    output.line("");
    output.line(entry.key + ":");
    output.table(entry.key == "failures" ? withoutAdvice(*entry.value.array())
                                         : *entry.value.array());
  }
  if (const Dictionary advice = adviceIn(*status->dictionary()); !advice.empty()) {
    output.line("");
    output.line("what to do:");
    output.table(advice);
  }
  return kDone;
}

void showBagUpdate(const Output& output, bool success, const std::optional<Error>& failure) {
  if (output.isJSON()) {
    output.value(Dictionary{{"event", "bag"},
                            {"success", success},
                            {"error", failure ? Value(failure->localizedDescription()) : Value()}});
  } else {
    output.line(success ? "The bag has been updated."
                        : "The bag could not be updated: " +
                              (failure ? failure->localizedDescription() : "no reason given"));
  }
  std::fflush(stdout);
}

void showPrimaryAccount(const Output& output, const std::optional<Dictionary>& account) {
  if (output.isJSON()) {
    output.value(Dictionary{{"event", "account"}, {"account", account}});
  } else if (account) {
    const std::string* name = (*account)["identifier"].string();
    output.line("The primary account is " + (*account)["dsid"].stringValue() +
                (name != nullptr ? " (" + *name + ")." : "."));
  } else {
    output.line("Nobody is signed in any more.");
  }
  std::fflush(stdout);
}

// Prints what happens until somebody ends it.
int watch(const Application& application, AccountServiceClient& client) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  const Output& output = application.output();
  auto error = client.observeURLBag([&output](bool success, const std::optional<Error>& failure) {
    showBagUpdate(output, success, failure);
  });
  if (!error)
    error = client.observeAccounts([&output](const std::optional<Dictionary>& account) {
      showPrimaryAccount(output, account);
    });
  if (error) return output.failure(*error);
  const auto dialogs = showDialogsOnTerminal(application);
  output.line("Watching. Control-C ends it.");
  std::fflush(stdout);
  int received = 0;
  sigwait(&signals, &received);
  return kDone;
}

}  // namespace

void addStatusCommands(Application& application) {
  application.add(application.root(), "status", "Show what the service is doing", [&application] {
    return application.withService([&](AccountServiceClient& client) {
      return application.show(client.describe(), [&](const std::string& text) {
        return showStatus(application.output(), text);
      });
    });
  });
  application.add(application.root(), "watch",
                  "Show updates of the bag and of the primary account as they happen",
                  [&application] {
                    return application.withClient(
                        [&](AccountServiceClient& client) { return watch(application, client); });
                  });
}

}  // namespace tallow::ctl
