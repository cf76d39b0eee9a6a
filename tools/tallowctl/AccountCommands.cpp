#include <algorithm>

#include "tools/tallowctl/Application.h"

namespace tallow::ctl {

namespace {

using OptionalAccount = std::optional<Dictionary>;

int showAccount(const Application& application, const OptionalAccount& account,
                const char* nobody) {
  if (account) {
    application.output().table(*account);
  } else if (application.output().isJSON()) {
    application.output().value(nullptr);
  } else {
    application.output().line(nobody);
  }
  return account ? kDone : kServiceSaidNo;
}

// A number may also be a name: telephone numbers are.
Result<OptionalAccount> accountNamed(AccountServiceClient& client, const std::string& text) {
  if (const auto dsID = dsIDFromText(text)) {
    auto account = client.accountWithDSID(*dsID);
    if (!account || *account) return account;
  }
  return client.accountWithVantorID(text);
}

template <class Question>
void addAccountQuestion(Application& application, const char* name, const char* description,
                        Question question, const char* nobody) {
  application.add(application.root(), name, description, [&application, question, nobody] {
    return application.withClient([&](AccountServiceClient& client) {
      return application.show(question(client), [&](const OptionalAccount& account) {
        return showAccount(application, account, nobody);
      });
    });
  });
}

int listAccounts(Application& application) {
  return application.withClient([&](AccountServiceClient& client) {
    const Result<OptionalAccount> primary = client.primaryAccount();
    if (!primary) return application.output().failure(primary.error());
    return application.show(client.accounts(), [&](const std::vector<Dictionary>& accounts) {
      std::vector<Value> rows;
      rows.reserve(accounts.size());
      for (const Dictionary& account : accounts)
        rows.emplace_back(
            account.setting("primary", *primary && (**primary)["dsid"] == account["dsid"]));
      if (rows.empty() && !application.output().isJSON())
        application.output().line("No account is known.");
      else
        application.output().table(Array(std::move(rows)));
      return static_cast<int>(kDone);
    });
  });
}

void addAccounts(Application& application) {
  CLI::App* accounts =
      application.add(application.root(), "accounts", "List the accounts that are known",
                      [&application] { return listAccounts(application); });
  auto dsID = std::make_shared<std::uint64_t>(0);
  auto name = std::make_shared<std::string>();
  CLI::App* adding = application.add(
      *accounts, "add", "Make an account known without signing in", [&application, dsID, name] {
        return application.withClient([&](AccountServiceClient& client) {
          return application.finish(
              client.addAccount(Dictionary{{"dsid", *dsID},
                                           {"identifier", name->empty() ? Value() : Value(*name)}}),
              "The account is known.");
        });
      });
  adding->add_option("DSID", *dsID)->required()->check(isDSID());
  adding->add_option("NAME", *name);

  auto which = std::make_shared<std::string>();
  application
      .add(application.root(), "account", "Show one account",
           [&application, which] {
             return application.withClient([&](AccountServiceClient& client) {
               return application.show(
                   accountNamed(client, *which), [&](const OptionalAccount& account) {
                     return showAccount(application, account, "There is no such account.");
                   });
             });
           })
      ->add_option("ACCOUNT", *which, "Its DSID or its name")
      ->required();
}

void addToken(Application& application) {
  auto asksExpired = std::make_shared<bool>(false);
  application
      .add(application.root(), "token", "Show the token of who is signed in",
           [&application, asksExpired] {
             return application.withClient([&](AccountServiceClient& client) {
               if (*asksExpired)
                 return application.show(client.authIsExpired(), [&](bool yes) {
                   return application.output().answer(yes);
                 });
               return application.show(client.strongToken(), [&](const auto& token) {
                 return application.showText(token, "There is no token; sign in.");
               });
             });
           })
      ->add_flag("--expired", *asksExpired, "Say only whether there is none that the store takes");
}

void addCredit(Application& application) {
  auto text = std::make_shared<std::string>();
  auto dsID = std::make_shared<std::string>();
  CLI::App* credit = application.add(
      application.root(), "credit", "Show the credit of who is signed in, or take one in",
      [&application, text, dsID] {
        return application.withClient([&](AccountServiceClient& client) {
          if (!text->empty())
            return application.finish(
                client.parseCreditStringForProtocol(Dictionary{
                    {"creditDisplay", *text}, {"dsid", dsID->empty() ? Value() : Value(*dsID)}}),
                "Taken in.");
          const auto whose = dsID->empty() ? client.primaryAccount()
                                           : client.accountWithDSID(*dsIDFromText(*dsID));
          return application.show(whose, [&](const OptionalAccount& account) {
            const std::string* known = account ? (*account)["creditstring"].string() : nullptr;
            return application.showText(
                known != nullptr ? std::optional(*known) : std::nullopt,
                account ? "No credit is known." : "There is no such account.");
          });
        });
      });
  credit->add_option("TEXT", *text, "What a store's answer says (\"creditDisplay\")");
  credit->add_option("--dsid", *dsID, "The account that the answer names")
      ->check(isDSID())
      ->type_name("DSID");
}

void addEligibility(Application& application) {
  auto service = std::make_shared<std::uint64_t>(0);
  auto cached = std::make_shared<bool>(false);
  CLI::App* eligibility = application.add(
      application.root(), "eligibility", "Say whether the subscription allows a service",
      [&application, service, cached] {
        return application.withClient([&](AccountServiceClient& client) {
          if (*cached)
            return application.show(client.eligibilityForService(*service), [&](const auto& known) {
              if (known) return application.output().answer(*known);
              application.output().value(nullptr);
              application.output().line("It has not been asked yet.");
              return static_cast<int>(kServiceSaidNo);
            });
          return application.show(client.getEligibilityForService(*service), [&](const auto& now) {
            return now.error ? application.output().failure(*now.error)
                             : application.output().answer(now.eligible);
          });
        });
      });
  eligibility->add_option("SERVICE", *service, "The service's number")->required()->check(isDSID());
  eligibility->add_flag("--cached", *cached, "Ask nobody, say what is remembered");
}

// What the machine and its other accounts suggest to somebody who signs in.
void addSuggestions(Application& application) {
  application.add(application.root(), "demo-mode",
                  "Show how a shop's demonstration machine is set up", [&application] {
                    return application.withService([&](AccountServiceClient& client) {
                      return application.show(client.retailStoreDemoMode(), [&](const auto& mode) {
                        application.output().table(Dictionary{{"demoMode", mode.demoMode},
                                                              {"name", mode.name},
                                                              {"password", mode.password},
                                                              {"autoLogin", mode.autoLogin}});
                        return static_cast<int>(kDone);
                      });
                    });
                  });
  using Question = Result<std::optional<std::string>> (AccountServiceClient::*)();
  const auto addText = [&](const char* name, const char* description, Question question,
                           const char* nothing) {
    application.add(application.root(), name, description, [&application, question, nothing] {
      return application.withService([&](AccountServiceClient& client) {
        return application.show((client.*question)(), [&](const auto& text) {
          return application.showText(text, nothing);
        });
      });
    });
  };
  addText("cloud-dsid", "Show the DSID of the cloud account on this machine",
          &AccountServiceClient::nimboDSID, "No cloud account is logged in.");
  addText("recommended-name", "Show the account name to offer to somebody who signs in",
          &AccountServiceClient::recommendedVantorIDForAccountSignIn, "There is none.");
}

}  // namespace

void addAccountCommands(Application& application) {
  addAccounts(application);
  addAccountQuestion(
      application, "whoami", "Show who is signed in",
      [](AccountServiceClient& client) { return client.primaryAccount(); }, "Nobody is signed in.");
  addToken(application);
  addCredit(application);
  addEligibility(application);
  addSuggestions(application);
}

}  // namespace tallow::ctl
