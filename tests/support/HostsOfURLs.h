#pragma once

#include <vector>

namespace tallow {

// URLs, without their scheme, of one host: also written in ways that could have a reader take
// another for it.
struct HostOfURLs {
  const char *host, *canonicalHost;
  bool isAddress;
  std::vector<const char*> urls;
};

inline const std::vector<HostOfURLs> kHostsOfURLs = {
    {"good.example",
     "good.example",
     false,
     {"//good.example", "//good.example/a/../b", "//good.example:/", "//good.example:80/",
      "//evil.example@good.example/", "//evil:pass%40word@good.example/", "//%67ood.example/",
      "//good%2Eexample/", "//good.example?@evil.example/", "//good.example#@evil.example/",
      "//good.example/\\@evil.example", "//good.example/@evil.example", "//good\u3002example/"}},
    {"Good.EXAMPLE.", "good.example", false, {"//Good.EXAMPLE./x"}},
    {"evil.example",
     "evil.example",
     false,
     {"//good.example:443@evil.example/", "//good.example%2f@evil.example/"}},
    {"under_score.example", "under_score.example", false, {"//under_score.example/"}},
    {"xn--bcher-kva.example",
     "xn--bcher-kva.example",
     false,
     {"//b\u00FCcher.example/", "//B\u00DCCHER.example/", "//b%C3%BCcher.example/",
      "//xn--bcher-kva.example/"}},
    {"1.example", "1.example", false, {"//\u2460.example/"}},
    {"127.0.0.1",
     "127.0.0.1",
     true,
     {"//127.0.0.1/", "//127.1/", "//0x7f.1/", "//2130706433/", "//0177.0.0.01/",
      "//\uFF11\uFF12\uFF17.0.0.1/"}},
    {"127.0.0.1.", "127.0.0.1", true, {"//127.0.0.1./"}},
    {"::1", "::1", true, {"//[::1]/"}},
    {"2001:db8::1", "2001:db8::1", true, {"//[2001:DB8:0:0:0:0:0:1]:81/"}},
    {"::FFFF:1.2.3.4", "::ffff:1.2.3.4", true, {"//[::FFFF:1.2.3.4]/"}},
};

}  // namespace tallow
