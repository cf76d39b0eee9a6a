#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tallow {

// An absolute URL as the HTTP library parses it (an address with nothing in it that parsers could
// differ on is read without asking it). The trust decision, the cookie rules and
// the fetch all read the host from this one parse, so they can never disagree on it. What that
// parser refuses, and what it would have to guess at, is no URL (parse() answers nullopt):
//
// - Userinfo is allowed and never part of the host; a second '@' is refused.
// - A backslash is refused between "//" and the path, where others read it as a slash.
// - White space, control characters and NUL are refused anywhere.
// - Percent-escapes in the host are decoded; the result is letters, digits, '-', '_' and '.', or
//   UTF-8 that IDNA takes, which gives its ASCII form.
// - "http:" and "https:" are followed by exactly two slashes.
// - One dot at the end stays part of host(); empty labels are refused.
// - Any spelling of an IPv4 address gives its dotted form; a name that ends in a number without
//   being an address is refused. IPv6 has no zone.
// - "data:" and other URLs without "//" have a scheme and no host; refused where the library would
//   take them for an address without a scheme ("localhost:80", "user:pass@host").
// - At most 64 KiB; 8 MB of "data:".
//
// Immutable; safe to read from any thread at once, and so is parsing.
class URL {
 public:
  static std::optional<URL> parse(std::string_view text);
  // Everything but unreserved characters (RFC 3986 section 2.3) escaped: a name or a value of a
  // query.
  static std::string percentEncoded(std::string_view text);

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
  // The last segment of the path that is not empty ("" for "/", "b" for "/a/b/").
  std::string lastPathComponent() const;

  // `addition` ("name=value") appended to the query with "?" or "&", before any fragment; what
  // cannot stand in a query is escaped. The URL itself where the result would be too long for one.
  URL urlByAddingStringToQueryString(std::string_view addition) const;
  // A reference ("Location" of a redirect) resolved against this URL; nullopt if refused.
  std::optional<URL> resolving(std::string_view reference) const;

  friend bool operator==(const URL& a, const URL& b) { return a._text == b._text; }

 private:
  URL() = default;
  bool parsePlainURL(std::string_view rest);
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
