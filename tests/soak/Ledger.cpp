#include "tests/soak/Ledger.h"

#include <charconv>
#include <chrono>
#include <cstdio>

namespace tallow {

namespace {

// As many as make a write worth interrupting, and no more.
constexpr std::uint64_t kAccounts = 100;
constexpr std::chrono::minutes kPatience{5};

// The number behind `prefix` in a text; 0 where there is none.
std::uint64_t numberAfter(const std::string& prefix, const std::string& text) {
  const std::size_t at = text.find(prefix);
  std::uint64_t number = 0;
  if (at != std::string::npos)
    std::from_chars(text.data() + at + prefix.size(), text.data() + text.size(), number);
  return number;
}

std::string textOf(const Value& value) {
  return value.string() != nullptr ? *value.string() : std::string();
}

}  // namespace

Ledger::Ledger(SoakWorld& world, SoakCalls& calls, int number)
    : _world(world), _calls(calls), _number(number), _thread([this] { run(); }) {}

void Ledger::end() {
  {
    const std::lock_guard lock(_lock);
    _isEnding = true;
    _changed.notify_all();
  }
  if (_thread.joinable()) _thread.join();
}

void Ledger::pause() {
  std::unique_lock lock(_lock);
  _mayWork = false;
  _changed.wait(lock, [this] { return !_works; });
}

void Ledger::resume() {
  const std::lock_guard lock(_lock);
  _mayWork = true;
  _changed.notify_all();
}

void Ledger::run() {
  std::uint64_t seen = 0;
  look();
  for (bool isEnding = false; !isEnding;) {
    const bool isWhole = changeEverything();
    if (const std::uint64_t kills = _world.kills(); kills != seen) {
      look();
      seen = kills;
    }
    std::unique_lock lock(_lock);
    if (isWhole) ++_rounds;
    _lookedAfter = seen;
    _works = _mayWork;
    _changed.notify_all();
    _changed.wait(lock, [this] { return _mayWork || _isEnding; });
    _works = true;
    isEnding = _isEnding;
  }
  look();
}

// Until the service has been killed.
bool Ledger::changeEverything() {
  const std::uint64_t kills = _world.kills();
  bool isWhole = true;
  for (const auto step : {&Ledger::changeAccount, &Ledger::changePrimary, &Ledger::changeCookie,
                          &Ledger::changeStorefront})
    isWhole = _world.kills() == kills && (this->*step)() && isWhole;
  return isWhole;
}

template <class Call>
bool Ledger::change(const char* name, double seconds, Version& version, Call call) {
  const std::uint64_t next = ++version.tried;
  if (!_calls.make(name, seconds, [&] { return call(next); })) return false;
  version.acknowledged = next;
  keepChange();
  return true;
}

void Ledger::keepChange() {
  const std::lock_guard lock(_lock);
  ++_changes;
  _changed.notify_all();
}

bool Ledger::changeAccount() {
  const std::uint64_t dsID = 1 + _turn++ % kAccounts;
  return change("addAccount", 25, _accounts[dsID], [&](std::uint64_t version) {
    const std::string text = "version " + std::to_string(version);
    return _client.addAccount({{"dsid", dsID}, {"identifier", text}, {"creditstring", text}});
  });
}

// In and out again; as an account of its own, so that its record is nobody else's.
bool Ledger::changePrimary() {
  const bool signsOut = _turn % 3 == 0;
  const std::uint64_t dsID = signsOut ? 0 : 1000 + _turn % 2;
  _maybePrimary.insert(dsID);
  const bool isDone =
      signsOut
          ? _calls.make("signOut", 25, [&] { return _client.signOut(); })
          : _calls.make("addAccountWithAuthenticationResponse", 25, [&] {
              return _client.addAccountWithAuthenticationResponse(
                  {{"dsPersonId", dsID}, {"identifier", "who signs in"}, {"token", "t"}}, true);
            });
  if (!isDone) return false;
  _primary = dsID;
  _maybePrimary.clear();
  keepChange();
  return true;
}

bool Ledger::changeCookie() {
  return change("consumeCookies", 180, _cookie, [&](std::uint64_t version) {
    const std::string cookie = "soak=" + std::to_string(version) + "; Max-Age=86400; Path=/";
    return _client.consumeCookiesWithHTTPHeaders({{"Set-Cookie", cookie}},
                                                 _world.storeURL("/store/soak"));
  });
}

bool Ledger::changeStorefront() {
  return change("setStoreFrontID", 180, _storefront, [&](std::uint64_t version) {
    return _client.setStoreFrontID("front " + std::to_string(version));
  });
}

// Until the service answers all of it: it may be killed again meanwhile.
void Ledger::look() {
  while (!tryToLook()) continue;
}

bool Ledger::tryToLook() {
  std::vector<Dictionary> records;
  std::optional<Dictionary> primary;
  Dictionary headers;
  const auto ask = [&](const char* name, double seconds, auto& into, auto call) {
    return _calls.make(name, seconds, [&] {
      auto answer = call();
      if (answer) into = *answer;
      return answer;
    });
  };
  std::optional<std::string> front;
  const bool isAnswered =
      _calls.make("actAs", 25, [&] { return _client.actAs(SoakWorld::client(_number)); }) &&
      ask("accounts", 25, records, [&] { return _client.accounts(); }) &&
      ask("primaryAccount", 25, primary, [&] { return _client.primaryAccount(); }) &&
      ask("storeFront", 180, front, [&] { return _client.storeFront(); }) &&
      ask("httpHeaders", 300, headers, [&] {
        return _client.httpHeadersForURL(_world.storeURL("/store/soak"), std::nullopt, false);
      });
  if (!isAnswered) return false;
  lookAtAccounts(records);
  const std::uint64_t dsID = primary ? (*primary)["dsid"].unsignedValue() : 0;
  if (dsID != _primary && !_maybePrimary.contains(dsID))
    report("primary account " + std::to_string(dsID) + ", not " + std::to_string(_primary));
  _primary = dsID;
  _maybePrimary.clear();
  lookAt("cookie", _cookie, numberAfter("soak=", textOf(headers["Cookie"])));
  lookAt("storefront", _storefront, numberAfter("front ", front.value_or("")));
  return true;
}

void Ledger::lookAtAccounts(const std::vector<Dictionary>& records) {
  std::map<std::uint64_t, std::uint64_t> found;
  for (const Dictionary& record : records) {
    const std::uint64_t dsID = record["dsid"].unsignedValue();
    if (dsID > kAccounts) continue;
    const std::uint64_t version = numberAfter("version ", textOf(record["identifier"]));
    if (version != numberAfter("version ", textOf(record["creditstring"])))
      report("account " + std::to_string(dsID) + " is half there");
    if (!found.emplace(dsID, version).second)
      report("account " + std::to_string(dsID) + " is there twice");
  }
  for (auto& [dsID, version] : _accounts)
    lookAt(("account " + std::to_string(dsID)).c_str(), version,
           found.contains(dsID) ? found[dsID] : 0);
}

void Ledger::lookAt(const char* what, Version& version, std::uint64_t found) {
  if (!version.allows(found))
    report(std::string(what) + ": version " + std::to_string(found) + ", not " +
           std::to_string(version.acknowledged) + " to " + std::to_string(version.tried));
  version.acknowledged = found;
  version.tried = std::max(version.tried, found);
}

void Ledger::report(const std::string& what) {
  std::fprintf(stderr, "soak: LOST by %s after %llu kills: %s\n",
               SoakWorld::client(_number).c_str(), static_cast<unsigned long long>(_world.kills()),
               what.c_str());
  const std::lock_guard lock(_lock);
  ++_lost;
}

std::uint64_t Ledger::changes() const {
  const std::lock_guard lock(_lock);
  return _changes;
}

std::uint64_t Ledger::lost() const {
  const std::lock_guard lock(_lock);
  return _lost;
}

template <class Condition>
bool Ledger::waitUntil(Condition condition) {
  std::unique_lock lock(_lock);
  return _changed.wait_for(lock, kPatience, condition);
}

bool Ledger::waitForChanges(std::uint64_t count) {
  return waitUntil([this, until = changes() + count] { return _changes >= until; });
}

bool Ledger::waitForLook(std::uint64_t kills) {
  return waitUntil([this, kills] { return _lookedAfter >= kills; });
}

// The round that is going on may have begun before.
bool Ledger::waitForWholeRound() {
  const std::uint64_t until = [this] {
    const std::lock_guard lock(_lock);
    return _rounds + 2;
  }();
  return waitUntil([this, until] { return _rounds >= until; });
}

}  // namespace tallow
