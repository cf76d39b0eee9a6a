#include "platform/Base/URL.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <locale.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <memory>

#include "platform/Base/ASCII.h"
#include "platform/Base/LazyLibrary.h"

namespace tallow {

namespace {

// Far above any real address, and low enough that the library's quadratic corners stay short.
constexpr std::size_t kMaxURLBytes = 64 * 1024;
constexpr std::size_t kMaxDataURLBytes = 8'000'000;
constexpr std::size_t kMaxHostBytes = 254;  // RFC 1035 section 2.3.4, and a trailing dot
constexpr std::size_t kMaxSchemeBytes = 40;
constexpr unsigned kParseFlags = CURLU_NON_SUPPORT_SCHEME;

// The library's parser. Loaded by the first address that is not a plain one: the library brings two
// dozen others along, which a start that answers from what is on disk has no other use for.
struct Parser {
  decltype(&curl_url) make = nullptr;
  decltype(&curl_url_cleanup) cleanUp = nullptr;
  decltype(&curl_url_set) set = nullptr;
  decltype(&curl_url_get) get = nullptr;
  decltype(&curl_free) free = nullptr;
};

// Null where the library is missing: then only plain addresses are URLs.
const Parser* loadParser() {
  static Parser parser;
  const LazyLibrary library("libcurl.so.4");
  const bool complete =
      library.find(parser.make, "curl_url") && library.find(parser.cleanUp, "curl_url_cleanup") &&
      library.find(parser.set, "curl_url_set") && library.find(parser.get, "curl_url_get") &&
      library.find(parser.free, "curl_free");
  return complete ? &parser : nullptr;
}

const Parser* parserIfAvailable() {
  static const Parser* const kParser = loadParser();
  return kParser;
}

struct HandleCloser {
  void operator()(CURLU* handle) const { parserIfAvailable()->cleanUp(handle); }
};
using Handle = std::unique_ptr<CURLU, HandleCloser>;

struct PartCloser {
  void operator()(char* part) const { parserIfAvailable()->free(part); }
};
using Part = std::unique_ptr<char, PartCloser>;

// Null only where there is no library.
Handle newHandle() {
  const Parser* const parser = parserIfAvailable();
  if (parser == nullptr) return nullptr;
  Handle handle(parser->make());
  if (!handle) std::abort();  // out of memory
  return handle;
}

bool setURL(CURLU* handle, const char* text, unsigned flags) {
  return handle != nullptr &&
         parserIfAvailable()->set(handle, CURLUPART_URL, text, flags) == CURLUE_OK;
}

// One handle per thread: parsing is on the path of every call.
CURLU* threadHandle() {
  thread_local const Handle handle = newHandle();
  return handle.get();
}

// Null when there is no such part.
Part part(CURLU* handle, CURLUPart which, unsigned flags = 0) {
  char* text = nullptr;
  parserIfAvailable()->get(handle, which, &text, flags);
  return Part(text);
}

bool hasSpaceOrControl(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte <= 0x20 || byte == 0x7f;
  });
}

// RFC 3986 section 3.1; empty when `text` does not begin with a scheme.
std::string_view schemeOf(std::string_view text) {
  if (text.empty() || !ascii::isLetter(text.front())) return {};
  const auto end = std::find_if_not(text.begin(), text.end(), [](char c) {
    return ascii::isLetter(c) || ascii::isDigit(c) || c == '+' || c == '-' || c == '.';
  });
  const auto length = static_cast<std::size_t>(end - text.begin());
  if (end == text.end() || *end != ':' || length > kMaxSchemeBytes) return {};
  return text.substr(0, length);
}

// Whether the library would take scheme-less `text` for an address all the same ("host:80").
bool libraryWouldGuess(const std::string& text) {
  const Handle handle = newHandle();
  return !handle || setURL(handle.get(), text.c_str(), kParseFlags | CURLU_GUESS_SCHEME);
}

// The library converts names from the encoding of the thread's locale; ours are always UTF-8.
class UTF8Locale {
 public:
  UTF8Locale() : _previous(uselocale(shared())) {}
  ~UTF8Locale() { uselocale(_previous); }
  UTF8Locale(const UTF8Locale&) = delete;
  UTF8Locale& operator=(const UTF8Locale&) = delete;

 private:
  static locale_t shared() {
    static const locale_t kLocale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    return kLocale;
  }
  locale_t _previous;
};

