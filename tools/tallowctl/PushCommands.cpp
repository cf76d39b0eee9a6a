#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

#include "platform/PropertyList/JSON.h"
#include "platform/PropertyList/PropertyList.h"
#include "tools/tallowctl/Application.h"

namespace tallow::ctl {

namespace {

// Of whatever can be read: a file, a pipe, standard input.
Result<std::string> textOfFile(const std::string& path) {
  const auto failed = [&path] {
    return makeError("tallowctl", errno, path + ": " + std::strerror(errno));
  };
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(
      std::fopen(path == "-" ? "/dev/stdin" : path.c_str(), "rbe"), std::fclose);
  if (!file) return failed();
  std::string text;
  char buffer[4096];
  while (const std::size_t length = std::fread(buffer, 1, sizeof(buffer), file.get()))
    text.append(buffer, length);
  if (std::ferror(file.get()) != 0) return failed();
  return text;
}

// The dictionary in a file that holds a property list or JSON; "-" is standard input.
Result<Dictionary> dictionaryFromFile(const std::string& path) {
  const Result<std::string> contents = textOfFile(path);
  if (!contents) return contents.error();
  const std::string& text = *contents;
  Result<Value> value = PropertyList::decode(Data(text));
  if (!value) value = JSON::decode(text);
  const Dictionary* const entries = value ? value->dictionary() : nullptr;
  if (entries == nullptr)
    return makeError("tallowctl", 0, path + ": neither a property list nor JSON of a dictionary");
  return *entries;
}

void addEnvironmentCommand(Application& application, CLI::App& push, const char* name,
                           const char* description, const char* done,
                           std::optional<Error> (AccountServiceClient::*call)(const std::string&)) {
  auto environment = std::make_shared<std::string>();
  CLI::App* const command =
      application.add(push, name, description, [&application, environment, done, call] {
        return application.withClient([&](AccountServiceClient& client) {
          return application.finish((client.*call)(*environment), done);
        });
      });
  command->add_option("ENV", *environment, "The push environment, as the bag names it")->required();
}

int showMediaTypes(const Application& application,
                   const Result<AccountServiceClient::MediaTypes>& result) {
  return application.show(result, [&](const AccountServiceClient::MediaTypes& types) {
    if (!types.success)
      return application.output().failure(
          types.error.value_or(makeError("tallowctl", 0, "The store does not say why not.")));
    application.output().value(types.mask);
    return static_cast<int>(kDone);
  });
}

void addRegistered(Application& application, CLI::App& push) {
  struct Options {
    std::uint64_t dsID = 0;
    std::int64_t mask = 0;
  };
  auto options = std::make_shared<Options>();
  CLI::App* const registered = application.add(
      push, "registered", "Tell whether exactly these media kinds are known to be enabled",
      [&application, options] {
        return application.withClient([&](AccountServiceClient& client) {
          return application.show(client.isRegisteredForAccount(options->dsID, options->mask),
                                  [&](bool yes) { return application.output().answer(yes); });
        });
      });
  registered->add_option("DSID", options->dsID, "The account")->required()->check(isDSID());
  registered->add_option("MASK", options->mask, "1 mac-software, 2 ebook, 3 both")
      ->required()
      ->check(CLI::IsMember({0, 1, 2, 3}));
}

void addDeliver(Application& application, CLI::App& push) {
  struct Options {
    std::optional<std::uint64_t> dsID;
    std::optional<std::int64_t> kind;
    std::string file;
  };
  auto options = std::make_shared<Options>();
  CLI::App* const deliver = application.add(
      push, "deliver", "Hand in a push, as the push agent does", [&application, options] {
        Dictionary message;
        if (!options->file.empty()) {
          const Result<Dictionary> read = dictionaryFromFile(options->file);
          if (!read) return application.output().wrongUsage(read.error().localizedDescription());
          message = *read;
        }
        if (options->dsID) message = message.setting("0", *options->dsID);
        if (options->kind) message = message.setting("1", *options->kind);
        return application.withService([&](AccountServiceClient& client) {
          return application.finish(client.handlePushNotificationMessage(message), "Delivered.");
        });
      });
  deliver->add_option("--dsid", options->dsID, "The account that it is for")->check(isDSID());
  deliver->add_option("--kind", options->kind,
                      "2 check automatic downloads, 4 offer to turn them on, 7 purchase "
                      "permission");
  deliver->add_option("--payload", options->file,
                      "A file with the rest of it, a property list or JSON; - is standard input");
}

void addSetup(Application& application) {
  auto file = std::make_shared<std::string>();
  CLI::App* const setup = application.add(
      application.root(), "setup", "Take over what the set-up of a new device has brought",
      [&application, file] {
        const Result<Dictionary> response = dictionaryFromFile(*file);
        if (!response)
          return application.output().wrongUsage(response.error().localizedDescription());
        return application.withClient([&](AccountServiceClient& client) {
          return application.finish(client.completeSetupWithResponse(*response),
                                    "The device is set up.");
        });
      });
  setup
      ->add_option("FILE", *file,
                   "The response, a property list or JSON: dsid, email, account-active, cookies, "
                   "storefront; - is standard input")
      ->required();
}

}  // namespace

void addPushCommands(Application& application) {
  CLI::App* const push =
      application.add(application.root(), "push", "Work on push notifications", nullptr);
  push->require_subcommand(1);
  addEnvironmentCommand(application, *push, "register",
                        "Announce the device's push token to the store", "The token is registered.",
                        &AccountServiceClient::registerDeviceTokenForEnvironmentNamed);
  addEnvironmentCommand(application, *push, "enable", "Turn automatic downloads on",
                        "Automatic downloads are on.",
                        &AccountServiceClient::enableAutoDownloadForEnvironmentNamed);
  application.add(*push, "disable", "Turn automatic downloads off", [&application] {
    return application.withClient([&](AccountServiceClient& client) {
      return application.finish(client.disableAutoDownload(), "Automatic downloads are off.");
    });
  });
  application.add(*push, "media-types",
                  "Ask the store which media kinds are enabled (1 mac-software, 2 ebook)",
                  [&application] {
                    return application.withClient([&](AccountServiceClient& client) {
                      return showMediaTypes(application, client.getEnabledMediaTypes());
                    });
                  });
  addRegistered(application, *push);
  addDeliver(application, *push);
  addSetup(application);
}

}  // namespace tallow::ctl
