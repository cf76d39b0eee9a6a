#include "platform/VendBase/HSStoreClient.h"
#include "tools/tallowctl/Application.h"

namespace tallow::ctl {

namespace {

int showLoad(const Application& application, const AccountServiceClient::BagLoad& load) {
  if (load.error && !load.valid) return application.output().failure(*load.error);
  if (application.output().isJSON()) {
    application.output().value(Dictionary{{"valid", load.valid}, {"alreadyValid", load.success}});
  } else if (load.valid) {
    application.output().line(load.success ? "The bag was valid already." : "Loaded the bag.");
  } else {
    application.output().line("The bag could not be made valid. The service's log says why.");
  }
  return load.valid ? kDone : kServiceSaidNo;
}

// The commands that ask one question about one URL.
void addURLQuestion(Application& application, const char* name, const char* description,
                    Result<bool> (AccountServiceClient::*question)(const std::string&)) {
  auto url = std::make_shared<std::string>();
  application
      .add(application.root(), name, description,
           [&application, url, question] {
             return application.withClient([&](AccountServiceClient& client) {
               return application.show((client.*question)(*url),
                                       [&](bool yes) { return application.output().answer(yes); });
             });
           })
      ->add_option("URL", *url)
      ->required()
      ->check(isURL());
}

void addLoadAndValid(Application& application, CLI::App& bag) {
  auto type = std::make_shared<std::string>();
  application
      .add(bag, "load", "Load the bag of a type if it is not valid",
           [&application, type] {
             return application.withClient([&](AccountServiceClient& client) {
               return application.show(
                   client.loadURLBagWithType(*type == "sandbox" ? kBagTypeSandbox
                                                                : kBagTypeProduction),
                   [&](const auto& load) { return showLoad(application, load); });
             });
           })
      ->add_option("TYPE", *type, "production or sandbox")
      ->required()
      ->check(CLI::IsMember({"production", "sandbox"}));
  application.add(bag, "valid", "Say whether the bag is valid now; never loads it", [&application] {
    return application.withClient([&](AccountServiceClient& client) {
      return application.show(client.isValid(),
                              [&](bool yes) { return application.output().answer(yes); });
    });
  });
}

}  // namespace

void addBagCommands(Application& application) {
  auto key = std::make_shared<std::string>();
  CLI::App* bag = application.add(
      application.root(), "bag", "Show the bag, or the value of one key", [&application, key] {
        return application.withClient([&](AccountServiceClient& client) {
          if (key->empty()) {
            return application.show(client.dictionary(), [&](const auto& contents) {
              if (contents) {
                application.output().table(*contents);
                return int{kDone};
              }
              if (application.output().isJSON()) application.output().value(nullptr);
              application.output().line("There is no bag: none has been loaded yet.");
              return int{kServiceSaidNo};
            });
          }
          return application.show(client.valueForURLBagKey(*key), [&](const Value& value) {
            application.output().value(value);
            return int{value.isNil() ? kServiceSaidNo : kDone};
          });
        });
      });
  bag->add_option("KEY", *key, "The key to look up; without it the whole bag");
  addLoadAndValid(application, *bag);

  addURLQuestion(application, "trusted", "Say whether the bag trusts a URL",
                 &AccountServiceClient::urlIsTrustedByURLBag);
  addURLQuestion(application, "guid", "Say whether the machine's GUID may be sent to a URL",
                 &AccountServiceClient::shouldSendGUIDWithRequestForURL);

  auto regexKey = std::make_shared<std::string>();
  auto text = std::make_shared<std::string>();
  CLI::App* regex = application.add(
      application.root(), "regex", "Say whether the bag's pattern under a key matches a text",
      [&application, regexKey, text] {
        return application.withClient([&](AccountServiceClient& client) {
          return application.show(client.regexWithKey(*regexKey, *text),
                                  [&](bool yes) { return application.output().answer(yes); });
        });
      });
  regex->add_option("KEY", *regexKey)->required();
  regex->add_option("TEXT", *text)->required();

  application.add(application.root(), "invalidate",
                  "Make the client's bags invalid: the next lookup loads them", [&application] {
                    return application.withClient([&](AccountServiceClient& client) {
                      return application.finish(client.invalidateAllBags(),
                                                "The bags are invalid.");
                    });
                  });
}

}  // namespace tallow::ctl
