#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tallow {

// What a log line may consist of: one line of valid UTF-8 without anything that could end it, drive
// a terminal or reorder the text around it.
namespace LogText {

// Longer lines are cut.
inline constexpr std::size_t kMaxLineBytes = 16u << 10;

// Writes control characters, line and paragraph separators and bidirectional controls as \n, \t,
// \r, \xHH or \u{HHHH}, malformed bytes as \xHH, and cuts after kMaxLineBytes with a note of how
// much is missing.
std::string escaped(std::string_view text);

// The name under which a source file appears in the log: its path below src/ or platform/, without
// extension ("AccountService/AccountServiceDelegate", "Bag").
std::string_view fileName(std::string_view sourcePath);

}  // namespace LogText

}  // namespace tallow
