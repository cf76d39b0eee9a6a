// The operations of the exported object that are about accounts and signing in.

#include <functional>

#include "platform/XPC/AccountServiceCalls.h"
#include "platform/XPC/WireAccount.h"

namespace tallow {

namespace {
// Of a call that would make one account more known, and is not answered.
constexpr const char* kTooManyAccounts = "The client knows too many accounts already.";
}  // namespace

// A question whose answer is at most one account.
void AccountServiceObject::_askForAccount(
    sdbus::Result<std::vector<WireDictionary>>&& result, Arguments arguments,
    std::function<void(HSAccountService&, AccountReply)> ask) {
  _call(std::move(result), std::move(arguments),
        [ask = std::move(ask)](Caller& caller, auto reply) {
          ask(caller.service(), [reply](const std::shared_ptr<HSStoreAccount>& account) {
            reply->answer(wire::optionalAccount(account));
          });
        });
}

void AccountServiceObject::accounts(sdbus::Result<std::vector<WireDictionary>>&& result) {
  _call(std::move(result), {}, [](Caller& caller, auto reply) {
    caller.service().accounts(
        [reply](const auto& accounts) { reply->answer(wire::accountList(accounts)); });
  });
}

void AccountServiceObject::strongTokenForAccount(sdbus::Result<std::vector<std::string>>&& result,
                                                 WireDictionary account) {
  Arguments arguments;
  auto record = arguments.dictionary("account", std::move(account));
  _call(std::move(result), std::move(arguments),
        [record = std::move(record)](Caller& caller, auto reply) {
          caller.service().strongTokenForAccount(
              HSStoreAccount::initWithPersistedStoreDictionary(record),
              [reply](std::optional<std::string> token) {
                reply->answer(wire::optionalString(std::move(token)));
              });
        });
}

void AccountServiceObject::authIsExpired(sdbus::Result<bool>&& result) {
  _call(std::move(result), {}, [](Caller& caller, auto reply) {
    caller.service().authIsExpired([reply](bool expired) { reply->answer(expired); });
  });
}

void AccountServiceObject::primaryAccount(sdbus::Result<std::vector<WireDictionary>>&& result) {
  _askForAccount(std::move(result), {}, [](HSAccountService& service, AccountReply reply) {
    service.primaryAccount(std::move(reply));
  });
}

void AccountServiceObject::accountWithDSID(sdbus::Result<std::vector<WireDictionary>>&& result,
                                           std::uint64_t dsID) {
  _askForAccount(std::move(result), {}, [dsID](HSAccountService& service, AccountReply reply) {
    service.accountWithDSID(dsID, std::move(reply));
  });
}

void AccountServiceObject::accountWithVantorID(sdbus::Result<std::vector<WireDictionary>>&& result,
                                               std::string vantorID) {
  Arguments arguments;
  arguments.text("vantorID", vantorID);
  _askForAccount(std::move(result), std::move(arguments),
                 [vantorID = std::move(vantorID)](HSAccountService& service, AccountReply reply) {
                   service.accountWithVantorID(vantorID, std::move(reply));
                 });
}

void AccountServiceObject::addAccountWithAuthenticationResponse(
    sdbus::Result<std::vector<WireDictionary>>&& result, WireDictionary response,
    bool makePrimary) {
  Arguments arguments;
  auto taken = arguments.authenticationResponse("response", std::move(response));
  _call(std::move(result), std::move(arguments),
        [taken = std::move(taken), makePrimary](Caller& caller, auto reply) {
          reply->setDropError(CallerTable::kLimitsExceeded, kTooManyAccounts);
          caller.service().addAccountWithAuthenticationResponse(
              taken, makePrimary, [reply](const std::shared_ptr<HSStoreAccount>& account) {
                reply->answer(wire::optionalAccount(account));
              });
        });
}

void AccountServiceObject::addAccount(sdbus::Result<>&& result, WireDictionary account) {
  Arguments arguments;
  auto taken = arguments.account("account", std::move(account));
  _call(std::move(result), std::move(arguments),
        [taken = std::move(taken)](Caller& caller, auto reply) {
          reply->setDropError(CallerTable::kLimitsExceeded, kTooManyAccounts);
          caller.service().addAccount(taken, [reply] { reply->answer(); });
        });
}

void AccountServiceObject::signInWithContext(
    sdbus::Result<bool, std::vector<WireDictionary>, std::vector<WireError>>&& result,
    WireDictionary context) {
  Arguments arguments;
  auto taken = arguments.authenticationContext("context", std::move(context));
  _call(std::move(result), std::move(arguments),
        [taken = std::move(taken)](Caller& caller, auto reply) {
          caller.service().signInWithContext(
              taken, [reply](bool success, const std::shared_ptr<HSStoreAccount>& account,
                             const std::optional<Error>& error) {
                reply->answer(success, wire::optionalAccount(account), wire::optionalError(error));
              });
        });
}

void AccountServiceObject::signOut(sdbus::Result<>&& result) {
  _call(std::move(result), {},
        [](Caller& caller, auto reply) { caller.service().signOut([reply] { reply->answer(); }); });
}

void AccountServiceObject::parseCreditStringForProtocol(sdbus::Result<>&& result,
                                                        WireDictionary protocol) {
  Arguments arguments;
  auto taken = arguments.protocol("protocol", std::move(protocol));
  _call(std::move(result), std::move(arguments),
        [taken = std::move(taken)](Caller& caller, auto reply) {
          caller.service().parseCreditStringForProtocol(taken, [reply] { reply->answer(); });
        });
}

void AccountServiceObject::addAccountStoreObserver(sdbus::Result<>&& result,
                                                   sdbus::ObjectPath observer) {
  _call(std::move(result), {}, [path = std::string(observer)](Caller& caller, auto reply) {
    if (auto proxy = caller.accountObserverAt(path)) {
      caller.service().addAccountStoreObserver(std::move(proxy), [reply] { reply->answer(); });
    } else {
      reply->fail(CallerTable::kLimitsExceeded, "too many observers of this connection");
    }
  });
}

void AccountServiceObject::removeAccountStoreObserver(sdbus::Result<>&& result,
                                                      sdbus::ObjectPath observer) {
  _call(std::move(result), {}, [path = std::string(observer)](Caller& caller, auto reply) {
    if (auto proxy = caller.takeAccountObserverAt(path)) {
      caller.service().removeAccountStoreObserver(std::move(proxy), [reply] { reply->answer(); });
    } else {
      reply->answer();
    }
  });
}

void AccountServiceObject::eligibilityForService(sdbus::Result<std::vector<WireValue>>&& result,
                                                 std::uint64_t service) {
  _call(std::move(result), {}, [service](Caller& caller, auto reply) {
    caller.service().eligibilityForService(service, [reply](std::optional<bool> eligible) {
      reply->answer(wire::optionalValue(eligible));
    });
  });
}

void AccountServiceObject::getEligibilityForService(
    sdbus::Result<bool, std::vector<WireError>>&& result, std::uint64_t service) {
  _call(std::move(result), {}, [service](Caller& caller, auto reply) {
    caller.service().getEligibilityForService(
        service, [reply](bool eligible, const std::optional<Error>& error) {
          reply->answer(eligible, wire::optionalError(error));
        });
  });
}

void AccountServiceObject::retailStoreDemoMode(
    sdbus::Result<bool, std::vector<std::string>, std::vector<std::string>, bool>&& result) {
  _call(std::move(result), {}, [](Caller& caller, auto reply) {
    caller.service().retailStoreDemoMode([reply](bool demoMode, std::optional<std::string> name,
                                                 std::optional<std::string> password,
                                                 bool autoLogin) {
      reply->answer(demoMode, wire::optionalString(std::move(name)),
                    wire::optionalString(std::move(password)), autoLogin);
    });
  });
}

void AccountServiceObject::nimboDSID(sdbus::Result<std::vector<std::string>>&& result) {
  _call(std::move(result), {}, [](Caller& caller, auto reply) {
    caller.service().nimboDSID([reply](std::optional<std::string> dsID) {
      reply->answer(wire::optionalString(std::move(dsID)));
    });
  });
}

void AccountServiceObject::recommendedVantorIDForAccountSignIn(
    sdbus::Result<std::vector<std::string>>&& result) {
  _call(std::move(result), {}, [](Caller& caller, auto reply) {
    caller.service().recommendedVantorIDForAccountSignIn([reply](std::optional<std::string> name) {
      reply->answer(wire::optionalString(std::move(name)));
    });
  });
}

}  // namespace tallow
