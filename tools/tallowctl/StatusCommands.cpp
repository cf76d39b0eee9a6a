#include <pthread.h>

#include <csignal>
#include <cstdio>

#include "platform/PropertyList/JSON.h"
#include "tools/tallowctl/Application.h"

namespace tallow::ctl {

namespace {

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
    output.table(*entry.value.array());
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
  output.line("Watching. Control-C ends it.");
  std::fflush(stdout);
  int received = 0;
  sigwait(&signals, &received);
  return kDone;
}

}  // namespace

void addStatusCommands(Application& application) {
  application.add(application.root(), "status", "Show what the service is doing", [&application] {
    return application.withClient([&](AccountServiceClient& client) {
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
