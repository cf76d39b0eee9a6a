// How long the cookie jar takes: to find the cookies of a URL, and to have one more on disk.
//
// A jar of N cookies has N/10 domains with ten cookies each, all of which go to one host. Limits
// are lifted. A second thread lives throughout, since reference counts cost less in a program that
// has none. Times are medians over repetitions.

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/Cookies/CookieJar.h"

namespace tallow {
namespace {

constexpr int kCookiesPerDomain = 10;
constexpr const char* kAttributes = "; Path=/; Max-Age=31536000; HttpOnly; SameSite=Lax";

std::string urlOfDomain(int domain) {
  return "https://www.shop" + std::to_string(domain) + ".example/catalogue/item/4711";
}

// Half the cookies of a domain belong to its host alone.
ParsedCookie cookie(int domain, int number, int generation) {
  std::string line = "name" + std::to_string(number) + "=" + std::to_string(generation) +
                     "-0123456789abcdef0123456789abcdef" + kAttributes;
  if (number % 2 == 0) line += "; Domain=shop" + std::to_string(domain) + ".example";
  return *parseSetCookie(line);
}

// A jar of a given size, filled once and shared by the benchmarks.
class FilledJar {
 public:
  explicit FilledJar(int cookies) : _folder(makeFolder()) {
    CookieJar::Limits limits;
    limits.cookiesPerDomain = limits.cookiesPerJar = 10'000'000;
    _jar = std::move(*CookieJar::open(_folder / "bench.cookies", limits));
    const int domains = cookies / kCookiesPerDomain;
    for (int domain = 0; domain < domains; ++domain) {
      urls.push_back(*URL::parse(urlOfDomain(domain)));
    }
    for (int domain = 0; domain < domains; ++domain) {
      std::vector<ParsedCookie> response;
      for (int i = 0; i < kCookiesPerDomain; ++i) response.push_back(cookie(domain, i, 0));
      _jar->setCookies(response, urls[static_cast<std::size_t>(domain)]);
    }
    _jar->synchronize();
  }
  ~FilledJar() {
    _jar.reset();
    std::filesystem::remove_all(_folder);
  }
  FilledJar(const FilledJar&) = delete;
  FilledJar& operator=(const FilledJar&) = delete;

  static FilledJar& ofSize(int cookies) {
    static std::map<int, std::unique_ptr<FilledJar>> jars;
    auto& jar = jars[cookies];
    if (jar == nullptr) jar = std::make_unique<FilledJar>(cookies);
    return *jar;
  }

  CookieJar& jar() { return *_jar; }
  std::vector<URL> urls;  // one per domain

 private:
  // In the working directory: a memory file system would make "durable" mean nothing.
  static std::filesystem::path makeFolder() {
    std::string name = (std::filesystem::current_path() / "bench-cookies.XXXXXX").native();
    return ::mkdtemp(name.data());
  }

  std::filesystem::path _folder;
  std::unique_ptr<CookieJar> _jar;
};

// How far a benchmark goes from one domain to the next.
constexpr std::size_t kStay = 0;
constexpr std::size_t kInTurn = 1;
constexpr std::size_t kScattered = 7919;

void lookup(benchmark::State& state, int cookies, std::size_t stride) {
  FilledJar& filled = FilledJar::ofSize(cookies);
  std::size_t domain = filled.urls.size() / 2;
  for (auto _ : state) {
    auto found = filled.jar().cookiesForURL(filled.urls[domain], true);
    if (found.size() != kCookiesPerDomain) state.SkipWithError("not ten cookies");
    benchmark::DoNotOptimize(found);
    domain = (domain + stride) % filled.urls.size();
  }
}

void header(benchmark::State& state, int cookies) {
  FilledJar& filled = FilledJar::ofSize(cookies);
  std::size_t domain = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        cookieHeaderValue(filled.jar().cookiesForURL(filled.urls[domain], true)));
    domain = (domain + kInTurn) % filled.urls.size();
  }
}