bool isASCII(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// The host in the form in which it is looked up; empty when there is none or it cannot be looked
// up.
std::string asciiHost(CURLU* handle) {
  const Part plain = part(handle, CURLUPART_HOST);
  if (!plain) return {};
  if (isASCII(plain.get())) return plain.get();
  const UTF8Locale locale;
  const Part converted = part(handle, CURLUPART_HOST, CURLU_PUNYCODE);
  return converted ? converted.get() : std::string();
}

// The textual form of an IPv6 address that every spelling of it shares; empty for anything else.
std::string canonicalIPv6(const std::string& text) {
  in6_addr address{};
  std::array<char, INET6_ADDRSTRLEN> canonical{};
  if (inet_pton(AF_INET6, text.c_str(), &address) != 1 ||
      inet_ntop(AF_INET6, &address, canonical.data(), canonical.size()) == nullptr) {
    return {};
  }
  return canonical.data();
}

bool isIPv4(const std::string& text) {
  in_addr address{};
  return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

// Whether resolvers may take a name for a number: its last label is one.
bool endsInNumber(std::string_view name) {
  const std::string_view label = name.substr(name.rfind('.') + 1);
  return !label.empty() && ascii::isDigit(label.front()) &&
         (std::all_of(label.begin(), label.end(), ascii::isDigit) || label.starts_with("0x") ||
          label.starts_with("0X"));
}

void appendEscaped(std::string& text, char c) {
  constexpr std::string_view kHexDigits = "0123456789ABCDEF";
  const auto byte = static_cast<unsigned char>(c);
  text += {'%', kHexDigits[byte >> 4], kHexDigits[byte & 15]};
}

// Letters, digits, '-', '_' and single dots between them, perhaps a dot at the end.
bool isHostName(std::string_view name) {
  if (name.empty() || name.size() > kMaxHostBytes || name.front() == '.') return false;
  if (name.find("..") != name.npos) return false;
  return std::all_of(name.begin(), name.end(), [](char c) {
    return ascii::isLetter(c) || ascii::isDigit(c) || c == '-' || c == '.' || c == '_';
  });
}

}  // namespace

std::optional<URL> URL::parse(std::string_view text) {
  const std::string_view scheme = schemeOf(text);
  if (scheme.empty() || text.size() > kMaxDataURLBytes || hasSpaceOrControl(text)) {
    return std::nullopt;
  }
  const bool isData = ascii::equalIgnoringCase(scheme, "data");
  if (!isData && text.size() > kMaxURLBytes) return std::nullopt;
  URL url;
  url._text = text;
  url._scheme = scheme;
  const std::string_view rest = text.substr(scheme.size() + 1);
  const bool parsed =
      url.parsePlainURL(rest) || (rest.starts_with("//") ? url.parseNetworkURL(rest.substr(2))
                                                         : url.parseOpaqueURL(rest, isData));
  if (!parsed) return std::nullopt;
  return url;
}

// The addresses that store servers hand out: a scheme and a name in lower case, perhaps a port, a
// path and a query of characters that mean nothing to any parser. Whoever reads them finds the same
// parts in them, so the library need not be asked, and need not be there. Anything else is for the
// library. That both agree is checked for every address the fuzzer comes upon.
bool URL::parsePlainURL(std::string_view rest) {
  const bool isHTTPS = _scheme == "https";
  if ((!isHTTPS && _scheme != "http") || !rest.starts_with("//")) return false;
  rest.remove_prefix(2);
  const auto isNameCharacter = [](char c) { return (c >= 'a' && c <= 'z') || ascii::isDigit(c); };
  const auto isPathCharacter = [](char c) {
    return ascii::isLetter(c) || ascii::isDigit(c) ||
           std::string_view("/-_~.").find(c) != std::string_view::npos;
  };
  const auto isQueryCharacter = [&](char c) {
    return isPathCharacter(c) || std::string_view("=&+,:;").find(c) != std::string_view::npos;
  };

  const std::string_view host = rest.substr(0, rest.find_first_of(":/?"));
  rest.remove_prefix(host.size());
  const bool isPlainName = !host.empty() && host.size() < kMaxHostBytes &&
                           isNameCharacter(host.back()) && isHostName(host) &&
                           std::all_of(host.begin(), host.end(), [&](char c) {
                             return isNameCharacter(c) || c == '-' || c == '.';
                           });
  if (!isPlainName || host.starts_with("xn--") || host.find(".xn--") != host.npos) return false;

  int port = isHTTPS ? 443 : 80;
  if (rest.starts_with(':')) {
    const auto end = std::from_chars(rest.data() + 1, rest.data() + rest.size(), port);
    constexpr int kMaxPort = 65535;
    if (end.ec != std::errc() || rest[1] == '0' || port < 1 || port > kMaxPort) return false;
    rest.remove_prefix(static_cast<std::size_t>(end.ptr - rest.data()));
  }
  const std::string_view path = rest.substr(0, rest.find('?'));
  rest.remove_prefix(path.size());
  if (!path.empty() && path.front() != '/') return false;
  // "/." may begin a segment that is to be taken out.
  if (!std::all_of(path.begin(), path.end(), isPathCharacter) || path.find("/.") != path.npos)
    return false;
  const std::string_view query = rest.empty() ? rest : rest.substr(1);
  if ((!rest.empty() && query.empty()) ||
      !std::all_of(query.begin(), query.end(), isQueryCharacter))
    return false;
  if (!takeHost(std::string(host))) return false;
  _port = port;
  _path = path.empty() ? "/" : path;
  if (!rest.empty()) _query = query;
  return true;
}

bool URL::parseOpaqueURL(std::string_view rest, bool isData) {
  if (ascii::equalIgnoringCase(_scheme, "http") || ascii::equalIgnoringCase(_scheme, "https"))
    return false;
  if (!isData && libraryWouldGuess(_text)) return false;
  rest = rest.substr(0, rest.find('#'));
  const std::size_t mark = rest.find('?');
  _path = rest.substr(0, mark);
  if (mark != rest.npos) _query = rest.substr(mark + 1);
  return true;
}

bool URL::parseNetworkURL(std::string_view rest) {
  const bool isFile = ascii::equalIgnoringCase(_scheme, "file");
  // The library would skip a third slash and take a piece of the path for the host.
  if (rest.starts_with('/') && !isFile) return false;
  // Others read a backslash as a slash, and so another host.
  const std::string_view authority = rest.substr(0, rest.find_first_of("/?#"));
  if (authority.find('\\') != authority.npos) return false;

  CURLU* handle = threadHandle();
  if (!setURL(handle, _text.c_str(), kParseFlags)) return false;
  if (!isFile && !takeHost(asciiHost(handle))) return false;
  if (!_host.empty() && _host.find(':') != _host.npos && part(handle, CURLUPART_ZONEID))
    return false;
  if (const Part port = part(handle, CURLUPART_PORT, CURLU_DEFAULT_PORT)) {
    _port = std::atoi(port.get());
  }
  const Part path = part(handle, CURLUPART_PATH, CURLU_URLENCODE);
  if (!path) return false;
  _path = path.get();
  if (const Part query = part(handle, CURLUPART_QUERY)) _query = query.get();
  return true;
}

bool URL::takeHost(std::string host) {
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    _host = host.substr(1, host.size() - 2);
    _canonicalHost = canonicalIPv6(_host);
    _hostIsIPAddress = true;
    return !_canonicalHost.empty();
  }
  if (!isHostName(host)) return false;
  _canonicalHost =
      ascii::lowercased(host.ends_with('.') ? std::string_view(host).substr(0, host.size() - 1)
                                            : std::string_view(host));
  _hostIsIPAddress = isIPv4(_canonicalHost);
  _host = std::move(host);
  return _hostIsIPAddress || !endsInNumber(_canonicalHost);
}

