#include "platform/VendBase/ClientDescriptors.h"

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/Base/AtomicFile.h"
#include "platform/Base/Directories.h"
#include "platform/Base/SharedInstance.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {

namespace {

constexpr std::size_t kMaxFileBytes = std::size_t{64} << 10;
constexpr std::size_t kMaxFiles = 1000;

// What tells one state of a file from another.
struct FileState {
  std::filesystem::path path;
  std::uint64_t inode = 0;
  std::int64_t size = 0;
  std::int64_t changedSeconds = 0;
  std::int64_t changedNanoseconds = 0;

  friend bool operator==(const FileState&, const FileState&) = default;
};

// By file name, so that a later directory replaces what an earlier one has.
using Files = std::map<std::string, FileState>;

void addFilesOf(const std::filesystem::path& folder, Files& files) {
  std::error_code error;
  for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    std::string name = entry->path().filename().string();
    if (!name.ends_with(".toml") || name.starts_with('.')) continue;
    struct stat status {};
    if (stat(entry->path().c_str(), &status) != 0) continue;
    if (files.size() >= kMaxFiles && files.count(name) == 0) continue;
    files[std::move(name)] = {entry->path(), status.st_ino, status.st_size, status.st_ctim.tv_sec,
                              status.st_ctim.tv_nsec};
  }
}

Files filesThatCount() {
  const Directories& directories = Directories::shared();
  Files files;
  // The directories are listed with the most important one first.
  for (const auto* list : {&directories.dataDirs, &directories.configDirs}) {
    for (auto folder = list->rbegin(); folder != list->rend(); ++folder)
      addFilesOf(*folder / "clients.d", files);
  }
  return files;
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
    Files files = filesThatCount();
    const std::lock_guard lock(_mutex);
    if (!_list || files != _files) {
      _list = read(files);
      _files = std::move(files);
    }
    return _list;
  }

  static std::shared_ptr<const List> read(const Files& files) {
    static std::atomic<std::uint64_t> readings{0};
    const std::uint64_t reading = ++readings;
    auto list = std::make_shared<List>();
    for (const auto& [name, state] : files) {
      if (state.size == 0) continue;
      const auto contents = readFile(state.path, kMaxFileBytes);
      if (!contents) {
        logLevel(1, "%@: cannot read %@: %@", ClientDescriptors::kClassName, state.path.string(),
                 contents.error());
        continue;
      }
      auto descriptor = ClientDescriptor::parse(contents->view(), state.path.string());
      if (!descriptor) {
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
};

}  // namespace

ClientDescriptors& ClientDescriptors::shared() {
  return SharedInstance<ClientDescriptors>::get(&ClientDescriptors::make);
}

std::vector<std::filesystem::path> ClientDescriptors::installedFiles() {
  std::vector<std::filesystem::path> paths;
  for (const auto& [name, state] : filesThatCount()) paths.push_back(state.path);
  return paths;
}

std::unique_ptr<ClientDescriptors> ClientDescriptors::make() {
  return std::make_unique<InstalledClientDescriptors>();
}

}  // namespace tallow
