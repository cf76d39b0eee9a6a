#include "platform/VendBase/ClientDescriptor.h"

#include <algorithm>
#include <array>
#include <functional>
#include <optional>
#include <utility>

#include "platform/Base/Directories.h"
#include "platform/Preferences/TOMLLibrary.h"
#include "platform/VendBase/MediaTypeMask.h"

namespace tallow {

namespace {

constexpr std::size_t kMaxURLs = 4;
constexpr std::size_t kMaxPatterns = 32;
constexpr std::size_t kMaxText = 1024;

struct NamedNumber {
  std::string_view name;
  std::int64_t number;
};

constexpr std::array<NamedNumber, 5> kClientTypes{{
    {"store-agent", kHSStoreClientTypeStoreAgent},
    {"book-store-agent", kHSStoreClientTypeBookStoreAgent},
    {"outfitter", kHSStoreClientTypeOutfitter},
    {"media-store", kHSStoreClientTypeMediaStore},
    {"media-store-agent", kHSStoreClientTypeMediaStoreAgent},
}};
constexpr std::array<NamedNumber, 2> kBagTypes{
    {{"production", kBagTypeProduction}, {"sandbox", kBagTypeSandbox}}};

// Reads one table, remembers the first thing that is wrong with it and which keys it knows.
class TableReader {
 public:
  explicit TableReader(const toml::table& table) : _table(table) {}

  const toml::node* node(std::string_view key) {
    _known.push_back(key);
    return _table.get(key);
  }

  std::optional<std::string> text(std::string_view key) {
    const toml::node* const found = node(key);
    return found == nullptr ? std::nullopt : textOf(*found, key);
  }

  std::optional<bool> boolean(std::string_view key) {
    const toml::node* const found = node(key);
    if (found == nullptr) return std::nullopt;
    if (!found->is_boolean()) fail(*found, key, "must be true or false");
    return found->value<bool>();
  }

  std::vector<std::string> texts(std::string_view key, std::size_t most) {
    std::vector<std::string> list;
    const toml::node* const found = node(key);
    if (found == nullptr) return list;
    const toml::array* const elements = found->as_array();
    if (elements == nullptr || elements->size() > most) {
      fail(*found, key, "must be an array of at most " + std::to_string(most) + " strings");
      return list;
    }
    for (const toml::node& element : *elements) {
      if (auto text = textOf(element, key)) list.push_back(std::move(*text));
    }
    return list;
  }

  template <std::size_t N>
  std::optional<std::int64_t> named(std::string_view key, const std::array<NamedNumber, N>& names) {
    const auto name = text(key);
    return name ? numberNamed(*name, key, names) : std::nullopt;
  }

  // `names`: pairs of a name and its number.
  std::optional<std::int64_t> numberNamed(std::string_view name, std::string_view key,
                                          const auto& names) {
    std::string allowed;
    for (const auto& [known, number] : names) {
      if (known == name) return static_cast<std::int64_t>(number);
      allowed += (allowed.empty() ? "\"" : ", \"") + std::string(known) + "\"";
    }
    fail(_table, key, "must be one of " + allowed);
    return std::nullopt;
  }

  void fail(std::string_view key, const std::string& what) {
    const toml::node* const found = _table.get(key);
    fail(found == nullptr ? _table : *found, key, what);
  }

  // What is wrong, "line 3: identifier: must be ..."; unknown keys are.
  const std::optional<std::string>& problem() {
    for (const auto& [key, value] : _table) {
      if (std::find(_known.begin(), _known.end(), key.str()) == _known.end())
        fail(value, key.str(), "is not a key of a client descriptor");
    }
    return _problem;
  }

 private:
  std::optional<std::string> textOf(const toml::node& found, std::string_view key) {
    auto text = found.value_exact<std::string>();
    const bool isPlain = text && !text->empty() && text->size() <= kMaxText &&
                         std::none_of(text->begin(), text->end(), [](char c) {
                           return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
                         });
    if (isPlain) return text;
    fail(found, key, "must be a string that is not empty, without control characters");
    return std::nullopt;
  }

  void fail(const toml::node& where, std::string_view key, const std::string& what) {
    if (_problem) return;
    _problem =
        "line " + std::to_string(where.source().begin.line) + ": " + std::string(key) + ": " + what;
  }

