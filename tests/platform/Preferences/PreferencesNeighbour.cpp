// Another process on the same preferences file.
//
//   PreferencesNeighbour count FILE TIMES  adds 1 to "count" TIMES times, and says "done"
//   PreferencesNeighbour write FILE        writes ever higher numbers, and says each once it is
//   written

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/Preferences/SQLitePreferences.h"

namespace {

using tallow::Preferences;
using tallow::SQLitePreferences;

constexpr const char* kDomain = "com.vantor.test";

int count(Preferences& preferences, int times) {
  for (int i = 0; i < times; ++i) {
    const bool isWritten = preferences.update(kDomain, [](Preferences::Editor& editor) {
      editor.setValue("count", editor.value("count").signedValue() + 1);
    });
    if (!isWritten) return EXIT_FAILURE;
  }
  std::puts("done");
  return EXIT_SUCCESS;
}

[[noreturn]] void write(Preferences& preferences) {
  // Of varying size, so that the log grows, wraps and is folded into the file at all kinds of
  // moments.
  constexpr int kSizes = 97, kStep = 331;
  for (int number = 1;; ++number) {
    const std::string padding(static_cast<std::size_t>(number % kSizes * kStep), 'x');
    preferences.setValue("single", number, kDomain, Preferences::User::Current,
                         Preferences::Host::Any);
    const bool isWritten = preferences.update(kDomain, [&](Preferences::Editor& editor) {
      editor.setValue("first", number);
      editor.setValue("padding", padding);
      editor.setValue("second", number);
    });
    if (!isWritten) std::exit(EXIT_FAILURE);
    std::printf("%d\n", number);
    std::fflush(stdout);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return EXIT_FAILURE;
  SQLitePreferences preferences({argv[2], {}, "host"});
  const std::string_view action = argv[1];
  if (action == "write") write(preferences);
  return action == "count" && argc == 4 ? count(preferences, std::atoi(argv[3])) : EXIT_FAILURE;
}
