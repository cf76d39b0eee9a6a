#include <unistd.h>

#include "platform/Concurrency/WorkerPool.h"
#include "platform/PropertyList/JSON.h"
#include "platform/XPC/AccountServiceCalls.h"

namespace tallow {

AccountServiceObject::AccountServiceObject(sdbus::IConnection& connection, CallerTable& callers,
                                           std::shared_ptr<const StatusProvider> status)
    : AdaptorInterfaces(connection, sdbus::ObjectPath{kPath}),
      _callers(callers),
      _status(std::move(status)) {
  registerAdaptor();
}

AccountServiceObject::~AccountServiceObject() {
  unregisterAdaptor();
}

template <class Operation>
void AccountServiceObject::_askAboutURL(sdbus::Result<bool>&& result, const std::string& url,
                                        Operation operation) {
  Arguments arguments;
  auto parsed = arguments.url("url", url);
  _call(std::move(result), std::move(arguments),
        [parsed = std::move(parsed), operation](Caller& caller, auto reply) mutable {
          (caller.service().*operation)(std::move(parsed),
                                        [reply](bool answer) { reply->answer(answer); });
        });
}

// Bag

void AccountServiceObject::valueForURLBagKey(sdbus::Result<std::vector<WireValue>>&& result,
                                             std::string key) {
  Arguments arguments;
  arguments.text("key", key);
  _call(std::move(result), std::move(arguments),
        [key = std::move(key)](Caller& caller, auto reply) mutable {
          caller.service().valueForURLBagKey(std::move(key), [reply](Value value) {
            reply->answer(wire::optionalValue(std::move(value)));
          });
        });
}

void AccountServiceObject::urlIsTrustedByURLBag(sdbus::Result<bool>&& result, std::string url) {
  _askAboutURL(std::move(result), url, &HSAccountService::urlIsTrustedByURLBag);
}

void AccountServiceObject::needsSilentOrvActionForURL(sdbus::Result<bool>&& result,
                                                      std::string url) {
  _askAboutURL(std::move(result), url, &HSAccountService::needsSilentOrvActionForURL);
}

void AccountServiceObject::loadURLBagWithType(
    sdbus::Result<bool, bool, std::vector<WireError>>&& result, std::uint64_t bagType) {
  _call(std::move(result), {}, [bagType](Caller& caller, auto reply) {
    caller.service().loadURLBagWithType(
        bagType, [reply](bool valid, bool success, const std::optional<Error>& error) {
          reply->answer(valid, success, wire::optionalError(error));
        });
  });
}

void AccountServiceObject::invalidateAllBags(sdbus::Result<>&& result) {
  _call(std::move(result), {}, [](Caller& caller, auto reply) {
    caller.service().invalidateAllBags([reply] { reply->answer(); });
  });
}

void AccountServiceObject::regexWithKey(sdbus::Result<bool>&& result, std::string key,
                                        std::string matchesString) {
  Arguments arguments;
  arguments.text("key", key);
  arguments.text("matchesString", matchesString);
  _call(std::move(result), std::move(arguments),
        [key = std::move(key), matchesString = std::move(matchesString)](Caller& caller,
                                                                         auto reply) mutable {
          caller.service().regexWithKey(std::move(key), std::move(matchesString),
                                        [reply](bool matches) { reply->answer(matches); });
        });
}

void AccountServiceObject::isValid(sdbus::Result<bool>&& result) {
  _call(std::move(result), {}, [](Caller& caller, auto reply) {
    caller.service().isValid([reply](bool valid) { reply->answer(valid); });
  });
}

void AccountServiceObject::dictionary(sdbus::Result<std::vector<WireDictionary>>&& result) {
  _call(std::move(result), {}, [](Caller& caller, auto reply) {
    caller.service().dictionary([reply](std::optional<Dictionary> dictionary) {
      reply->answer(wire::optionalDictionary(std::move(dictionary)));
    });
  });
}

void AccountServiceObject::addURLBagObserver(sdbus::Result<>&& result, sdbus::ObjectPath observer) {
  _call(std::move(result), {}, [path = std::string(observer)](Caller& caller, auto reply) {
    if (auto proxy = caller.observerAt(path)) {
      caller.service().addURLBagObserver(std::move(proxy), [reply] { reply->answer(); });
    } else {
      reply->fail(CallerTable::kLimitsExceeded, "too many observers of this connection");
    }
  });
}

void AccountServiceObject::removeURLBagObserver(sdbus::Result<>&& result,
                                                sdbus::ObjectPath observer) {
  _call(std::move(result), {}, [path = std::string(observer)](Caller& caller, auto reply) {
    if (auto proxy = caller.takeObserverAt(path)) {
      caller.service().removeURLBagObserver(std::move(proxy), [reply] { reply->answer(); });
    } else {
      reply->answer();
    }
  });
}

void AccountServiceObject::shouldSendGUIDWithRequestForURL(sdbus::Result<bool>&& result,
                                                           std::string url) {
  _askAboutURL(std::move(result), url, &HSAccountService::shouldSendGUIDWithRequestForURL);
}

// Cookies and request headers

void AccountServiceObject::consumeCookiesWithHTTPHeaders(sdbus::Result<>&& result,
                                                         WireDictionary headers,
                                                         std::string fromURL) {
  Arguments arguments;
  auto taken = arguments.dictionary("headers", std::move(headers));
  auto url = arguments.url("fromURL", fromURL);
  _call(std::move(result), std::move(arguments),
        [taken = std::move(taken), url = std::move(url)](Caller& caller, auto reply) mutable {
          caller.service().consumeCookiesWithHTTPHeaders(std::move(taken), std::move(url),
                                                         [reply] { reply->answer(); });
        });
}

void AccountServiceObject::httpHeadersForURL(sdbus::Result<WireHeaders>&& result, std::string url,
                                             std::vector<std::uint64_t> forDSID,
                                             bool includeOrvHeaders) {
  Arguments arguments;
  auto parsed = arguments.url("url", url);
  const auto dsid = arguments.atMostOne("forDSID", std::move(forDSID));
  _call(std::move(result), std::move(arguments),
        [parsed = std::move(parsed), dsid, includeOrvHeaders](Caller& caller, auto reply) mutable {
          caller.service().httpHeadersForURL(
              std::move(parsed), dsid, includeOrvHeaders,
              [reply](Dictionary headers) { reply->answer(WireHeaders{std::move(headers)}); });
        });
}

void AccountServiceObject::deleteAllCookies(sdbus::Result<>&& result) {
  _call(std::move(result), {}, [](Caller& caller, auto reply) {
    caller.service().deleteAllCookies([reply] { reply->answer(); });
  });
}

// Storefront

void AccountServiceObject::storeFront(sdbus::Result<std::vector<std::string>>&& result) {
  _call(std::move(result), {}, [](Caller& caller, auto reply) {
    caller.service().storeFront([reply](std::optional<std::string> storeFrontID) {
      reply->answer(wire::optionalString(std::move(storeFrontID)));
    });
  });
}

void AccountServiceObject::setStoreFrontID(sdbus::Result<>&& result,
                                           std::vector<std::string> storeFrontID) {
  Arguments arguments;
  for (const auto& text : storeFrontID) arguments.text("storeFrontID", text);
  auto taken = arguments.atMostOne("storeFrontID", std::move(storeFrontID));
  _call(std::move(result), std::move(arguments),
        [taken = std::move(taken)](Caller& caller, auto reply) mutable {
          caller.service().setStoreFrontID(std::move(taken), [reply] { reply->answer(); });
        });
}

// The connection

void AccountServiceObject::actAs(sdbus::Result<>&& result, std::string identifier) {
  Arguments arguments;
  arguments.text("identifier", identifier);
  _call(std::move(result), std::move(arguments),
        [this, identifier = std::move(identifier)](Caller& caller, auto reply) mutable {
          _callers.actAs(caller, std::move(identifier),
                         [reply](const char* errorName, const std::string& errorText) {
                           if (errorName == nullptr) {
                             reply->answer();
                           } else {
                             reply->fail(errorName, errorText);
                           }
                         });
        });
}

void AccountServiceObject::Describe(sdbus::Result<std::string>&& result) {
  _call(std::move(result), {}, [this](Caller& asking, auto reply) {
    // The rest of the status asks the system's objects, which may be busy.
    const std::uint32_t uid = asking.connection().uid;
    WorkerPool::shared().async([status = _status, reply, callers = _callers.describeTo(uid),
                                seesAll = uid == 0 || uid == geteuid()] {
      Dictionary all = *status ? (*status)() : Dictionary();
      // Failures name the clients and files of whoever had them.
      if (!seesAll) all = all.removing("failures");
      reply->answer(JSON::encode(all.setting("callers", callers)));
    });
  });
}

}  // namespace tallow
