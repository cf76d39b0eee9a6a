#include "platform/Base/RegularExpression.h"

#include <unicode/utf8.h>

#include <algorithm>
#include <ctime>
#include <optional>
#include <string>

#include "platform/Base/ICULibrary.h"

namespace tallow {

namespace {

constexpr const char* kRegexErrorDomain = "RegularExpression";
constexpr std::size_t kMaxPatternBytes = 64 * 1024;
constexpr std::size_t kMaxTextBytes = 1024 * 1024;
// In the engine's own units, of about 10,000 saved states each.
constexpr std::int32_t kTimeLimit = 100;
constexpr std::int32_t kMatchStackBytes = 4 * 1024 * 1024;
constexpr double kMaxSeconds = 0.25;

struct ExpressionCloser {
  void operator()(URegularExpression* expression) const {
    ICULibrary::shared()->regexClose(expression);
  }
};
using Expression = std::unique_ptr<URegularExpression, ExpressionCloser>;

std::u16string utf16(std::string_view text) {
  std::u16string result(text.size(), u'\0');  // never more units than UTF-8 bytes
  std::int32_t length = 0;
  UErrorCode status = U_ZERO_ERROR;
  ICULibrary::shared()->strFromUTF8WithSub(
      result.data(), static_cast<std::int32_t>(result.size()), &length, text.data(),
      static_cast<std::int32_t>(text.size()), 0xFFFD, nullptr, &status);
  result.resize(static_cast<std::size_t>(length));
  return result;
}

Error compileError(UErrorCode status, const UParseError& where) {
  std::string text = ICULibrary::shared()->errorName(status);
  if (where.line > 0) {
    text += " at line " + std::to_string(where.line) + ", offset " + std::to_string(where.offset);
  }
  return makeError(kRegexErrorDomain, status, std::move(text));
}

double secondsOf(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// The engine counts saved states only; this bounds what it does between them, which is at most one
// pass over the text for each place where a match may begin.
class Deadline {
 public:
  explicit Deadline(std::size_t textLength)
      : _interval(std::max<std::size_t>(16, (1u << 18) / (textLength + 1))),
        _start(secondsOf(CLOCK_MONOTONIC)),
        _threadStart(secondsOf(CLOCK_THREAD_CPUTIME_ID)) {}

  // uregex calls this after each place it has tried; false stops the search.
  static UBool U_CALLCONV goOn(const void* context, std::int64_t) {
    return static_cast<Deadline*>(const_cast<void*>(context))->isAhead() ? 1 : 0;
  }

 private:
  // Time that other threads took does not count, but asking for it costs a system call.
  bool isAhead() {
    if (++_calls % _interval != 0 || secondsOf(CLOCK_MONOTONIC) - _start < kMaxSeconds) return true;
    return secondsOf(CLOCK_THREAD_CPUTIME_ID) - _threadStart < kMaxSeconds;
  }

  std::size_t _interval;
  std::size_t _calls = 0;
  double _start;
  double _threadStart;
};

}  // namespace

struct RegularExpression::Compiled {
  Expression expression;
};

RegularExpression::RegularExpression(std::shared_ptr<const Compiled> compiled)
    : _compiled(std::move(compiled)) {}

Result<RegularExpression> RegularExpression::compile(std::string_view pattern, Options options) {
  if (pattern.size() > kMaxPatternBytes) {
    return makeError(kRegexErrorDomain, U_REGEX_PATTERN_TOO_BIG, "The pattern is too long");
  }
  if (ICULibrary::shared() == nullptr) {
    return makeError(kRegexErrorDomain, U_MISSING_RESOURCE_ERROR, "The ICU library is not there");
  }
  const std::u16string units = utf16(pattern);
  UErrorCode status = U_ZERO_ERROR;
  UParseError where{};
  Expression expression(ICULibrary::shared()->regexOpen(
      units.data(), static_cast<std::int32_t>(units.size()),
      options.caseInsensitive ? UREGEX_CASE_INSENSITIVE : 0, &where, &status));
  if (U_FAILURE(status)) return compileError(status, where);
  return RegularExpression(std::make_shared<const Compiled>(Compiled{std::move(expression)}));
}

RegularExpression::Match RegularExpression::firstMatchIn(std::string_view text) const {
  if (text.size() > kMaxTextBytes) return Match::GaveUp;
  const ICULibrary& icu = *ICULibrary::shared();
  const std::u16string units = utf16(text);
  UErrorCode status = U_ZERO_ERROR;
  // The compiled pattern is shared; the state of a search is this clone's own.
  const Expression search(icu.regexClone(_compiled->expression.get(), &status));
  icu.regexSetTimeLimit(search.get(), kTimeLimit, &status);
  icu.regexSetStackLimit(search.get(), kMatchStackBytes, &status);
  Deadline deadline(units.size());
  icu.regexSetFindProgressCallback(search.get(), Deadline::goOn, &deadline, &status);
  icu.regexSetText(search.get(), units.data(), static_cast<std::int32_t>(units.size()), &status);
  const bool found = icu.regexFindNext(search.get(), &status) != 0;
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
  const ICULibrary* icu = ICULibrary::shared();
  return icu != nullptr ? icu->foldCase(character, U_FOLD_CASE_DEFAULT) : character;
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
