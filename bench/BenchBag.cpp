// How long the bag takes: to look a key up, to answer a question of policy, and to accept a signed
// bag of a megabyte next to the bare work on the same bytes (OpenSSL's verification, libplist's
// parse).

#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <plist/plist.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "platform/Base/Clock.h"
#include "platform/Base/Directories.h"
#include "platform/Base/SharedInstance.h"
#include "platform/Concurrency/WorkerPool.h"
#include "platform/HTTP/ScriptedTransport.h"
#include "platform/Preferences/MemoryPreferences.h"
#include "platform/PropertyList/PropertyList.h"
#include "platform/VendBase/VBLogManager.h"
#include "src/Bag.h"
#include "tests/support/CertificateAuthority.h"

namespace tallow {
namespace {

constexpr std::int64_t kLargeBagBytes = std::int64_t{1} << 20;

// Folders, preferences and a network of its own, and the anchor that signed bags hang from.
class World {
 public:
  World() {
    VBLogManager::sharedManager().setThreshold(0);
    std::string name = (std::filesystem::current_path() / "bench-bag.XXXXXX").native();
    _root = ::mkdtemp(name.data());
    _directories.cacheHome = _root / "cache";
    _directories.configHome = _root / "config";
    _directories.configDirs = {_directories.configHome, _directories.configHome / "etc"};
    std::filesystem::create_directories(_directories.configDirs[1] / "anchors");
    std::ofstream(_directories.configDirs[1] / "anchors" / "root.pem") << chain.root.pem();
  }
  ~World() {
    WorkerPool::shared().waitUntilIdle();
    std::filesystem::remove_all(_root);
  }
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  std::shared_ptr<Bag> bag(const Dictionary& contents) {
    auto client = std::make_shared<HSStoreClient>();
    client->identifier = "com.example.bench";
    client->productionBagURLs = {*URL::parse("https://bag.example.com/")};
    const Data body = PropertyList::encode(contents, PropertyList::Format::Binary);
    _transport.setHandler([body](const HTTPRequest& request) {
      return ScriptedTransport::response(request, 200, {{"Cache-Control", "max-age=86400"}},
                                         body.view());
    });
    auto bag = Bag::initWithBagType(kBagTypeProduction, client, {});
    bag->valueForKey("");
    return bag;
  }

  TestChain chain;

 private:
  std::filesystem::path _root;
  Directories _directories;
  MemoryPreferences _preferences;
  ScriptedTransport _transport;
  ScopedShared<Directories> _sharedDirectories{_directories};
  ScopedShared<Preferences> _sharedPreferences{_preferences};
  ScopedShared<HTTPTransport> _sharedTransport{_transport};
};

Dictionary bagOfKeys(int count) {
  std::vector<Dictionary::Entry> entries;
  for (int i = 0; i < count; ++i) {
    const std::string number = std::to_string(i);
    entries.push_back({"store-key-" + number, "https://store.example.com/path/" + number});
  }
  return Dictionary(std::move(entries));
}

void value(benchmark::State& state) {
  World world;
  const auto bag = world.bag(bagOfKeys(300));
  for (auto _ : state) benchmark::DoNotOptimize(bag->valueForKey("store-key-123"));
}

void trusted(benchmark::State& state) {
  World world;
  std::vector<Value> domains;
  for (int i = 0; i < 100; ++i) domains.emplace_back(".shop" + std::to_string(i) + ".example.com");
  const auto bag = world.bag({{"trustedDomains", Array(domains)}});
  const std::optional<URL> url = URL::parse("https://www.shop99.example.com/path");
  if (!bag->urlIsTrusted(url)) state.SkipWithError("not trusted");
  for (auto _ : state) benchmark::DoNotOptimize(bag->urlIsTrusted(url));
}

// A signed response of about so many bytes, made once.
struct LargeBag {
  explicit LargeBag(std::size_t size) {
    int count = 4;
    do {
      bytes = PropertyList::encode(bagOfKeys(count), PropertyList::Format::XML);
      count += count / 4;
    } while (bytes.length() < size);
    signature = world.chain.leaf.key().sign(bytes);
    response = {{"certs", world.chain.certificates()}, {"signature", signature}, {"bag", bytes}};
  }
  World world;
  Data bytes, signature;
  Dictionary response;
};

void accept(benchmark::State& state) {
  LargeBag large(static_cast<std::size_t>(state.range(0)));
  const auto bag = large.world.bag(bagOfKeys(1));
  // The date stays the same, so that nothing is written: the bare work writes nothing either.
  const std::optional<Date> date = bag->validUntilDate();
  const std::optional<URL> url = URL::parse("http://bag.example.com/");
  for (auto _ : state) {
    if (!bag->bagDictionaryWithServerResponseDictionary(large.response, date, url, nullptr))
      state.SkipWithError("not accepted");
  }
}

void bare(benchmark::State& state) {
  const LargeBag large(static_cast<std::size_t>(state.range(0)));
  const Data& der = large.world.chain.leaf.der();
  const unsigned char* start = der.bytes();
  const std::unique_ptr<X509, decltype(&X509_free)> leaf(
      d2i_X509(nullptr, &start, static_cast<long>(der.length())), X509_free);
  EVP_PKEY* key = X509_get0_pubkey(leaf.get());
  for (auto _ : state) {
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                          EVP_MD_CTX_free);
    EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, key);
    if (EVP_DigestVerify(context.get(), large.signature.bytes(), large.signature.length(),
                         large.bytes.bytes(), large.bytes.length()) != 1)
      state.SkipWithError("does not verify");
    plist_t list = nullptr;
    plist_from_memory(reinterpret_cast<const char*>(large.bytes.bytes()),
                      static_cast<std::uint32_t>(large.bytes.length()), &list);
    if (plist_dict_get_size(list) == 0) state.SkipWithError("does not parse");
    plist_free(list);
  }
}

BENCHMARK(value)->Name("bag_value_ns")->Repetitions(9)->ReportAggregatesOnly(true);
BENCHMARK(trusted)->Name("bag_trusted_100_ns")->Repetitions(9)->ReportAggregatesOnly(true);
BENCHMARK(accept)
    ->Name("bag_accept_1mb")
    ->Arg(kLargeBagBytes)
    ->Repetitions(9)
    ->ReportAggregatesOnly(true);
BENCHMARK(bare)
    ->Name("bag_bare_1mb")
    ->Arg(kLargeBagBytes)
    ->Repetitions(9)
    ->ReportAggregatesOnly(true);
BENCHMARK(accept)
    ->Name("growth_bag_accept_us")
    ->RangeMultiplier(8)
    ->Range(1 << 10, 4 << 20)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);

}  // namespace
}  // namespace tallow

BENCHMARK_MAIN();
