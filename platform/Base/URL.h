#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tallow {

// An absolute URL that the HTTP library itself has parsed. The trust decision, the cookie rules and
// the fetch all read the host from this one parse, so they can never disagree on it: userinfo,
// backslashes, percent-escapes, control characters, IDNA, IPv6 and trailing dots are read once, by
// the parser that will also connect. What that parser refuses, and what it would have to guess at,
// is no URL (parse() answers nullopt).
//
// "data:" and other non-network URLs parse too; they have a scheme and no host.
// Immutable; safe to read from any thread at once.
class URL {
 public:
  static std::optional<URL> parse(std::string_view text);

  // The text the URL was made from, unchanged.
  const std::string& absoluteString() const { return _text; }
  // The scheme exactly as written ("HTTPS" stays "HTTPS"); policy decisions compare it exactly.
  const std::string& scheme() const { return _scheme; }
  // The host as the fetch will use it (percent-escapes decoded, IDNA in its ASCII form, IPv6
  // without brackets), letters in the case they were written in; empty when the URL has none.
  const std::string& host() const { return _host; }
  // host() in lower case without a trailing dot: what cookies and connection are keyed by.
  const std::string& canonicalHost() const { return _canonicalHost; }
  bool hostIsIPAddress() const { return _hostIsIPAddress; }
  // The port, explicit or the scheme's default; 0 when neither exists.
  int port() const { return _port; }
  // The path as it will be sent, "/" when the text has none.
  const std::string& path() const { return _path; }
  // Without the "?"; nullopt when the text has no query.
  const std::optional<std::string>& query() const { return _query; }
  // The last segment of the path ("" for "/").
  std::string lastPathComponent() const;

  // `addition` ("name=value") appended to the query with "?" or "&", before any fragment.
  URL urlByAddingStringToQueryString(std::string_view addition) const;
  // A reference ("Location" of a redirect) resolved against this URL; nullopt if refused.
  std::optional<URL> resolving(std::string_view reference) const;

  friend bool operator==(const URL& a, const URL& b) { return a._text == b._text; }

 private:
  URL() = default;
  bool parseOpaqueURL(std::string_view rest, bool isData);
  bool parseNetworkURL(std::string_view rest);
  bool takeHost(std::string host);

  std::string _text, _scheme, _host, _canonicalHost, _path;
  std::optional<std::string> _query;
  int _port = 0;
  bool _hostIsIPAddress = false;
};

inline const std::string& description(const URL& url) {
  return url.absoluteString();
}

}  // namespace tallow
