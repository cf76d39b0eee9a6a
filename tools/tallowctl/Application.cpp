#include "tools/tallowctl/Application.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "platform/Base/Format.h"
#include "platform/Base/URL.h"
#include "platform/PropertyList/JSON.h"

namespace tallow::ctl {

Application::Application() : _root("Talks to tallowd, the store's account service.", "tallowctl") {
  _root.set_version_flag("--version", std::string(TALLOW_VERSION));
  _root.add_flag("--json", _json, "Print JSON, and nothing else, on standard output");
  _root.add_flag("--system", _system, "Ask the system-wide instance instead of the user's");
  _root.add_option("--client", _client, "Act as the store client with this identifier")
      ->type_name("IDENTIFIER");
  _root.require_subcommand(1);
  _root.footer(
      "Exit status: 0 done (or yes), 1 the service said no, 2 wrong usage, 3 service not "
      "reachable.");
  addSignInCommands(*this);
  addAccountCommands(*this);
  addBagCommands(*this);
  addCookieCommands(*this);
  addStoreFrontCommands(*this);
  addPushCommands(*this);
  addStatusCommands(*this);
  addDefaultsCommands(*this);
  addIdentityCommands(*this);
  addPasswordSettingsCommands(*this);
  addDoctorCommands(*this);
  addCompletionCommands(*this);
  // Global options are understood wherever they stand on the line.
  _root.fallthrough();
}

CLI::App* Application::add(CLI::App& parent, const std::string& name,
                           const std::string& description, std::function<int()> body) {
  CLI::App* command = parent.add_subcommand(name, description);
  command->fallthrough();
  if (body) {
    command->callback([this, command, body = std::move(body)] {
      // A command with commands of its own that was given one leaves the line to it.
      if (command->get_subcommands().empty()) _chosen = body;
    });
  }
  return command;
}

int Application::run(int argc, const char* const* argv) {
  // Known before parsing has ended, so that even a wrong line is answered in JSON.
  for (int i = 1; i < argc; ++i) {
    if (std::string_view(argv[i]) == "--") break;
    if (std::string_view(argv[i]) == "--json") _output.setJSON(true);
  }
  try {
    _root.parse(argc, argv);
  } catch (const CLI::CallForVersion&) {
    return _ended(
        _output.about("version", TALLOW_VERSION, std::string("tallowctl ") + TALLOW_VERSION));
  } catch (const CLI::Success&) {  // --help, of the command that it was asked of
    if (const auto unknown = _unknownWord()) return _output.wrongUsage(*unknown);
    const std::string help = _helped().help();
    return _ended(_output.about("help", help, help));
  } catch (const CLI::ParseError& error) {
    return _output.wrongUsage(_unknownWord().value_or(error.what()));
  }
  return _ended(_chosen ? _chosen() : _output.wrongUsage("A command is required"));
}

int Application::_ended(int status) {
  return _output.flush() ? status : int{kServiceSaidNo};
}

// Where a command with commands of its own was given something else.
std::optional<std::string> Application::_unknownWord() const {
  if (_helped().get_require_subcommand_min() == 0) return std::nullopt;
  const std::vector<std::string> rest = _root.remaining(true);
  if (rest.empty()) return std::nullopt;
  const char* const what = rest.front().starts_with('-') ? "option" : "command";
  return format("There is no %s \"%@\" here; --help lists them", what, rest.front());
}

const CLI::App& Application::_helped() const {
  const CLI::App* app = &_root;
  while (!app->get_subcommands().empty()) app = app->get_subcommands().back();
  return *app;
}

namespace {

// What the service takes this process for. It answers a caller that is no client, too, but does
// nothing for it.
std::optional<Error> refusalOfNoClient(AccountServiceClient& client) {
  const Result<std::string> name = client.uniqueName();
  if (!name) return name.error();
  const Result<std::string> text = client.describe();
  if (!text) return text.error();
  const Result<Value> status = JSON::decode(*text);
  const Dictionary* const told = status ? status->dictionary() : nullptr;
  const Array* const callers = told != nullptr ? (*told)["callers"].array() : nullptr;
  if (callers == nullptr) return std::nullopt;
  const bool isClient = std::any_of(callers->begin(), callers->end(), [&](const Value& caller) {
    const Dictionary* const line = caller.dictionary();
    return line != nullptr && (*line)["name"] == Value(*name) && line->contains("identifier");
  });
  if (isClient) return std::nullopt;
  return makeError(AccountServiceClient::kErrorDomain, AccountServiceClient::kRefused,
                   "tallowctl is no store client itself.");
}

}  // namespace

int Application::withClient(const std::function<int(AccountServiceClient&)>& body) {
  return withService([&](AccountServiceClient& client) {
    if (_client.empty()) {
      if (const auto error = refusalOfNoClient(client)) return _output.failure(*error);
    }
    return body(client);
  });
}

int Application::withService(const std::function<int(AccountServiceClient&)>& body) {
  AccountServiceClient client(instance());
  if (!_client.empty()) {
    if (const auto error = client.actAs(_client)) return _output.failure(*error);
  }
  return body(client);
}

int Application::finish(const std::optional<Error>& error, const std::string& done) const {
  if (error) return _output.failure(*error);
  if (_output.isJSON()) {
    _output.value(Dictionary{{"done", true}});
  } else {
    _output.line(done);
  }
  return kDone;
}

int Application::showText(const std::optional<std::string>& text, const char* nothing) const {
  if (text || _output.isJSON())
    _output.value(text);
  else
    _output.line(nothing);
  return text ? kDone : kServiceSaidNo;
}

CLI::Validator isURL() {
  return CLI::Validator(
      [](const std::string& text) {
        return URL::parse(text) ? std::string() : "Not an absolute URL: " + text;
      },
      "");
}

std::optional<std::uint64_t> dsIDFromText(const std::string& text) {
  std::uint64_t dsID = 0;
  const char* const end = text.data() + text.size();
  const auto [stopped, failure] = std::from_chars(text.data(), end, dsID);
  return failure == std::errc() && stopped == end ? std::optional(dsID) : std::nullopt;
}

CLI::Validator isDSID() {
  return CLI::Validator(
      [](const std::string& text) {
        return dsIDFromText(text) ? std::string() : "Not an unsigned 64-bit number: " + text;
      },
      "");
}

}  // namespace tallow::ctl
