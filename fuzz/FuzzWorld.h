#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/Base/Clock.h"
#include "platform/Base/Directories.h"
#include "platform/Base/SharedInstance.h"
#include "platform/Concurrency/WorkerPool.h"
#include "platform/HTTP/HTTPTransport.h"
#include "platform/Preferences/MemoryPreferences.h"
#include "platform/PropertyList/PropertyList.h"
#include "platform/VendBase/HSStoreClient.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {

// What a fuzz target runs in: a clock that stands still, preferences in memory, and folders of its
// own, in memory where the system has such. Nothing is logged. One for the process, made before
// anything else asks for what it replaces.
class FuzzWorld {
 public:
  FuzzWorld() {
    VBLogManager::sharedManager().setThreshold(0);
    directories.configHome = folder / "config";
    directories.dataHome = folder / "data";
    directories.cacheHome = folder / "cache";
    directories.stateHome = folder / "state";
    directories.configDirs = {directories.configHome, folder / "etc"};
    directories.dataDirs = {directories.dataHome};
    std::filesystem::create_directories(folder / "etc/anchors");
  }
  ~FuzzWorld() {
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
  }
  FuzzWorld(const FuzzWorld&) = delete;
  FuzzWorld& operator=(const FuzzWorld&) = delete;

  static std::shared_ptr<HSStoreClient> client() {
    auto made = std::make_shared<HSStoreClient>();
    made->identifier = made->appPreferencesDomain = made->agentPreferencesDomain = "fuzz.store";
    made->productionBagURLs = {*URL::parse("https://store.example/bag")};
    return made;
  }

  ManualClock clock{Date{1'800'000'000}};
  MemoryPreferences preferences;
  const std::filesystem::path folder = made();
  Directories directories;

 private:
  static std::filesystem::path made() {
    const bool hasMemory = std::filesystem::exists("/dev/shm");
    std::string pattern = hasMemory ? "/dev/shm" : std::filesystem::temp_directory_path().string();
    pattern += "/tallow-fuzz-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    return pattern;
  }

  ScopedShared<Clock> _sharedClock{clock};
  ScopedShared<Preferences> _sharedPreferences{preferences};
  ScopedShared<Directories> _sharedDirectories{directories};
};

// A network on which every request gets the answer that is set, and nothing is remembered.
class FuzzTransport final : public HTTPTransport {
 public:
  using Answer = std::function<Data(const HTTPRequest&)>;
  explicit FuzzTransport(Answer answer) : _answer(std::move(answer)) {}

  std::shared_ptr<Exchange> start(HTTPRequest request, Completion completion) override {
    WorkerPool::shared().async([this, request, completion = std::move(completion)] {
      HTTPResponse response(request.url);
      response.statusCode = 200;
      response.body = _answer(request);
      completion(std::move(response));
    });
    return std::make_shared<Started>();
  }

 private:
  struct Started final : Exchange {
    void cancel() override {}
  };
  const Answer _answer;
  ScopedShared<HTTPTransport> _shared{*this};
};

// The bytes of a value, to compare values by: a NaN does not equal itself.
inline Data encoded(const Value& value) {
  return PropertyList::encode(value, PropertyList::Format::Binary);
}

// The beginning of an input that says what to change in something genuine: how many changes, then
// four bytes for each. Takes them off the input.
class Changes {
 public:
  explicit Changes(std::span<const std::uint8_t>& input) {
    constexpr std::size_t kMost = 8;
    const std::size_t count = input.empty() ? 0 : input[0] % kMost;
    input = input.subspan(input.empty() ? 0 : 1);
    for (std::size_t i = 0; i < count && input.size() >= 4; ++i, input = input.subspan(4))
      _changes.push_back({input[0], input[1] | unsigned{input[2]} << 8, input[3]});
  }

  // The part of that number with the changes that are meant for it.
  Data applied(unsigned part, const Data& genuine) const {
    std::vector<std::uint8_t> bytes(genuine.bytes(), genuine.bytes() + genuine.length());
    for (const Change& change : _changes) {
      if (change.what % kParts != part) continue;
      const std::size_t at = bytes.empty() ? 0 : change.where % (bytes.size() + 1);
      if (change.what / kParts % 4 == 0) {
        bytes.resize(at);
      } else if (change.what / kParts % 4 == 1 || at == bytes.size()) {
        bytes.insert(bytes.begin() + static_cast<std::ptrdiff_t>(at), change.with);
      } else {
        bytes[at] ^= change.with;
      }
    }
    return Data(std::move(bytes));
  }

 private:
  static constexpr unsigned kParts = 8;
  struct Change {
    unsigned what;  // which part, and what to do with it
    std::size_t where;
    std::uint8_t with;
  };
  std::vector<Change> _changes;
};

}  // namespace tallow
