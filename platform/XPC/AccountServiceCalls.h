#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/Base/Activity.h"
#include "platform/VendBase/HSAuthenticationResponse.h"
#include "platform/VendBase/HSStoreAccount.h"
#include "platform/XPC/AccountServiceObject.h"

// What the operations of AccountServiceObject, which are spread over several files, have in common.

namespace tallow {

// The arguments of one call while they are turned into the system's types: remembers the first that
// is outside its domain, and counts what they hold.
class AccountServiceObject::Arguments {
 public:
  const std::string& text(const char* name, const std::string& value) {
    _bytes += value.size();
    if (value.size() > kMaxTextBytes) _refuse(name, "is longer than 1 MiB");
    return value;
  }

  // Text that does not parse is nil: the operations answer for a nil URL.
  std::optional<URL> url(const char* name, const std::string& value) {
    text(name, value);
    return value.empty() || !isFine() ? std::nullopt : URL::parse(value);
  }

  template <class T>
  std::optional<T> atMostOne(const char* name, std::vector<T>&& list) {
    if (list.size() > 1) _refuse(name, "has more than one element");
    if (list.empty()) return std::nullopt;
    return std::move(list.front());
  }

  Dictionary dictionary(const char* name, WireDictionary&& value) {
    _bytes += value.heldBytes;
    if (!value.refusal.empty()) _refuse(name, value.refusal);
    return std::move(value.value);
  }

  // An account's record. One without a DSID could not be found again: refused.
  std::shared_ptr<HSStoreAccount> account(const char* name, WireDictionary&& value) {
    auto account =
        HSStoreAccount::initWithPersistedStoreDictionary(dictionary(name, std::move(value)));
    if (!account->dsID()) _refuse(name, "has no dsid");
    for (const auto& text : {account->identifier(), account->storeFront(), account->creditString()})
      if (text && text->size() > HSAuthenticationResponse::kMaxTextBytes)
        _refuseLongAccountText(name);
    return account;
  }

  HSAuthenticationResponse authenticationResponse(const char* name, WireDictionary&& value) {
    HSAuthenticationResponse response(protocol(name, std::move(value)));
    if (!response.dsID()) _refuse(name, "has neither dsPersonId nor dsid");
    return response;
  }

  // A store's answer, of which texts may go into an account's record.
  Dictionary protocol(const char* name, WireDictionary&& value) {
    Dictionary answer = dictionary(name, std::move(value));
    if (HSAuthenticationResponse(answer).hasTooLongText()) _refuseLongAccountText(name);
    return answer;
  }

  // What a person is shown, and another process is sent.
  HSAuthenticationContext authenticationContext(const char* name, WireDictionary&& value) {
    auto context = HSAuthenticationContext::initWithDictionary(dictionary(name, std::move(value)));
    for (const auto& text : {context.identifier, context.title, context.message})
      if (text && text->size() > HSAuthenticationResponse::kMaxTextBytes)
        _refuseLongAccountText(name);
    return context;
  }

  std::size_t bytes() const { return _bytes; }
  bool isFine() const { return _refusal.empty(); }
  const std::string& refusal() const { return _refusal; }

 private:
  void _refuseLongAccountText(const char* name) {
    _refuse(name, "has a text of more than 4 KiB in it");
  }
  void _refuse(const char* name, const std::string& why) {
    if (isFine()) _refusal = std::string(name) + ": " + why;
  }

  std::size_t _bytes = 0;
  std::string _refusal;
};

// Who calls is judged first, what the arguments are after it.
template <class... Results, class Invoke>
void AccountServiceObject::_call(sdbus::Result<Results...>&& result, Arguments arguments,
                                 Invoke invoke, std::uint32_t maxWaiting) {
  const std::size_t bytes = arguments.bytes();
  sd_bus_message* const call = bus::currentMessage(getObject());
  _callers.deliver(
      call, std::move(result), bytes,
      // The name lives as long as the message, which the reply keeps.
      [arguments = std::move(arguments), invoke = std::move(invoke),
       operation = sd_bus_message_get_member(call)](
          Caller& caller, std::shared_ptr<PendingReply<Results...>> reply) mutable {
        if (arguments.isFine()) {
          const Activity::Scope scope(caller.identifier(), operation);
          invoke(caller, reply);
        } else {
          reply->fail(CallerTable::kInvalidArgs, arguments.refusal());
        }
      },
      maxWaiting);
}

}  // namespace tallow
