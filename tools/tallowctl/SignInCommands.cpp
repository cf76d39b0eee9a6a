#include <sys/resource.h>
#include <unistd.h>

#include "client/TransactionAgent.h"
#include "tools/tallowctl/Application.h"
#include "tools/tallowctl/Terminal.h"
#include "tools/tallowctl/TerminalDialog.h"

namespace tallow::ctl {

namespace {

using Credentials = TransactionAgent::Credentials;

struct SignInOptions {
  std::string name;
  bool passwordFromStandardInput = false;
};

Error noTerminal() {
  return makeError("tallowctl", 1, "There is no terminal to ask on; see --password-stdin");
}

// Asks on the terminal until the store believes it or the person gives up with an empty password.
std::optional<Credentials> askOnTerminal(const std::string& client,
                                         const HSAuthenticationContext& context,
                                         const std::optional<std::string>& complaint) {
  const auto terminal = Terminal::open();
  if (!terminal) return std::nullopt;
  for (const auto& text : {complaint, context.title, context.message})
    if (text) terminal->saySetIn(*text);
  // It may be another client of the service that asks just now.
  terminal->say("Signing in for " + client + '.');
  std::optional<std::string> name = context.identifier;
  if (!name) name = terminal->askLine("Account name: ");
  if (!name || name->empty()) return std::nullopt;
  auto password = terminal->askSecret("Password for " + *name + ": ");
  if (!password || password->empty()) return std::nullopt;
  return Credentials{*std::move(name), *std::move(password)};
}

// The one password that came in with the command, for the first question only.
TransactionAgent::Ask askOnce(std::optional<Secret> password) {
  auto left = std::make_shared<std::optional<Secret>>(std::move(password));
  return [left](const std::string&, const HSAuthenticationContext& context,
                const std::optional<std::string>& complaint) -> std::optional<Credentials> {
    if (complaint || !context.identifier || !*left) return std::nullopt;
    forbidCoreDumps();  // not before: the service has to see who calls, and has by now
    return Credentials{*context.identifier, *std::exchange(*left, std::nullopt)};
  };
}

int showSignIn(const Output& output, const AccountServiceClient::SignIn& signIn) {
  if (signIn.error) return output.failure(*signIn.error);
  if (!signIn.success || !signIn.account)
    return output.failure(makeError("tallowctl", 1, "Nobody has signed in"));
  output.table(*signIn.account);
  return kDone;
}

int signIn(Application& application, const SignInOptions& options) {
  // A core file would have the password in it. That is all that can be done before the service has
  // seen who calls.
  const rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
  TransactionAgent::Ask ask = askOnTerminal;
  if (options.passwordFromStandardInput) {
    if (options.name.empty())
      return application.output().wrongUsage("--password-stdin needs a NAME");
    auto password = Terminal::readSecretLine(STDIN_FILENO);
    if (!password || password->empty())
      return application.output().wrongUsage(
          "Standard input has no password: one line of at most 4095 bytes");
    ask = askOnce(std::move(password));
  } else if (!Terminal::isThere()) {
    return application.output().failure(noTerminal());
  }
  return application.withClient([&](AccountServiceClient& client) {
    if (const auto seen = client.describe(); !seen)
      return application.output().failure(seen.error());
    std::unique_ptr<DialogAgent> dialogs;
    // Nobody is asked anything before the service knows all the connections of this process.
    std::optional<Terminal> turn = Terminal::open();
    dialogs = showDialogsOnTerminal(application);
    // Where somebody else is the transaction service already, they ask.
    const auto agent = TransactionAgent::start(application.instance(), ask);
    if (!agent &&
        (agent.error().code != AccountServiceClient::kTaken || options.passwordFromStandardInput))
      return application.output().failure(agent.error());
    turn.reset();
    const HSAuthenticationContext context = [&] {
      HSAuthenticationContext made;
      if (!options.name.empty()) made.identifier = options.name;
      return made;
    }();
    return application.show(
        client.signInWithContext(context.dictionaryRepresentation()),
        [&](const auto& result) { return showSignIn(application.output(), result); });
  });
}

}  // namespace

void addSignInCommands(Application& application) {
  auto options = std::make_shared<SignInOptions>();
  CLI::App* signingIn =
      application.add(application.root(), "sign-in", "Sign in, asking for the password here",
                      [&application, options] { return signIn(application, *options); });
  signingIn->add_option("NAME", options->name, "The account name; asked for when it is left out");
  signingIn->add_flag("--password-stdin", options->passwordFromStandardInput,
                      "Read the password from standard input, one line, instead of asking");

  application.add(application.root(), "sign-out", "Sign out; the account stays known",
                  [&application] {
                    return application.withClient([&](AccountServiceClient& client) {
                      return application.finish(client.signOut(), "Nobody is signed in.");
                    });
                  });
}

}  // namespace tallow::ctl
