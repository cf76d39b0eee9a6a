#include "platform/VendBase/ClientDescriptors.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/Base/AtomicFile.h"
#include "platform/Base/Clock.h"
#include "platform/Base/Directories.h"
#include "platform/Base/FileStamp.h"
#include "platform/Base/SharedInstance.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {

namespace {

constexpr std::size_t kMaxFileBytes = std::size_t{64} << 10;
constexpr std::size_t kMaxFiles = 1000;
constexpr double kSecondsBetweenTries = 1;

struct InstalledFile {
  std::filesystem::path path;
  FileStamp stamp;

  friend bool operator==(const InstalledFile&, const InstalledFile&) = default;
};

// By file name, so that a later directory replaces what an earlier one has.
using Files = std::map<std::string, InstalledFile>;

// False when the folder could not be listed just now.
bool addFilesOf(const std::filesystem::path& folder, Files& files) {
  std::error_code error;
  for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    std::string name = entry->path().filename().string();
    if (!name.ends_with(".toml") || name.starts_with('.')) continue;
    const auto stamp = FileStamp::at(entry->path().c_str());
    if (!stamp) continue;
    if (files.size() >= kMaxFiles && files.count(name) == 0) continue;
    files[std::move(name)] = {entry->path(), *stamp};
  }
  return !error || !mayPass(error.value());
}

Files filesThatCount(bool& isWhole) {
  const Directories& directories = Directories::shared();
  Files files;
  // The directories are listed with the most important one first.
  for (const auto* list : {&directories.dataDirs, &directories.configDirs}) {
    for (auto folder = list->rbegin(); folder != list->rend(); ++folder)
      isWhole = addFilesOf(*folder / "clients.d", files) && isWhole;
  }
  return files;
}

// Links are followed: an administrator may keep the file elsewhere.
Result<ClientDescriptor> descriptorIn(const InstalledFile& file) {
  const Result<Data> contents = readLinkedFile(file.path, kMaxFileBytes);
  if (!contents) return contents.error();
  return ClientDescriptor::parse(contents->view(), file.path.string());
}

class InstalledClientDescriptors final : public ClientDescriptors {
 public:
  std::shared_ptr<const ClientDescriptor> descriptorForProcess(
      const ProcessIdentity& process) override {
    std::shared_ptr<const ClientDescriptor> found;
    for (const auto& descriptor : *current()) {
      if (!descriptor->matches(process)) continue;
      if (found) {
        logLevel(2, "%@: both %@ and %@ name %@; the first one counts",
                 ClientDescriptors::kClassName, found->fileName, descriptor->fileName,
                 description(process));
        break;
      }
      found = descriptor;
    }
    return found;
  }

  bool isComplete() override {
    const std::lock_guard lock(_mutex);
    return _areAllListed && !_readAgainAt;
  }

  std::shared_ptr<const HSStoreClient> clientWithIdentifier(std::string_view identifier) override {
    for (const auto& descriptor : *current()) {
      if (descriptor->client && descriptor->client->identifier == identifier)
        return descriptor->client;
    }
    return nullptr;
  }

  std::shared_ptr<const HSStoreClient> clientWithType(std::int64_t clientType) override {
    std::shared_ptr<const HSStoreClient> first;
    for (const auto& descriptor : *current()) {
      const auto& client = descriptor->client;
      if (!client || client->clientType != clientType) continue;
      if (!first || *client->identifier < *first->identifier) first = client;
    }
    return first;
  }

 private:
  using List = std::vector<std::shared_ptr<const ClientDescriptor>>;

  std::shared_ptr<const List> current() {
    bool isWhole = true;
    Files files = filesThatCount(isWhole);
    const double now = Clock::shared().monotonicSeconds();
    const std::lock_guard lock(_mutex);
    _areAllListed = isWhole;
    // What was read before counts until all of it can be seen again.
    if (_list && !isWhole) return _list;
    if (!_list || files != _files || (_readAgainAt && now >= *_readAgainAt)) {
      isWhole = true;
      _list = read(files, isWhole);
      _files = std::move(files);
      _readAgainAt = isWhole ? std::nullopt : std::optional(now + kSecondsBetweenTries);
    }
    return _list;
  }

  static std::shared_ptr<const List> read(const Files& files, bool& isWhole) {
    static std::atomic<std::uint64_t> readings{0};
    const std::uint64_t reading = ++readings;
    auto list = std::make_shared<List>();
    if (files.size() == kMaxFiles)
      logLevel(1, "%@: there are %lu descriptors or more; no others are read",
               ClientDescriptors::kClassName, kMaxFiles);
    for (const auto& [name, file] : files) {
      if (file.stamp.size == 0) continue;
      Result<ClientDescriptor> descriptor = descriptorIn(file);
      if (!descriptor) {
        isWhole = isWhole && !mayPass(descriptor.error());
        logLevel(1, "%@: ignoring %@", ClientDescriptors::kClassName,
                 descriptor.error().localizedDescription());
        continue;
      }
      if (descriptor->client) {
        auto client = std::make_shared<HSStoreClient>(*descriptor->client);
        client->descriptorReading = reading;
        descriptor->client = std::move(client);
      }
      list->push_back(std::make_shared<const ClientDescriptor>(std::move(*descriptor)));
    }
    warnOfSharedIdentifiers(*list);
    return list;
  }

  static void warnOfSharedIdentifiers(const List& list) {
    std::map<std::string, std::string> files;
    for (const auto& descriptor : list) {
      if (!descriptor->client) continue;
      const auto [first, isNew] =
          files.emplace(*descriptor->client->identifier, descriptor->fileName);
      if (!isNew)
        logLevel(2, "%@: %@ and %@ have the same identifier %@", ClientDescriptors::kClassName,
                 first->second, descriptor->fileName, first->first);
    }
  }

  std::mutex _mutex;
  Files _files;
  std::shared_ptr<const List> _list;
  bool _areAllListed = true;
  std::optional<double> _readAgainAt;  // monotonic; nullopt: not before something changes
};

}  // namespace

ClientDescriptors& ClientDescriptors::shared() {
  return SharedInstance<ClientDescriptors>::get(&ClientDescriptors::make);
}

std::vector<ClientDescriptors::Installed> ClientDescriptors::installed() {
  std::vector<Installed> installed;
  bool isWhole = true;
  for (const auto& [name, file] : filesThatCount(isWhole)) {
    Installed& each = installed.emplace_back(Installed{file.path, std::nullopt});
    if (file.stamp.size != 0) each.descriptor = descriptorIn(file);
  }
  return installed;
}

std::unique_ptr<ClientDescriptors> ClientDescriptors::make() {
  return std::make_unique<InstalledClientDescriptors>();
}

}  // namespace tallow