std::string URL::lastPathComponent() const {
  const std::size_t last = _path.find_last_not_of('/');
  if (last == _path.npos) return {};
  const std::string_view path = std::string_view(_path).substr(0, last + 1);
  return std::string(path.substr(path.rfind('/') + 1));
}

std::string URL::percentEncoded(std::string_view text) {
  std::string encoded;
  for (const char c : text) {
    const bool isUnreserved = ascii::isLetter(c) || ascii::isDigit(c) ||
                              std::string_view("-._~").find(c) != std::string_view::npos;
    isUnreserved ? encoded.push_back(c) : appendEscaped(encoded, c);
  }
  return encoded;
}

URL URL::urlByAddingStringToQueryString(std::string_view addition) const {
  const std::size_t fragment = std::min(_text.find('#'), _text.size());
  std::string text = _text.substr(0, fragment);
  if (const std::size_t mark = text.find('?'); mark == text.npos) {
    text += '?';
  } else if (mark + 1 < text.size() && text.back() != '&') {
    text += '&';
  }
  for (const char c : addition) {
    const auto byte = static_cast<unsigned char>(c);
    const bool canStand = byte > 0x20 && byte < 0x7f &&
                          std::string_view("\"#<>\\^`{|}").find(c) == std::string_view::npos;
    canStand ? text.push_back(c) : appendEscaped(text, c);
  }
  text += _text.substr(fragment);
  return parse(text).value_or(*this);  // too long: nothing that could be added
}

std::optional<URL> URL::resolving(std::string_view reference) const {
  if (!schemeOf(reference).empty()) return parse(reference);
  // The library would skip a third slash, too.
  if (_host.empty() || reference.empty() || reference.starts_with("///") ||
      reference.size() > kMaxURLBytes || hasSpaceOrControl(reference)) {
    return std::nullopt;
  }
  const Handle handle = newHandle();
  if (!setURL(handle.get(), _text.c_str(), kParseFlags) ||
      !setURL(handle.get(), std::string(reference).c_str(), kParseFlags)) {
    return std::nullopt;
  }
  const Part resolved = part(handle.get(), CURLUPART_URL);
  if (!resolved) return std::nullopt;
  return parse(resolved.get());
}

}  // namespace tallow
