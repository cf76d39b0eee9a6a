// Input: what to do, then bytes as they come, or changes (FuzzWorld.h) to what is genuine. A
// message that reads is written in the same bytes; only what the store has really said is taken up,
// and only once; a secret's file that has been touched gives no password, and is never lost.

#include <array>
#include <fstream>
#include <optional>
#include <string_view>

#include "fuzz/FuzzTarget.h"
#include "fuzz/FuzzWorld.h"
#include "fuzz/Require.h"
#include "platform/Base/AtomicFile.h"
#include "platform/Orv/BuiltInOrv.h"

using namespace tallow;

namespace {

using Bytes = std::span<const std::uint8_t>;
constexpr std::uint64_t kDSID = 42;

template <class Message>
void checkMessage(Bytes bytes) {
  if (const auto message = Message::decode(bytes)) REQUIRE(message->encode() == Data(bytes));
}

void checkMessages(Bytes bytes) {
  checkMessage<OrvMessages::ProvisioningStart>(bytes);
  checkMessage<OrvMessages::ProvisioningRequest>(bytes);
  checkMessage<OrvMessages::TransportKey>(bytes);
  checkMessage<OrvMessages::MachineIdentifier>(bytes);
  checkMessage<OrvMessages::SyncStart>(bytes);
  checkMessage<OrvMessages::SyncRequest>(bytes);
  if (const auto secret = MachineSecret::decode(bytes))
    REQUIRE(Data(Bytes(secret->encode().span())) == Data(bytes));
  REQUIRE(!OrvMessages::Settings::open(OrvCrypto::Key(), bytes));
}

// A store and a machine that is provisioned with it.
struct World : FuzzWorld {
  World() {
    BuiltInOrv orv = machine();
    SecretVector clientData;
    std::uint32_t session = 0;
    REQUIRE(orv.startProvisioning(kDSID, start.encode().span(), clientData, session) ==
            kOrvSuccess);
    const auto [settings, key] = answerTo(clientData);
    REQUIRE(orv.finishProvisioning(session, settings.span(), key.span()) == kOrvSuccess);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder / "orv"))
      if (entry.is_regular_file()) file = entry.path();
    sealed = *readFile(file);
  }

  BuiltInOrv machine() const {
    constexpr std::array<std::uint8_t, 4> kMachine = {1, 2, 3, 4};
    return {folder / "orv", kMachine, StoreClock::Boot{1}, [](int, const std::string&) {}};
  }
  // What the store answers to a machine's request: settings and transport key. Remembers the keys.
  std::pair<Data, Data> answerTo(const SecretVector& clientData) {
    const auto request = OrvMessages::ProvisioningRequest::decode(clientData);
    auto agreement = OrvAgreement::ofStore(kDSID, first, *request);
    agreement->addTransportKeyOfMachine(second, request->machineKey);
    keys = agreement->identityKeys();
    return {OrvMessages::Settings{{9}, 30, 1'800'000'000'000}.seal(agreement->settingsKey()),
            OrvMessages::TransportKey{second.publicKey}.encode()};
  }
  Data syncStart(std::uint64_t storeTime) const {
    OrvMessages::SyncStart sync{{4}, storeTime, {}};
    sync.proof = sync.proofWith(keys->sync);
    return sync.encode();
  }

  OrvCrypto::KeyPair first = OrvCrypto::makeKeyPair(), second = OrvCrypto::makeKeyPair();
  OrvMessages::ProvisioningStart start{{1}, first.publicKey};
  std::optional<OrvIdentityKeys> keys;
  std::filesystem::path file;
  Data sealed;  // what is in it
};

void putBack(const World& world) {
  for (const auto& entry : std::filesystem::directory_iterator(world.file.parent_path()))
    std::filesystem::remove(entry.path());
  REQUIRE(!writeFileAtomically(world.file, world.sealed));
}

bool isSomewhere(const World& world, const Data& contents) {
  for (const auto& entry : std::filesystem::directory_iterator(world.file.parent_path()))
    if (const auto found = readFile(entry.path()); found && *found == contents) return true;
  return false;
}

void checkFile(const World& world, const Data& contents) {
  REQUIRE(!writeFileAtomically(world.file, contents));
  BuiltInOrv orv = world.machine();
  SecretVector identifier, password;
  const std::int32_t status = orv.requestPassword(kDSID, identifier, password);
  REQUIRE((status == kOrvSuccess) == (contents == world.sealed));
  REQUIRE(password.empty() == (status != kOrvSuccess));
  REQUIRE(isSomewhere(world, contents));
  putBack(world);
}

void checkProvisioning(World& world, const Changes& changes) {
  BuiltInOrv orv = world.machine();
  SecretVector clientData;
  std::uint32_t session = 0;
  const Data start = world.start.encode();
  const Data heard = changes.applied(0, start);
  if (orv.startProvisioning(kDSID, heard.span(), clientData, session) != kOrvSuccess) {
    REQUIRE(heard != start && clientData.empty());
    return;
  }
  // A store finds what it has begun by its identifier.
  if (OrvMessages::ProvisioningRequest::decode(clientData)->provisioning !=
      world.start.provisioning) {
    REQUIRE(heard != start);
    return;
  }
  const auto before = world.keys;
  const auto [settings, key] = world.answerTo(clientData);
  const Data heardSettings = changes.applied(1, settings), heardKey = changes.applied(2, key);
  const bool isDone =
      orv.finishProvisioning(session, heardSettings.span(), heardKey.span()) == kOrvSuccess;
  REQUIRE(isDone == (heard == start && heardSettings == settings && heardKey == key));
  orv.endSession(session);
  REQUIRE(orv.finishProvisioning(session, settings.span(), key.span()) == kOrvUnknownSession);
  world.keys = before;
  putBack(world);
}

void checkSynchronizing(World& world, const Changes& changes) {
  BuiltInOrv orv = world.machine();
  const Data word = world.syncStart(1'800'000'100'000);
  const Data heard = changes.applied(0, word);
  SecretVector identifier, clientData;
  const std::int32_t status = orv.synchronizeMachine(kDSID, heard.span(), identifier, clientData);
  REQUIRE((status == kOrvSuccess) == (heard == word));
  if (status == kOrvSuccess)
    REQUIRE(orv.synchronizeMachine(kDSID, heard.span(), identifier, clientData) == kOrvOutdated);
  putBack(world);
}

void checkStranger(World& world, Bytes bytes) {
  BuiltInOrv orv = world.machine();
  SecretVector identifier, clientData;
  std::uint32_t session = 0;
  REQUIRE(orv.synchronizeMachine(kDSID, bytes, identifier, clientData) != kOrvSuccess);
  REQUIRE(orv.finishProvisioning(0, bytes, bytes) == kOrvUnknownSession);
  if (orv.startProvisioning(kDSID, bytes, clientData, session) != kOrvSuccess) return;
  REQUIRE(orv.finishProvisioning(session, bytes, world.start.encode().span()) != kOrvSuccess);
  REQUIRE(orv.finishProvisioning(session, {}, bytes) != kOrvSuccess);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static World world;
  if (size == 0) return 0;
  Bytes input(data + 1, size - 1);
  switch (data[0] % 6) {
    case 0:
      checkMessages(input);
      break;
    case 1:
      checkStranger(world, input);
      break;
    case 2:
      checkFile(world, Data(input));
      break;
    case 3:
      checkFile(world, Changes(input).applied(0, world.sealed));
      break;
    case 4:
      checkProvisioning(world, Changes(input));
      break;
    default:
      checkSynchronizing(world, Changes(input));
  }
  return 0;
}
