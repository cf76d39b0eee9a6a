#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "client/AccountServiceClient.h"
#include "tests/soak/SoakCalls.h"
#include "tests/soak/SoakWorld.h"

namespace tallow {

// One store client that keeps account of what it has been told is done: changes accounts, who is
// signed in, a cookie and the storefront, one after the other, and looks after each kill of the
// service, and at the end, whether every acknowledged change is there and none is half there. Of a
// change whose answer never came either outcome will do. Works on a thread of its own.
class Ledger {
 public:
  Ledger(SoakWorld& world, SoakCalls& calls, int number);
  ~Ledger() { end(); }
  Ledger(const Ledger&) = delete;
  Ledger& operator=(const Ledger&) = delete;

  // Returns when it does nothing any more, until it is resumed.
  void pause();
  void resume();
  // Looks a last time.
  void end();

  // Acknowledged changes so far, and what was missing of them.
  std::uint64_t changes() const;
  std::uint64_t lost() const;
  // Returns when so many more changes have been acknowledged. False when that takes too long.
  bool waitForChanges(std::uint64_t count);
  // Returns when it has looked after that many kills.
  bool waitForLook(std::uint64_t kills);
  // Returns when it has changed each thing once, all acknowledged, from now on.
  bool waitForWholeRound();

 private:
  // What was acknowledged last, and what has been tried since.
  struct Version {
    std::uint64_t acknowledged = 0;
    std::uint64_t tried = 0;
    bool allows(std::uint64_t found) const { return found >= acknowledged && found <= tried; }
  };

  void run();
  bool changeEverything();
  bool changeAccount();
  bool changePrimary();
  bool changeCookie();
  bool changeStorefront();
  template <class Call>
  bool change(const char* name, double seconds, Version& version, Call call);
  void keepChange();
  void look();
  bool tryToLook();
  void lookAtAccounts(const std::vector<Dictionary>& records);
  void lookAt(const char* what, Version& version, std::uint64_t found);
  void report(const std::string& what);
  template <class Condition>
  bool waitUntil(Condition condition);

  SoakWorld& _world;
  SoakCalls& _calls;
  const int _number;
  AccountServiceClient _client{AccountServiceClient::Instance::Agent};

  // The thread's own.
  std::uint64_t _turn = 0;
  std::map<std::uint64_t, Version> _accounts;
  std::uint64_t _primary = 0;             // acknowledged; 0: nobody
  std::set<std::uint64_t> _maybePrimary;  // tried since
  Version _cookie, _storefront;

  mutable std::mutex _lock;
  std::condition_variable _changed;
  std::uint64_t _changes = 0, _lost = 0, _rounds = 0, _lookedAfter = 0;
  bool _mayWork = true, _works = true, _isEnding = false;
  std::thread _thread;
};

}  // namespace tallow
