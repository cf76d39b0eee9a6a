#include <vector>

#include "platform/PropertyList/JSON.h"
#include "tools/tallowctl/Application.h"
#include "tools/tallowctl/TerminalDialog.h"

namespace tallow::ctl {

namespace {

// VALUE is JSON where it is JSON, else the text itself.
Value valueFrom(const std::string& text) {
  const Result<Value> json = JSON::decode(text);
  return json && !json->isNil() ? *json : Value(text);
}

int showSettings(Application& application) {
  return application.withClient([&](AccountServiceClient& client) {
    return application.show(client.passwordSettings(), [&](const auto& answer) {
      if (answer.error) return application.output().failure(*answer.error);
      application.output().table(answer.settings.value_or(Dictionary()));
      return static_cast<int>(kDone);
    });
  });
}

int changeSettings(Application& application, const std::vector<std::string>& assignments) {
  Dictionary changes;
  for (const std::string& each : assignments) {
    const std::size_t equals = each.find('=');
    if (equals == 0 || equals == std::string::npos)
      return application.output().wrongUsage("Not KEY=VALUE: " + each);
    changes = changes.setting(each.substr(0, equals), valueFrom(each.substr(equals + 1)));
  }
  return application.withClient([&](AccountServiceClient& client) {
    // Another program may be the one that asks. Where nobody can, the store's refusal says so.
    const auto agent = showDialogsOnTerminal(application);
    return application.show(client.updatePasswordSettings(changes), [&](const auto& update) {
      if (update.success) return application.finish(std::nullopt, "The settings are changed.");
      if (!update.error)
        return application.output().failure(
            makeError("tallowctl", 1, "The settings were not changed."));
      return application.output().failure(*update.error);
    });
  });
}

}  // namespace

void addPasswordSettingsCommands(Application& application) {
  CLI::App* settings = application.add(application.root(), "password-settings",
                                       "Show when the store wants the password, or change that",
                                       [&application] { return showSettings(application); });
  auto assignments = std::make_shared<std::vector<std::string>>();
  application
      .add(*settings, "set", "Change settings; the store may ask to sign in on the terminal",
           [&application, assignments] { return changeSettings(application, *assignments); })
      ->add_option("KEY=VALUE", *assignments, "VALUE may be JSON")
      ->required();
}

}  // namespace tallow::ctl
