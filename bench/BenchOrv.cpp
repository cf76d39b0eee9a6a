// What this machine's identity costs on the path of a header answer: a one-time password and an
// identifier out of the secret on disk, for one account and for one of a thousand.

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/Orv/BuiltInOrv.h"

namespace tallow {
namespace {

// A machine that the store has provisioned for so many DSIDs.
class ProvisionedMachine {
 public:
  explicit ProvisionedMachine(std::uint64_t dsIDs) : _folder(makeFolder()) {
    const std::uint8_t id[] = {1, 2, 3, 4};
    orv = std::make_unique<BuiltInOrv>(_folder, id, StoreClock::Boot{1},
                                       [](int, const std::string&) {});
    for (std::uint64_t dsID = 1; dsID <= dsIDs; ++dsID) provision(dsID);
  }
  ~ProvisionedMachine() { std::filesystem::remove_all(_folder); }
  ProvisionedMachine(const ProvisionedMachine&) = delete;
  ProvisionedMachine& operator=(const ProvisionedMachine&) = delete;

  std::unique_ptr<BuiltInOrv> orv;

 private:
  static std::filesystem::path makeFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "bench-orv.XXXXXX").native();
    return ::mkdtemp(name.data());
  }

  void provision(std::uint64_t dsID) {
    const OrvCrypto::KeyPair first = OrvCrypto::makeKeyPair(), second = OrvCrypto::makeKeyPair();
    const Data start = OrvMessages::ProvisioningStart{{}, first.publicKey}.encode();
    SecretVector clientData;
    std::uint32_t session = 0;
    orv->startProvisioning(dsID, start.span(), clientData, session);
    const auto request = OrvMessages::ProvisioningRequest::decode(clientData);
    auto agreement = OrvAgreement::ofStore(dsID, first, *request);
    agreement->addTransportKeyOfMachine(second, request->machineKey);
    const Data settings = OrvMessages::Settings().seal(agreement->settingsKey());
    const Data key = OrvMessages::TransportKey{second.publicKey}.encode();
    orv->finishProvisioning(session, settings.span(), key.span());
    orv->endSession(session);
  }

  const std::filesystem::path _folder;
};

void password(benchmark::State& state, std::uint64_t dsIDs) {
  ProvisionedMachine machine(dsIDs);
  std::uint64_t dsID = 0;
  SecretVector identifier, digits;
  for (auto _ : state) {
    dsID = (dsID + 7919) % dsIDs;
    if (machine.orv->requestPassword(dsID + 1, identifier, digits) != kOrvSuccess)
      state.SkipWithError("no password");
  }
}

void add(const char* name, std::uint64_t dsIDs) {
  benchmark::RegisterBenchmark(name, [dsIDs](benchmark::State& state) { password(state, dsIDs); })
      ->ReportAggregatesOnly(true)
      ->Repetitions(9)
      ->MinTime(0.1);
}

}  // namespace
}  // namespace tallow

int main(int argc, char** argv) {
  tallow::add("otp_ns", 1);
  tallow::add("otp_1000_dsids_ns", 1000);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
