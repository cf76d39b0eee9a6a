#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "platform/VendBase/HSStoreAccount.h"
#include "platform/XPC/WireTypes.h"

namespace tallow::wire {

// An account as it travels: its record, which holds no token. Nothing for a null account and for
// one without a DSID, which has no record.
inline std::vector<WireDictionary> optionalAccount(const std::shared_ptr<HSStoreAccount>& account) {
  return optionalDictionary(account ? account->persistedStoreDictionary() : std::nullopt);
}

inline std::vector<WireDictionary> accountList(
    const std::vector<std::shared_ptr<HSStoreAccount>>& accounts) {
  std::vector<WireDictionary> list;
  list.reserve(accounts.size());
  for (const auto& account : accounts)
    for (WireDictionary& record : optionalAccount(account)) list.push_back(std::move(record));
  return list;
}

}  // namespace tallow::wire
