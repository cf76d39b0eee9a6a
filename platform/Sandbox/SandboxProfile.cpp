#include "platform/Sandbox/SandboxProfile.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <initializer_list>
#include <span>
#include <utility>

#include "platform/Base/AtomicFile.h"
#include "platform/Base/Directories.h"
#include "platform/Base/Format.h"
#include "platform/Preferences/TOML.h"

namespace tallow {
namespace {

constexpr std::int64_t kFormat = 1;
constexpr std::size_t kMaxProfileBytes = 1u << 20;

using Paths = std::vector<std::filesystem::path>;

Error malformed(std::string description) {
  return makeError(kSandboxErrorDomain, EINVAL,
                   "malformed sandbox profile: " + std::move(description));
}

// What a path's variable stands for; nullopt when there is no such variable.
std::optional<Paths> valuesOfVariable(std::string_view variable) {
  const Directories& directories = Directories::shared();
  if (variable == "$CONFIG_HOME") return Paths{directories.configHome};
  if (variable == "$DATA_HOME") return Paths{directories.dataHome};
  if (variable == "$CACHE_HOME") return Paths{directories.cacheHome};
  if (variable == "$STATE_HOME") return Paths{directories.stateHome};
  if (variable == "$CONFIG_DIRS") return directories.configDirs;
  if (variable == "$DATA_DIRS") return directories.dataDirs;
  if (variable == "$EXECUTABLE") {
    std::error_code failure;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", failure);
    return failure ? Paths() : Paths{program};
  }
  if (variable == "$CA_FILE") {
    const std::filesystem::path file = authoritiesFile();
    return file.empty() ? Paths() : Paths{file};
  }
  return std::nullopt;
}

bool isOwnFolder(std::string_view variable) {
  return variable.ends_with("_HOME");
}

// Reads one table, key by key; the first thing wrong is kept.
class TableReader {
 public:
  TableReader(const Dictionary& table, std::string name) : _table(table), _name(std::move(name)) {}

  void onlyKeys(std::initializer_list<std::string_view> known) {
    for (const auto& [key, value] : _table)
      if (std::find(known.begin(), known.end(), key) == known.end())
        fail(format("unknown key \"%s\" in [%s]", key, _name));
  }

  std::vector<std::string> strings(std::string_view key) {
    std::vector<std::string> result;
    const Array* array = _table[key].array();
    if (array == nullptr) {
      fail(format("[%s] has no list \"%s\"", _name, key));
      return result;
    }
    for (const Value& element : *array) {
      if (const std::string* text = element.string()) {
        result.push_back(*text);
      } else {
        fail(format("\"%s\" in [%s] holds something other than strings", key, _name));
      }
    }
    return result;
  }

  bool boolean(std::string_view key) {
    const bool* value = _table[key].boolean();
    if (value == nullptr) fail(format("[%s] has no true or false \"%s\"", _name, key));
    return value != nullptr && *value;
  }

  void fail(std::string problem) {
    if (_problem.empty()) _problem = std::move(problem);
  }
  const std::string& problem() const { return _problem; }

