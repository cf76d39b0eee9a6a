#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/Base/Error.h"
#include "platform/Base/Value.h"

namespace tallow::ctl {

// What the shell learns from the exit status.
enum ExitStatus {
  kDone = 0,
  kServiceSaidNo = 1,  // an error from the service, or a question answered with no
  kWrongUsage = 2,
  kNotReachable = 3,
};

// Texts from a server or another process must not make a terminal do anything, nor look like other
// texts: what a terminal acts on, and what cannot be seen, is escaped.
std::string printable(std::string_view text);

// What to do about a failure of the service or of a call; "" when there is nothing to say.
const char* adviceFor(const Error& error);
// Whether it was the bus that did not let the call through.
bool isTurnedAwayByBus(const Error& error);

// Everything that tallowctl says. For people: plain lines and tables, errors on standard error with
// what to do next. With --json: exactly one JSON value on standard output for each result, errors
// included, and nothing else. Control characters from outside are shown escaped.
class Output {
 public:
  void setJSON(bool json) { _json = json; }
  bool isJSON() const { return _json; }

  // A property-list value: text as it is, dictionaries as tables, nil as nothing.
  void value(const Value& value) const;
  // A row per entry, one aligned table.
  void table(const Dictionary& dictionary) const;
  void table(const Array& rows) const;
  // The answer to a yes-or-no question; the exit status says it too.
  int answer(bool yes) const;
  // What tallowctl says of itself.
  int about(const char* what, const std::string& text, const std::string& shown) const;
  // For people only.
  void line(const std::string& text) const;

  // Reports a failure with what to do about it; the result is the exit status.
  int failure(const Error& error) const;
  int wrongUsage(const std::string& text) const;
  // False, said on standard error, when not all of it could be written.
  static bool flush();

 private:
  bool _json = false;
};

}  // namespace tallow::ctl
