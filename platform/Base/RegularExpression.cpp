#include "platform/Base/RegularExpression.h"

#include <unicode/uchar.h>
#include <unicode/uregex.h>
#include <unicode/ustring.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <ctime>
#include <optional>
#include <string>

namespace tallow {

namespace {

constexpr const char* kErrorDomain = "RegularExpression";
constexpr std::size_t kMaxPatternBytes = 64 * 1024;
constexpr std::size_t kMaxTextBytes = 1024 * 1024;
// In the engine's own units, of about 10,000 saved states each.
constexpr std::int32_t kTimeLimit = 100;
constexpr std::int32_t kStackBytes = 4 * 1024 * 1024;
constexpr double kMaxSeconds = 0.25;

struct ExpressionCloser {
  void operator()(URegularExpression* expression) const { uregex_close(expression); }
};
using Expression = std::unique_ptr<URegularExpression, ExpressionCloser>;

std::u16string utf16(std::string_view text) {
  std::u16string result(text.size(), u'\0');  // never more units than UTF-8 bytes
  std::int32_t length = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strFromUTF8WithSub(result.data(), static_cast<std::int32_t>(result.size()), &length,
                       text.data(), static_cast<std::int32_t>(text.size()), 0xFFFD, nullptr,
                       &status);
  result.resize(static_cast<std::size_t>(length));
  return result;
}

Error compileError(UErrorCode status, const UParseError& where) {
  std::string text = u_errorName(status);
  if (where.line > 0) {
    text += " at line " + std::to_string(where.line) + ", offset " + std::to_string(where.offset);
  }
  return makeError(kErrorDomain, status, std::move(text));
}

// The engine counts saved states only; this bounds what it does between them, which is at most one
// pass over the text for each place where a match may begin.
class Deadline {
 public:
  explicit Deadline(std::size_t textLength)
      : _interval(std::max<std::size_t>(1, (1u << 18) / (textLength + 1))) {}

  // uregex calls this after each place it has tried; false stops the search.
  static UBool U_CALLCONV goOn(const void* context, std::int64_t) {
    return static_cast<Deadline*>(const_cast<void*>(context))->isAhead() ? 1 : 0;
  }

 private:
  static double threadSeconds() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
  }

  bool isAhead() {
    if (++_calls % _interval != 0) return true;
    const double now = threadSeconds();
    if (!_start) _start = now;
    return now - *_start < kMaxSeconds;
  }

  std::size_t _interval;
  std::size_t _calls = 0;
  std::optional<double> _start;
};

}  // namespace

struct RegularExpression::Compiled {
  Expression expression;
};

RegularExpression::RegularExpression(std::shared_ptr<const Compiled> compiled)
    : _compiled(std::move(compiled)) {}

Result<RegularExpression> RegularExpression::compile(std::string_view pattern, Options options) {
  if (pattern.size() > kMaxPatternBytes) {
    return makeError(kErrorDomain, U_REGEX_PATTERN_TOO_BIG, "The pattern is too long");
  }
  const std::u16string units = utf16(pattern);
  UErrorCode status = U_ZERO_ERROR;
  UParseError where{};
  Expression expression(uregex_open(units.data(), static_cast<std::int32_t>(units.size()),
                                    options.caseInsensitive ? UREGEX_CASE_INSENSITIVE : 0, &where,
                                    &status));
  if (U_FAILURE(status)) return compileError(status, where);
  return RegularExpression(std::make_shared<const Compiled>(Compiled{std::move(expression)}));
}

RegularExpression::Match RegularExpression::firstMatchIn(std::string_view text) const {
  if (text.size() > kMaxTextBytes) return Match::GaveUp;
  const std::u16string units = utf16(text);
  UErrorCode status = U_ZERO_ERROR;
  // The compiled pattern is shared; the state of a search is this clone's own.
  const Expression search(uregex_clone(_compiled->expression.get(), &status));
  uregex_setTimeLimit(search.get(), kTimeLimit, &status);
  uregex_setStackLimit(search.get(), kStackBytes, &status);
  Deadline deadline(units.size());
  uregex_setFindProgressCallback(search.get(), Deadline::goOn, &deadline, &status);
  uregex_setText(search.get(), units.data(), static_cast<std::int32_t>(units.size()), &status);
  const bool found = uregex_findNext(search.get(), &status) != 0;
  if (U_FAILURE(status)) return Match::GaveUp;
  return found ? Match::Found : Match::NotFound;
}

// ---- wildcards

namespace {

// Reads one character, case folded; ASCII without a look into the tables.
UChar32 nextFolded(std::string_view text, std::size_t& index) {
  const auto byte = static_cast<unsigned char>(text[index]);
  if (byte < 0x80) {
    ++index;
    return byte >= 'A' && byte <= 'Z' ? byte + ('a' - 'A') : byte;
  }
  UChar32 character = 0;
  U8_NEXT_OR_FFFD(text.data(), index, text.size(), character);
  return u_foldCase(character, U_FOLD_CASE_DEFAULT);
}

}  // namespace

bool isLikeIgnoringCase(std::string_view text, std::string_view pattern) {
  std::size_t inText = 0;
  std::size_t inPattern = 0;
  // Where to go on when what follows the last star does not fit: one character later. Only the last
  // star ever needs to be tried again.
  std::optional<std::size_t> afterStar;
  std::size_t starEnd = 0;
  while (inText < text.size()) {
    if (inPattern < pattern.size() && pattern[inPattern] == '*') {
      afterStar = ++inPattern;
      starEnd = inText;
      continue;
    }
    if (inPattern < pattern.size()) {
      const bool anyCharacter = pattern[inPattern] == '?';
      const UChar32 wanted = nextFolded(pattern, inPattern);
      const UChar32 given = nextFolded(text, inText);
      if (anyCharacter || wanted == given) continue;
    }
    if (!afterStar) return false;
    nextFolded(text, starEnd);
    inText = starEnd;
    inPattern = *afterStar;
  }
  while (inPattern < pattern.size() && pattern[inPattern] == '*') ++inPattern;
  return inPattern == pattern.size();
}

}  // namespace tallow
