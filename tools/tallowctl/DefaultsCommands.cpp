#include <ctime>

#include "platform/Base/Base64.h"
#include "platform/Preferences/Preferences.h"
#include "platform/PropertyList/JSON.h"
#include "tools/tallowctl/Application.h"

namespace tallow::ctl {

namespace {

using User = Preferences::User;
using Host = Preferences::Host;

struct DefaultsOptions {
  std::string domain, key, text;
  std::string type = "string";
};

std::optional<Value> dateFromText(const std::string& text) {
  std::tm parts{};
  const char* const end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  if (end != nullptr && *end == '\0') {
    const int day = parts.tm_mday;
    const double seconds = static_cast<double>(timegm(&parts));
    // A day that the month does not have has become one of the next.
    return parts.tm_mday == day ? std::optional(Value(Date{seconds})) : std::nullopt;
  }
  const Result<Value> seconds = JSON::decode(text);
  if (!seconds || !seconds->isNumber() || seconds->boolean() != nullptr) return std::nullopt;
  return Value(Date{seconds->realValue()});
}

std::optional<Value> valueFromText(const std::string& type, const std::string& text) {
  if (type == "string") return Value(text);
  if (type == "bool") {
    if (text == "true" || text == "yes" || text == "1") return Value(true);
    if (text == "false" || text == "no" || text == "0") return Value(false);
    return std::nullopt;
  }
  if (type == "data") {
    const auto data = base64Decode(text);
    return data ? std::optional(Value(*data)) : std::nullopt;
  }
  if (type == "date") return dateFromText(text);
  const Result<Value> json = JSON::decode(text);
  if (!json || json->isNil()) return std::nullopt;
  if (type == "json") return *json;
  if (!json->isNumber() || json->boolean() != nullptr) return std::nullopt;
  if (type == "real") return Value(json->realValue());
  return json->isReal() ? std::nullopt : std::optional(*json);
}

int notWritten(const Application& application) {
  return application.output().failure(
      makeError("tallowctl", 1, "The preferences cannot be written; the log above says why."));
}

int write(const Application& application, const DefaultsOptions& options) {
  const auto value = valueFromText(options.type, options.text);
  if (!value)
    return application.output().wrongUsage("Not a value of type " + options.type + ": " +
                                           options.text);
  Preferences& preferences = Preferences::shared();
  preferences.setValue(options.key, *value, options.domain, User::Current, Host::Any);
  // A value that is too large is not taken.
  const bool isTaken =
      preferences.copyValue(options.key, options.domain, User::Current, Host::Any) == *value;
  if (!preferences.synchronize(options.domain, User::Current, Host::Any) || !isTaken)
    return notWritten(application);
  return application.finish(std::nullopt, "Written.");
}

int remove(const Application& application, const DefaultsOptions& options) {
  Preferences& preferences = Preferences::shared();
  const auto keys =
      options.key.empty() ? preferences.copyAppKeyList(options.domain) : std::vector{options.key};
  for (const std::string& key : keys) {
    for (const Host host : {Host::Current, Host::Any})
      preferences.setValue(key, nullptr, options.domain, User::Current, host);
  }
  if (!preferences.synchronize(options.domain, User::Current, Host::Any))
    return notWritten(application);
  return application.finish(std::nullopt, "Deleted.");
}

int read(const Application& application, const DefaultsOptions& options) {
  Preferences& preferences = Preferences::shared();
  if (options.key.empty()) {
    Dictionary all;
    for (const std::string& key : preferences.copyAppKeyList(options.domain))
      all = all.setting(key, preferences.copyAppValue(key, options.domain));
    application.output().table(all);
    return kDone;
  }
  const Value value = preferences.copyAppValue(options.key, options.domain);
  if (value.isNil())
    return application.output().failure(
        makeError("tallowctl", 1, "There is no " + options.key + " in " + options.domain + "."));
  application.output().value(value);
  return kDone;
}

int onOwn(const Application& application, const DefaultsOptions& options,
          int (*work)(const Application&, const DefaultsOptions&)) {
  if (application.instance() == AccountServiceClient::Instance::Daemon)
    return application.output().wrongUsage(
        "defaults are those of who runs tallowctl; the system-wide instance's are set in the "
        "administrators' files, see tallowd(8)");
  return work(application, options);
}

}  // namespace

void addDefaultsCommands(Application& application) {
  CLI::App* const defaults = application.add(
      application.root(), "defaults",
      "Read, write and delete preferences of this user, without the service", nullptr);
  defaults->require_subcommand(1);
  const auto options = std::make_shared<DefaultsOptions>();

  CLI::App* const reading =
      application.add(*defaults, "read", "Show a value, or all of a domain",
                      [&application, options] { return onOwn(application, *options, read); });
  CLI::App* const writing =
      application.add(*defaults, "write", "Set a value",
                      [&application, options] { return onOwn(application, *options, write); });
  CLI::App* const deleting = application.add(
      *defaults, "delete", "Remove a value, or all that this user has set in a domain",
      [&application, options] { return onOwn(application, *options, remove); });
  for (CLI::App* const command : {reading, writing, deleting}) {
    command->add_option("DOMAIN", options->domain, "com.vantor.tallowd, or a client's")->required();
    command->add_option("KEY", options->key)->required(command == writing);
  }
  writing->add_option("VALUE", options->text)->required();
  writing
      ->add_option("--type", options->type,
                   "Of the value: a date is 2026-03-01T12:30:00Z or seconds since 1970, data is "
                   "base64")
      ->check(CLI::IsMember({"string", "int", "bool", "real", "date", "data", "json"}));
}

}  // namespace tallow::ctl
