// Runs a fuzz target over every file of the folders given, for builds without libFuzzer.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "fuzz/FuzzTarget.h"

int main(int argc, char** argv) {
  std::size_t inputs = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[i])) {
      if (!entry.is_regular_file()) continue;
      std::ifstream file(entry.path(), std::ios::binary);
      const std::string input{std::istreambuf_iterator<char>(file), {}};
      // Named before it runs: what is printed last is the input that a crash is about.
      std::printf("%s (%zu bytes)\n", entry.path().c_str(), input.size());
      std::fflush(stdout);
      LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
      ++inputs;
    }
  }
  if (inputs == 0) {
    std::fprintf(stderr, "%s: no input found\n", argv[0]);
    return 1;
  }
  std::printf("%zu inputs\n", inputs);
  return 0;
}
