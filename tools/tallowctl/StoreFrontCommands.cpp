#include "tools/tallowctl/Application.h"

namespace tallow::ctl {

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
                          if (*isGiven)
                            return application.finish(client.setStoreFrontID(*identifier),
                                                      "The storefront is " + *identifier + ".");
                          return application.show(client.storeFront(), [&](const auto& current) {
                            return application.showText(current, "No storefront is set.");
                          });
                        });
                      });
  CLI::Option* id = storefront->add_option("ID", *identifier, "The storefront to set")
                        ->each([isGiven](const std::string&) { *isGiven = true; });
  storefront->add_flag("--clear", *clear, "Clear the storefront")->excludes(id);
}

}  // namespace tallow::ctl
