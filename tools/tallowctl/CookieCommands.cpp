
#include "tools/tallowctl/Application.h"

namespace tallow::ctl {

namespace {

// 'Name: value' lines to a header dictionary; a name that comes again makes a list.
std::optional<Dictionary> headersFromLines(const std::vector<std::string>& lines) {
  Dictionary headers;
  for (const std::string& line : lines) {
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos || colon == 0) return std::nullopt;
    const std::string name = line.substr(0, colon);
    const std::size_t start = line.find_first_not_of(" \t", colon + 1);
    const std::string value = start == std::string::npos ? "" : line.substr(start);
    std::vector<Value> values;
    const Value& before = headers[name];
    if (const Array* list = before.array())
      values.assign(list->begin(), list->end());
    else if (!before.isNil())
      values.push_back(before);
    values.emplace_back(value);
    headers = headers.setting(name, values.size() == 1 ? values[0] : Value(Array(values)));
  }
  return headers;
}

// Whoever is signed in; while nobody is, 0, for which the service then provisions the machine.
std::uint64_t primaryDSID(AccountServiceClient& client) {
  const auto account = client.primaryAccount();
  return account && *account ? (**account)["dsid"].unsignedValue() : 0;
}

struct HeadersOptions {
  std::string url;
  std::optional<std::uint64_t> dsID;
  bool identity = false;
};

void addHeaders(Application& application) {
  auto options = std::make_shared<HeadersOptions>();
  CLI::App* headers = application.add(
      application.root(), "headers", "Show the headers to send with a request to a URL",
      [&application, options] {
        return application.withClient([&](AccountServiceClient& client) {
          if (options->identity && !options->dsID) options->dsID = primaryDSID(client);
          return application.show(
              client.httpHeadersForURL(options->url, options->dsID, options->identity),
              [&](const Dictionary& given) {
                if (application.output().isJSON()) {
                  application.output().value(given);
                } else {
                  for (const auto& entry : given)
                    application.output().line(entry.key + ": " + description(entry.value));
                }
                return static_cast<int>(kDone);
              });
        });
      });
  headers->add_option("URL", options->url)->required()->check(isURL());
  headers
      ->add_option_function<std::string>(
          "--dsid", [options](const std::string& text) { options->dsID = dsIDFromText(text); },
          "The account whose identity headers are wanted")
      ->type_name("NUMBER")
      ->check(isDSID());
  headers->add_flag("--identity", options->identity, "Include machine-identity headers");
}

void addConsume(Application& application) {
  auto url = std::make_shared<std::string>();
  auto lines = std::make_shared<std::vector<std::string>>();
  CLI::App* consume =
      application.add(application.root(), "consume", "Hand in the headers of a store response",
                      [&application, url, lines] {
                        const std::optional<Dictionary> headers = headersFromLines(*lines);
                        if (!headers)
                          return application.output().wrongUsage("A header is 'Name: value'");
                        return application.withClient([&](AccountServiceClient& client) {
                          return application.finish(
                              client.consumeCookiesWithHTTPHeaders(*headers, *url), "Taken in.");
                        });
                      });
  consume->add_option("URL", *url, "The URL that answered")->required()->check(isURL());
  consume->add_option("HEADER", *lines, "'Name: value'")->required();
}

}  // namespace

void addCookieCommands(Application& application) {
  addHeaders(application);
  addConsume(application);
  CLI::App* cookies =
      application.add(application.root(), "cookies", "Work on the cookie jar", nullptr);
  cookies->require_subcommand(1);
  application.add(*cookies, "clear", "Empty the cookie jar", [&application] {
    return application.withClient([&](AccountServiceClient& client) {
      return application.finish(client.deleteAllCookies(), "The cookie jar is empty.");
    });
  });
}

}  // namespace tallow::ctl
