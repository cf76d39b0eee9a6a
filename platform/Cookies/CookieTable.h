#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Base/Date.h"
#include "platform/Base/URL.h"
#include "platform/Cookies/CookieChanges.h"
#include "platform/Cookies/CookieDomain.h"
#include "platform/Cookies/CookieIndex.h"

namespace tallow {

// The cookies of one jar in memory, and what of them its file has not got yet. The cookies of a URL
// are found in time that depends on the labels of the host and the cookies of its domains, not on
// the size of the jar.
//
// Knows no disk and no rules but those of sending and eviction. Owned by a jar, which serialises
// access.
class CookieTable {
 public:
  using Entry = CookieDomain::Entry;

  // A cookie to send.
  struct Match {
    CookieDomain* domain;
    std::size_t index;

    const Entry& entry() const { return domain->entry(index); }
    const Cookie& cookie() const { return domain->cookie(index); }
    CookiePointer share() const { return domain->share(index); }
  };
  // The cookies to send to `url` at `now`, in order, each marked as used. Valid until the next call
  // of a member that is not const.
  std::span<const Match> match(const URL& url, bool secureAllowed, Date now);

  // Whether a non-secure cookie set from a non-secure origin would hide or shadow a Secure one.
  bool overlaysSecureCookie(const Cookie& cookie) const;

  std::size_t count() const { return _count; }
  std::size_t countUnexpired(Date now) const;
  std::size_t countInDomain(std::string_view domain) const;

  // Stores a new cookie, in the place of the one with its identity if there is one: that one's
  // creation time and turn are kept.
  void put(Cookie cookie, Date now);
  void remove(const Cookie& identity);
  void removeAll();
  void removeExpired(Date now);
  // The least recently used go first; those that are not Secure before those that are.
  void trimDomain(std::string_view domain, std::size_t limit);
  // The least recently used go first.
  void trim(std::size_t limit);

  // Takes in the cookies of the file in the place of its own, but for what is unsaved, which comes
  // on top.
  void reload(std::vector<StoredCookie> rows);
  // Where the file is lost: everything is unsaved.
  void forgetFile();
  bool isSaved() const { return !_allRemoved && _removals.empty() && _unsavedDomains.empty(); }
  // What makes the file the same as the table, but for times of use. Valid until the next change.
  CookieChanges unsaved() const;
  void markAsSaved();
  // The times of use that the file has not got. Valid until the next change.
  CookieChanges unsavedUses() const;
  void markUsesAsSaved();

 private:
  // Orders names from their last character backwards, so that the subdomains of a domain follow it.
  struct BackwardsLess {
    bool operator()(std::string_view a, std::string_view b) const;
  };

  Entry& _insert(Cookie cookie, const CookieRecord& record);
  template <class Condition>
  void _removeIf(CookieDomain& domain, Condition condition);
  template <class Condition>
  void _removeIf(Condition condition);
  void _clear();
  std::int64_t _nextTick(Date now);

  CookieIndex _domains;
  std::set<std::string_view, BackwardsLess> _names;  // of _domains
  std::size_t _count = 0;
  std::int64_t _lastSequence = 0;
  std::int64_t _lastTick = 0;
  double _earliestExpiry = std::numeric_limits<double>::infinity();  // a lower bound
  std::vector<Match> _matches, _merged;  // of the latest match(); kept for their capacity

  bool _allRemoved = false;               // from the file, before everything below
  std::vector<Cookie> _removals;          // of rows that the file holds
  std::set<std::string> _unsavedDomains;  // with entries to put
};

}  // namespace tallow
