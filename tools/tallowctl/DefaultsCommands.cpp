#include <cerrno>
#include <cstdlib>

#include "platform/Base/Base64.h"
#include "platform/Preferences/Preferences.h"
#include "platform/PropertyList/JSON.h"
#include "tools/tallowctl/Application.h"

namespace tallow::ctl {

namespace {

struct DefaultsOptions {
  std::string domain, key, text;
  std::string type = "string";
};

std::optional<Value> valueFromText(const std::string& type, const std::string& text) {
  if (type == "bool") {
    if (text == "true" || text == "yes" || text == "1") return Value(true);
    if (text == "false" || text == "no" || text == "0") return Value(false);
    return std::nullopt;
  }
  if (type == "data") {
    const auto data = base64Decode(text);
    return data ? std::optional(Value(*data)) : std::nullopt;
  }
  if (type == "string") return Value(text);
  const Result<Value> json = JSON::decode(text);
  if (!json) return std::nullopt;
  const bool isInteger = json->isNumber() && json->boolean() == nullptr && !json->isReal();
  if (type == "int") return isInteger ? std::optional(*json) : std::nullopt;
  if (type == "json") return *json;
  if (!json->isNumber() || json->boolean() != nullptr) return std::nullopt;
  return type == "date" ? Value(Date{json->realValue()}) : Value(json->realValue());
}

int write(const Application& application, const DefaultsOptions& options, const Value& value,
          const char* done) {
  Preferences& preferences = Preferences::shared();
  preferences.setValue(options.key, value, options.domain, Preferences::User::Current,
                       Preferences::Host::Any);
  const bool written =
      preferences.synchronize(options.domain, Preferences::User::Current, Preferences::Host::Any);
  return application.finish(
      written ? std::nullopt
              : std::optional(makeError("tallowctl", 1, "The preferences cannot be written")),
      done);
}

int read(const Application& application, const DefaultsOptions& options) {
  const Value value = Preferences::shared().copyAppValue(options.key, options.domain);
  if (value.isNil())
    return application.output().failure(
        makeError("tallowctl", 1, "There is no " + options.key + " in " + options.domain));
  application.output().value(value);
  return kDone;
}

}  // namespace

void addDefaultsCommands(Application& application) {
  CLI::App* defaults = application.add(
      application.root(), "defaults",
      "Read, write and delete preferences of this user, without the service", nullptr);
  defaults->require_subcommand(1);
  auto options = std::make_shared<DefaultsOptions>();
  const auto addPlace = [options](CLI::App* command) {
    command->add_option("DOMAIN", options->domain)->required();
    command->add_option("KEY", options->key)->required();
    return command;
  };
  addPlace(application.add(*defaults, "read", "Show a value",
                           [&application, options] { return read(application, *options); }));
  CLI::App* writing =
      addPlace(application.add(*defaults, "write", "Set a value", [&application, options] {
        const auto value = valueFromText(options->type, options->text);
        if (!value)
          return application.output().wrongUsage("Not a value of type " + options->type + ": " +
                                                 options->text);
        return write(application, *options, *value, "Written.");
      }));
  writing->add_option("VALUE", options->text)->required();
  writing
      ->add_option("--type", options->type,
                   "Of the value; a date is seconds since 1970, data is base64")
      ->check(CLI::IsMember({"string", "int", "bool", "real", "date", "data", "json"}));
  addPlace(application.add(*defaults, "delete", "Remove a value", [&application, options] {
    return write(application, *options, nullptr, "Deleted.");
  }));
}

}  // namespace tallow::ctl