 private:
  const Dictionary& _table;
  const std::string _name;
  std::string _problem;
};

// Resolves the variables; `ownFolders`, where given, receives the service's own among the paths.
Paths expand(const std::vector<std::string>& texts, TableReader& reader, Paths* ownFolders) {
  Paths paths;
  for (const std::string& text : texts) {
    if (text.starts_with('/')) {
      paths.emplace_back(text);
      continue;
    }
    const std::size_t slash = std::min(text.find('/'), text.size());
    const std::string_view variable = std::string_view(text).substr(0, slash);
    const std::optional<Paths> values = valuesOfVariable(variable);
    if (!values) reader.fail(format("no absolute path: \"%s\"", text));
    for (const std::filesystem::path& value : values.value_or(Paths())) {
      paths.push_back(slash == text.size() ? value : value / text.substr(slash + 1));
      if (ownFolders != nullptr && isOwnFolder(variable)) ownFolders->push_back(paths.back());
    }
  }
  return paths;
}

std::string readFiles(const Dictionary& table, SandboxProfile& profile) {
  TableReader reader(table, "files");
  reader.onlyKeys({"read", "write"});
  profile.readPaths = expand(reader.strings("read"), reader, nullptr);
  profile.writePaths = expand(reader.strings("write"), reader, &profile.ownFolders);
  return reader.problem();
}

std::string readNetwork(const Dictionary& table, SandboxProfile& profile) {
  TableReader reader(table, "network");
  reader.onlyKeys({"listen", "socket-families"});
  profile.mayListen = reader.boolean("listen");
  profile.socketFamilies = reader.strings("socket-families");
  for (const std::string& family : profile.socketFamilies)
    if (family != "unix" && family != "inet" && family != "inet6" && family != "netlink-route")
      reader.fail(format("unknown socket family \"%s\"", family));
  return reader.problem();
}

std::string readSystemCalls(const Dictionary& table, SandboxProfile& profile) {
  TableReader reader(table, "system-calls");
  reader.onlyKeys({"allow", "refuse"});
  profile.allowedCalls = reader.strings("allow");
  profile.refusedCalls = reader.strings("refuse");
  for (const std::string& call : profile.refusedCalls)
    if (std::find(profile.allowedCalls.begin(), profile.allowedCalls.end(), call) !=
        profile.allowedCalls.end())
      reader.fail(format("the system call %s is both allowed and refused", call));
  return reader.problem();
}

}  // namespace

Result<SandboxProfile> SandboxProfile::named(const std::string& name) {
  if (!isSafePathComponent(name))
    return makeError(kSandboxErrorDomain, EINVAL,
                     format("no sandbox profile can be named \"%s\"", name));
  const std::string_view builtIn = builtInSandboxProfile(name);
  const auto parsed = [builtIn](std::string_view text) {
    Result<SandboxProfile> profile = parse(text);
    if (profile) profile->isBuiltIn = text == builtIn;
    return profile;
  };
  for (const std::filesystem::path& folder : Directories::shared().systemDataDirs()) {
    const std::filesystem::path file = folder / "sandbox" / (name + ".toml");
    const Result<Data> text = readLinkedFile(file, kMaxProfileBytes);
    if (text) return parsed(text->view());
    if (text.error().code != ENOENT && text.error().code != ENOTDIR)
      return makeError(kSandboxErrorDomain, text.error().code,
                       format("cannot read %s: %@", file.string(), text.error()));
  }
  if (builtIn.empty())
    return makeError(kSandboxErrorDomain, ENOENT, format("no sandbox profile \"%s\"", name));
  return parsed(builtIn);
}

Result<SandboxProfile> SandboxProfile::parse(std::string_view text) {
  const Result<Dictionary> decoded = TOML::decode(text);
  if (!decoded) return malformed(decoded.error().localizedDescription());
  const Dictionary& root = *decoded;
  TableReader reader(root, "the file");
  reader.onlyKeys({"format", "files", "network", "system-calls"});
  if (!reader.problem().empty()) return malformed(reader.problem());
  if (root["format"] != Value(kFormat)) return malformed(format("its format is not %d", kFormat));

  using Read = std::string (*)(const Dictionary&, SandboxProfile&);
  constexpr std::pair<const char*, Read> kTables[] = {
      {"files", readFiles}, {"network", readNetwork}, {"system-calls", readSystemCalls}};
  SandboxProfile profile;
  for (const auto& [name, read] : kTables) {
    const Dictionary* table = root[name].dictionary();
    if (table == nullptr) return malformed(format("it has no [%s]", name));
    if (const std::string problem = read(*table, profile); !problem.empty())
      return malformed(problem);
  }
  return profile;
}

}  // namespace tallow
