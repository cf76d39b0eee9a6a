#pragma once

#include "platform/Base/URL.h"
#include "platform/Base/Value.h"

namespace tallow {

// The questions that a bag's policy keys answer about a URL, as pure functions of one bag
// dictionary. Each question is answered from one and the same dictionary. Wrong value types never
// raise: a value of the wrong type counts as absent. Any thread may call.
namespace BagPolicy {

// "data" URLs always; otherwise true when an entry of "trustedDomains" is a suffix of the host:
// case counts, and there is no label boundary (an entry "example.com" also trusts
// "badexample.com"). The bags in the field are written for exactly this rule: those that want a
// boundary start their entries with a dot. The scheme is not looked at.
bool urlIsTrusted(const Dictionary& bag, const URL& url);

// "amd-domains": host patterns with * and ?, without regard to case.
bool urlRequiresAMD(const Dictionary& bag, const URL& url);

// "md-data-requested" names bag keys (eleven by default) whose URLs need account machine data; they
// are compared up to their "?".
bool urlRequiresMD(const Dictionary& bag, const URL& url);

// "guid-urls"; without it, every "https" URL.
bool sendGUIDWithURL(const Dictionary& bag, const URL& url);

}  // namespace BagPolicy

}  // namespace tallow
