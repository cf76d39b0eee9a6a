#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "client/AccountServiceClient.h"
#include "tools/tallowctl/Output.h"

namespace tallow::ctl {

// What every command works with: the options given before it, the output, and a connection that is
// made when a command first asks for it.
class Application {
 public:
  Application();

  // Parses and runs one command line; the result is the exit status.
  int run(int argc, const char* const* argv);

  const Output& output() const { return _output; }
  // The identifier that --client names; empty for none.
  const std::string& client() const { return _client; }

  // Adds a command. Its body runs when the command line names it and says how it ended.
  CLI::App* add(CLI::App& parent, const std::string& name, const std::string& description,
                std::function<int()> body);
  CLI::App& root() { return _root; }

  AccountServiceClient::Instance instance() const {
    return _system ? AccountServiceClient::Instance::Daemon : AccountServiceClient::Instance::Agent;
  }
  // Runs `body` with a connection that acts as the client that --client names.
  int withService(const std::function<int(AccountServiceClient&)>& body);
  // The same for what only a store client can ask: says so where there is none.
  int withClient(const std::function<int(AccountServiceClient&)>& body);
  // The usual ends of a command: the error, or what `show` makes of the answer.
  template <class T, class Show>
  int show(const Result<T>& result, Show show) const {
    return result ? show(*result) : _output.failure(result.error());
  }
  int finish(const std::optional<Error>& error, const std::string& done) const;
  // A text that may not be there; the exit status says whether it was.
  int showText(const std::optional<std::string>& text, const char* nothing) const;

 private:
  const CLI::App& _helped() const;
  std::optional<std::string> _unknownWord() const;
  int _ended(int status);

  CLI::App _root;
  Output _output;
  bool _json = false;
  bool _system = false;
  std::string _client;
  std::function<int()> _chosen;
};

// Accepts what the service will read as a URL, so that a slip of the fingers is told at once.
CLI::Validator isURL();

// The command groups, one file each.
void addAccountCommands(Application& application);
void addBagCommands(Application& application);
void addCookieCommands(Application& application);
void addStoreFrontCommands(Application& application);
void addPushCommands(Application& application);
void addSignInCommands(Application& application);
void addStatusCommands(Application& application);
void addDefaultsCommands(Application& application);
void addIdentityCommands(Application& application);
void addPasswordSettingsCommands(Application& application);
void addDoctorCommands(Application& application);
void addCompletionCommands(Application& application);

// An account's number; nothing when the text is none. The argument parser itself takes a number
// that is too large or negative for another one.
std::optional<std::uint64_t> dsIDFromText(const std::string& text);
CLI::Validator isDSID();

}  // namespace tallow::ctl