// One response cookie, safe from kill -9 when the call returns. One a repetition, so that
// the median is that of single calls: a disk shared with others now and then takes long.
// When it is to survive a power cut as well, the disk has to say so.
enum class Durable { FromKill, FromPowerCut };
void store(benchmark::State& state, int cookies, bool replaced, const std::string& scheme,
           Durable durable = Durable::FromKill) {
  FilledJar& filled = FilledJar::ofSize(cookies);
  static int generation = 0;
  static std::size_t domain = 0;
  for (auto _ : state) {
    ++generation;
    domain = (domain + kScattered) % filled.urls.size();
    ParsedCookie one = cookie(static_cast<int>(domain), 4, generation);
    if (!replaced) one.name = "new" + std::to_string(generation);
    const URL from = *URL::parse(scheme + filled.urls[domain].absoluteString().substr(5));

    const auto start = std::chrono::steady_clock::now();
    const auto decisions = filled.jar().setCookies({one}, from);
    if (durable == Durable::FromPowerCut && filled.jar().synchronize()) {
      state.SkipWithError("not synchronized");
    }
    const auto time = std::chrono::steady_clock::now() - start;

    state.SetIterationTime(std::chrono::duration<double>(time).count());
    if (decisions[0] != CookieDecision::Stored) state.SkipWithError("not stored");
    if (replaced) continue;
    one.maxAgeSeconds = 0;  // the jar keeps its size
    filled.jar().setCookies({one}, from);
  }
}

void parseAndJudge(benchmark::State& state) {
  const URL from = *URL::parse(urlOfDomain(1));
  const std::string line =
      "name=0123456789abcdef; Domain=shop1.example; Path=/; Secure; "
      "Expires=Wed, 09 Jun 2027 10:18:14 GMT";
  for (auto _ : state) {
    benchmark::DoNotOptimize(CookiePolicy::judge(*parseSetCookie(line), from, Date{1'700'000'000}));
  }
}

template <class Function>
benchmark::internal::Benchmark* add(const char* name, Function function) {
  return benchmark::RegisterBenchmark(name, function)->ReportAggregatesOnly(true);
}

// The clock of the processor, since a lookup waits for nothing.
template <class Function>
void addLookup(const char* name, Function function) {
  add(name, function)->Unit(benchmark::kNanosecond)->Repetitions(9)->MinTime(0.1);
}

void addStore(const char* name, int cookies, bool replaced, const char* scheme,
              Durable durable = Durable::FromKill) {
  add(name, [=](benchmark::State& state) { store(state, cookies, replaced, scheme, durable); })
      ->Unit(benchmark::kMicrosecond)
      ->UseManualTime()
      ->Iterations(1)
      ->Repetitions(501);
}

// cookie_lookup_100000_over_3000 is the ratio of two of these.
void registerAll() {
  constexpr int kSmall = 3'000;
  constexpr int kLarge = 100'000;
  const auto lookupIn = [](int cookies, std::size_t stride) {
    return [=](benchmark::State& state) { lookup(state, cookies, stride); };
  };
  const auto headerFrom = [](int cookies) {
    return [=](benchmark::State& state) { header(state, cookies); };
  };
  addLookup("cookie_lookup_3000_ns", lookupIn(kSmall, kInTurn));
  addLookup("cookie_lookup_100000_ns", lookupIn(kLarge, kInTurn));
  addLookup("cookie_lookup_scattered_3000_ns", lookupIn(kSmall, kScattered));
  addLookup("cookie_lookup_scattered_100000_ns", lookupIn(kLarge, kScattered));
  addLookup("cookie_lookup_one_domain_3000_ns", lookupIn(kSmall, kStay));
  addLookup("cookie_lookup_one_domain_100000_ns", lookupIn(kLarge, kStay));
  addLookup("cookie_header_3000_ns", headerFrom(kSmall));
  addLookup("cookie_header_100000_ns", headerFrom(kLarge));
  addLookup("cookie_parse_ns", parseAndJudge);
  addStore("cookie_store_new_3000_us", kSmall, false, "https");
  addStore("cookie_store_replaced_3000_us", kSmall, true, "https");
  addStore("cookie_store_new_100000_us", kLarge, false, "https");
  addStore("cookie_store_replaced_100000_us", kLarge, true, "https");
  addStore("cookie_store_http_100000_us", kLarge, true, "http");
  addStore("cookie_store_synchronized_3000_us", kSmall, true, "https", Durable::FromPowerCut);
  // How lookup and store grow with the jar.
  for (const int cookies : {10, 100, 1'000, 10'000, 100'000}) {
    const std::string size = "/" + std::to_string(cookies);
    addLookup(("growth_cookie_lookup_ns" + size).c_str(), lookupIn(cookies, kInTurn));
    addStore(("growth_cookie_store_us" + size).c_str(), cookies, true, "https");
  }
  addStore("cookie_store_synchronized_100000_us", kLarge, true, "https", Durable::FromPowerCut);
}

}  // namespace
}  // namespace tallow

int main(int argc, char** argv) {
  std::atomic<bool> over = false;
  std::thread companion([&] { over.wait(false); });
  tallow::registerAll();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  over = true;
  over.notify_all();
  companion.join();
  return 0;
}
