// What the base facilities cost on the path of a call: addresses, lookups, patterns, and a property
// list decoded next to the bare parse of the same bytes.

#include <benchmark/benchmark.h>
#include <plist/plist.h>

#include <string>

#include "platform/Base/Format.h"
#include "platform/Base/RegularExpression.h"
#include "platform/Base/URL.h"
#include "platform/PropertyList/PropertyList.h"

namespace tallow {
namespace {

void parseURL(benchmark::State& state, const char* text) {
  for (auto _ : state) benchmark::DoNotOptimize(URL::parse(text));
}
BENCHMARK_CAPTURE(parseURL, plain, "https://store.example.com/");
BENCHMARK_CAPTURE(parseURL, typical,
                  "https://p42-buy.store.example.com/WebObjects/Finance.woa/wa/buyProduct"
                  "?id=1234567890&kind=software&price=0");
BENCHMARK_CAPTURE(parseURL, international,
                  "https://b\xC3\xBC"
                  "cher.example/katalog");
BENCHMARK_CAPTURE(parseURL, address, "http://[2001:db8::1]:8080/x");
BENCHMARK_CAPTURE(parseURL, data, "data:text/plain;base64,SGVsbG8=");

Dictionary bagOfSize(int keys) {
  std::vector<Dictionary::Entry> entries;
  for (int index = 0; index < keys; ++index) {
    const std::string number = std::to_string(index * 7919);
    entries.push_back(
        {"service-url-" + number,
         "https://p" + number + "-buy.store.example.com/WebObjects/wa/action?a=1&b=2"});
    if (index % 8 == 0) entries.push_back({"limit-" + number, index});
    if (index % 64 == 0) {
      entries.push_back({"domains-" + number, Array{"a.example", "b.example", "c.example"}});
    }
  }
  return Dictionary(std::move(entries));
}

void lookUp(benchmark::State& state) {
  const Dictionary bag = bagOfSize(static_cast<int>(state.range(0)));
  const std::string key = (bag.begin() + bag.count() / 3)->key;
  for (auto _ : state) benchmark::DoNotOptimize(bag[key]);
}
BENCHMARK(lookUp)->Arg(100)->Arg(1000)->Arg(10000);

void setOne(benchmark::State& state) {
  const Dictionary bag = bagOfSize(20);
  for (auto _ : state) benchmark::DoNotOptimize(bag.setting("X-Header", "value"));
}
BENCHMARK(setOne);

// About one megabyte.
const Data& list(PropertyList::Format format) {
  static const Data xml = PropertyList::encode(bagOfSize(7000), PropertyList::Format::XML);
  static const Data binary = PropertyList::encode(bagOfSize(7000), PropertyList::Format::Binary);
  return format == PropertyList::Format::XML ? xml : binary;
}

void decodeList(benchmark::State& state, PropertyList::Format format) {
  const Data& bytes = list(format);
  for (auto _ : state) benchmark::DoNotOptimize(PropertyList::decode(bytes));
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes.length()));
}
BENCHMARK_CAPTURE(decodeList, xml, PropertyList::Format::XML)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(decodeList, binary, PropertyList::Format::Binary)->Unit(benchmark::kMicrosecond);

// The library alone.
void parseBare(benchmark::State& state, PropertyList::Format format) {
  const Data& bytes = list(format);
  for (auto _ : state) {
    plist_t root = nullptr;
    plist_from_memory(bytes.view().data(), static_cast<std::uint32_t>(bytes.length()), &root);
    benchmark::DoNotOptimize(root);
    plist_free(root);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes.length()));
}
BENCHMARK_CAPTURE(parseBare, xml, PropertyList::Format::XML)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(parseBare, binary, PropertyList::Format::Binary)->Unit(benchmark::kMicrosecond);

void encodeList(benchmark::State& state, PropertyList::Format format) {
  const Value value = bagOfSize(7000);
  for (auto _ : state) benchmark::DoNotOptimize(PropertyList::encode(value, format));
}
BENCHMARK_CAPTURE(encodeList, xml, PropertyList::Format::XML)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(encodeList, binary, PropertyList::Format::Binary)->Unit(benchmark::kMicrosecond);

void compileAndMatch(benchmark::State& state) {
  for (auto _ : state) {
    const auto expression = RegularExpression::compile("^https?://[^/]+/buy", {true});
    benchmark::DoNotOptimize(expression->firstMatchIn("https://store.example.com/buyProduct?id=1"));
  }
}
BENCHMARK(compileAndMatch);

void wildcard(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        isLikeIgnoringCase("P42-Buy.store.example.com", "*.store.example.com"));
  }
}
BENCHMARK(wildcard);

void formatLine(benchmark::State& state) {
  const auto url = URL::parse("https://store.example.com/bag.xml");
  for (auto _ : state) {
    benchmark::DoNotOptimize(format("%@: Loaded type %li from %@", "Bag", 1, url));
  }
}
BENCHMARK(formatLine);

}  // namespace
}  // namespace tallow
