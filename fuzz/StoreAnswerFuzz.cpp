// Whatever a store answers: a dialog shows nothing that a screen or terminal would act on, an
// account is whoever the answer names and its token never leaves memory, and a request comes to an
// end with an output or an error.

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>

#include "fuzz/FuzzTarget.h"
#include "fuzz/FuzzWorld.h"
#include "fuzz/Require.h"
#include "platform/Base/UTF8.h"
#include "platform/VendBase/HSDialog.h"
#include "platform/VendBase/HSPropertyListProvider.h"
#include "platform/VendBase/HSSignInOperation.h"
#include "platform/VendBase/HSStoreAccount.h"
#include "platform/VendBase/HSStoreURLOperation.h"
#include "src/AccountService/AccountServiceInterface.h"
#include "src/AccountService/AccountStore.h"

using namespace tallow;

namespace {

struct World : FuzzWorld {
  World() {
    HSServiceProxy::setLocalAccountService([](std::shared_ptr<const HSStoreClient> storeClient) {
      return std::make_shared<AccountServiceInterface>(std::move(storeClient));
    });
  }
  Data answer;
  FuzzTransport transport{[this](const HTTPRequest&) { return answer; }};
};

bool canBeShown(std::string_view text, std::size_t maxBytes, bool keepsLines) {
  return text.size() <= maxBytes && isValidUTF8(text) &&
         std::none_of(text.begin(), text.end(), [&](char c) {
           const auto byte = static_cast<unsigned char>(c);
           return (byte < 0x20 && !(keepsLines && c == '\n')) || byte == 0x7F;
         });
}

void checkDialog(const Value& value) {
  const auto dialog = HSDialog::fromProtocolValue(value);
  if (!dialog) return;
  REQUIRE(canBeShown(dialog->message, HSDialog::kMaxMessageBytes, false));
  REQUIRE(canBeShown(dialog->explanation, HSDialog::kMaxExplanationBytes, true));
  REQUIRE(!dialog->buttons.empty() && dialog->buttons.size() <= HSDialog::kMaxButtons);
  for (const HSDialog::Button& button : dialog->buttons)
    REQUIRE(!button.title.empty() && canBeShown(button.title, HSDialog::kMaxTitleBytes, false));
  REQUIRE(!dialog->signIn ||
          canBeShown(dialog->signIn->accountName, HSDialog::kMaxMessageBytes, false));
  // An agent that reads what it gets by the same rules shows the same.
  const auto again = HSDialog::fromProtocolValue(dialog->dictionary());
  REQUIRE(again && again->dictionary() == dialog->dictionary());
}

void checkAccount(const Dictionary& answer) {
  const HSAuthenticationResponse response(answer);
  REQUIRE(response.dsID() != 0U && response.token() != "");
  HSAuthenticationContext context;
  for (const auto& wanted : {std::optional<std::uint64_t>(), std::optional<std::uint64_t>(7)}) {
    context.dsID = wanted;
    const auto signedIn = HSSignInOperation::dsIDFromAnswer(answer, context);
    if (!signedIn) continue;
    REQUIRE(response.dsID() == *signedIn && wanted.value_or(*signedIn) == *signedIn);
    REQUIRE(!answer.contains("failureType"));
  }
  HSStoreAccount account;
  account.mergeValuesFromAuthenticationResponse(response);
  REQUIRE(account.isAuthenticated() == response.token().has_value());
  const auto record = account.persistedStoreDictionary();
  REQUIRE(record.has_value() == response.dsID().has_value());
  if (!record) return;
  REQUIRE(!record->contains("token"));
  const auto restored = HSStoreAccount::initWithPersistedStoreDictionary(*record);
  REQUIRE(!restored->isAuthenticated() && restored->persistedStoreDictionary() == record);
}

void checkCredit(const Dictionary& answer) {
  const auto store = AccountStore::initWithStoreClient(FuzzWorld::client());
  const auto account = std::make_shared<HSStoreAccount>();
  account->setDsID(HSAuthenticationResponse(answer).dsID().value_or(1));
  store->addAccount(account);
  store->makeAccountPrimary(account);
  store->parseCreditStringForProtocol(answer);
  const std::string* const text = answer["creditDisplay"].string();
  if (const auto credit = account->creditString()) REQUIRE(text != nullptr && *credit == *text);
}

void checkRequest(World& world, const Data& body, bool isList) {
  world.answer = body;
  const auto client = FuzzWorld::client();
  const auto operation = std::make_shared<HSStoreURLOperation>(client);
  const auto provider = HSPropertyListProvider::providerWithStoreClient(client);
  provider->setShouldProcessDialogs(true);
  operation->setDataProvider(provider);
  operation->setRequiredBagType(0);
  operation->setNeedsAuthentication(false);
  operation->setURLKnownToBeTrusted(true);
  operation->setRequest(HSURLRequest(*URL::parse("https://store.example/page")));
  std::optional<Error> error;
  const bool succeeded = operation->runSyncReturningError(&error);
  REQUIRE(succeeded != error.has_value());
  REQUIRE(!succeeded || isList);
  REQUIRE(!provider->didProcessDialog());  // nobody is there to press anything
  WorkerPool::shared().waitUntilIdle();
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static World world;
  const Data body(std::span(data, size));
  const auto decoded = PropertyList::decode(body);
  checkRequest(world, body, static_cast<bool>(decoded));
  if (!decoded || decoded->dictionary() == nullptr) return 0;
  const Dictionary& answer = *decoded->dictionary();
  checkDialog(answer["dialog"]);
  checkAccount(answer);
  checkCredit(answer);
  return 0;
}
