#include "tools/tallowctl/Application.h"

namespace tallow::ctl {

namespace {

// Shows what is in force afterwards: for a caller that is no client the service keeps none.
int setStoreFront(const Application& application, AccountServiceClient& client,
                  const std::string& identifier) {
  if (const auto error = client.setStoreFrontID(identifier))
    return application.output().failure(*error);
  return application.show(client.storeFront(), [&](const std::optional<std::string>& current) {
    if (!current)
      return application.output().failure(
          makeError(AccountServiceClient::kErrorDomain, AccountServiceClient::kRefused,
                    "The service keeps no storefront for a caller that is no client."));
    return application.finish(std::nullopt, "The storefront is " + *current + ".");
  });
}

}  // namespace

void addStoreFrontCommands(Application& application) {
  auto identifier = std::make_shared<std::string>();
  auto isGiven = std::make_shared<bool>(false);  // "" is an identifier, too
  auto clear = std::make_shared<bool>(false);
  CLI::App* storefront =
      application.add(application.root(), "storefront", "Show, set or clear the storefront",
                      [&application, identifier, isGiven, clear] {
                        return application.withClient([&](AccountServiceClient& client) {
                          if (*clear)
                            return application.finish(client.setStoreFrontID(std::nullopt),
                                                      "The storefront is cleared.");
                          if (*isGiven) return setStoreFront(application, client, *identifier);
                          return application.show(client.storeFront(), [&](const auto& current) {
                            if (!current && !application.output().isJSON())
                              application.output().line("No storefront is set.");
                            else
                              application.output().value(current);
                            return static_cast<int>(kDone);
                          });
                        });
                      });
  CLI::Option* id = storefront->add_option("ID", *identifier, "The storefront to set")
                        ->each([isGiven](const std::string&) { *isGiven = true; });
  storefront->add_flag("--clear", *clear, "Clear the storefront")->excludes(id);
}

}  // namespace tallow::ctl