  const toml::table& _table;
  std::vector<std::string_view> _known;
  std::optional<std::string> _problem;
};

std::string readName(TableReader& table, std::string_view key, std::string otherwise) {
  auto name = table.text(key);
  if (!name) return otherwise;
  if (!isSafePathComponent(*name)) table.fail(key, "must be usable as a file name");
  return *name;
}

std::vector<URL> readURLs(TableReader& table, std::string_view key) {
  std::vector<URL> urls;
  for (const std::string& text : table.texts(key, kMaxURLs)) {
    auto url = URL::parse(text);
    if (url && (url->scheme() == "https" || url->scheme() == "http") && !url->host().empty()) {
      urls.push_back(std::move(*url));
    } else {
      table.fail(key, "\"" + text + "\" is not an http or https URL");
    }
  }
  return urls;
}

std::shared_ptr<const HSStoreClient> readClient(TableReader& table) {
  auto client = std::make_shared<HSStoreClient>();
  client->identifier = readName(table, "identifier", "");
  if (client->identifier->empty()) table.fail("identifier", "is missing");
  client->clientType =
      table.named("client-type", kClientTypes).value_or(kHSStoreClientTypeStoreAgent);
  client->requiredBagType =
      static_cast<std::uint64_t>(table.named("required-bag-type", kBagTypes).value_or(1));
  client->appPreferencesDomain = readName(table, "app-preferences-domain", *client->identifier);
  client->agentPreferencesDomain =
      readName(table, "agent-preferences-domain", client->appPreferencesDomain);
  client->productionBagURLs = readURLs(table, "production-bag-urls");
  client->sandboxBagURLs = readURLs(table, "sandbox-bag-urls");
  for (const std::string& name : table.texts("media-types", kMediaTypeNames.size()))
    client->mediaTypeMask |= table.numberNamed(name, "media-types", kMediaTypeNames).value_or(0);
  client->userAgent = table.text("user-agent").value_or("tallowd (" + *client->identifier + ")");
  return client;
}

std::optional<std::string> readPattern(const toml::table& source, ClientDescriptor::Pattern& to) {
  TableReader table(source);
  to.executable = table.text("executable").value_or("");
  to.systemUnit = table.text("system-unit").value_or("");
  to.userUnit = table.text("user-unit").value_or("");
  to.flatpak = table.text("flatpak").value_or("");
  to.securityLabel = table.text("security-label").value_or("");
  const std::filesystem::path path = to.executable;
  if (!to.executable.empty() && (!path.is_absolute() || path != path.lexically_normal()))
    table.fail("executable", "must be an absolute path without \".\" and \"..\"");
  if (source.empty()) table.fail("process", "says nothing about the process");
  return table.problem();
}

void readPatterns(TableReader& table, std::vector<ClientDescriptor::Pattern>& patterns) {
  const toml::node* const found = table.node("process");
  if (found == nullptr) return;
  const toml::array* const list = found->as_array();
  if (list == nullptr || !list->is_array_of_tables() || list->size() > kMaxPatterns) {
    table.fail("process", "must be [[process]] tables, at most " + std::to_string(kMaxPatterns));
    return;
  }
  for (const toml::node& element : *list) {
    const auto problem = readPattern(*element.as_table(), patterns.emplace_back());
    if (problem) table.fail("process", *problem);
  }
}

}  // namespace

bool ClientDescriptor::Pattern::matches(const ProcessIdentity& process) const {
  const auto holds = [](const std::string& wanted, const std::string& is) {
    return wanted.empty() || wanted == is;
  };
  return holds(executable, process.executable) && holds(systemUnit, process.systemUnit) &&
         holds(userUnit, process.userUnit) && holds(flatpak, process.flatpak) &&
         holds(securityLabel, process.securityLabel);
}

bool ClientDescriptor::matches(const ProcessIdentity& process) const {
  return std::any_of(processes.begin(), processes.end(),
                     [&](const Pattern& pattern) { return pattern.matches(process); });
}

Result<ClientDescriptor> ClientDescriptor::parse(std::string_view text, std::string fileName) {
  const auto refused = [&](const std::string& why) {
    return makeError("ClientDescriptor", 1, fileName + ": " + why);
  };
  const toml::parse_result parsed = toml::parse(text, fileName);
  if (!parsed) {
    const toml::parse_error& error = parsed.error();
    return refused("line " + std::to_string(error.source().begin.line) + ": " +
                   std::string(error.description()));
  }
  ClientDescriptor descriptor;
  TableReader table(parsed.table());
  const bool hasClient = table.boolean("store-client").value_or(true);
  descriptor.mayActAsOthers = table.boolean("may-act-as-others").value_or(false);
  descriptor.mayShowDialogs = table.boolean("may-show-dialogs").value_or(false);
  readPatterns(table, descriptor.processes);
  if (hasClient) descriptor.client = readClient(table);
  if (const auto& problem = table.problem()) return refused(*problem);
  descriptor.fileName = std::move(fileName);
  return descriptor;
}

}  // namespace tallow
