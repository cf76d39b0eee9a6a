// NAME [--seconds SECONDS] FOLDER...: runs a fuzz target over every file of the folders, and then
// for so long over what chance makes of them; for builds without libFuzzer. The input that is
// running lies in NAME.input of the working directory, where a crash leaves it.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/FuzzTarget.h"

namespace {

using Input = std::vector<std::uint8_t>;
constexpr std::size_t kMaxBytes = 64 << 10;

std::size_t upTo(std::size_t most, std::mt19937_64& chance) {
  return std::uniform_int_distribution<std::size_t>(0, most)(chance);
}

// One change: bits, bytes of note, a piece left out, said twice, or taken from another input.
void change(Input& input, const Input& other, std::mt19937_64& chance) {
  constexpr std::uint8_t kOfNote[] = {0, 1, 0x7F, 0x80, 0xFF, '\n', '%', '"', '<', ';'};
  const auto at = static_cast<std::ptrdiff_t>(upTo(input.size(), chance));
  const auto left = input.size() - static_cast<std::size_t>(at);
  const auto length = static_cast<std::ptrdiff_t>(upTo(std::min<std::size_t>(left, 32), chance));
  const auto begin = input.begin() + at;
  switch (upTo(5, chance)) {
    case 0:
      if (left > 0) *begin ^= static_cast<std::uint8_t>(1U << upTo(7, chance));
      break;
    case 1:
      if (left > 0) *begin = kOfNote[upTo(std::size(kOfNote) - 1, chance)];
      break;
    case 2:
      input.insert(begin, kOfNote[upTo(std::size(kOfNote) - 1, chance)]);
      break;
    case 3:
      input.erase(begin, begin + length);
      break;
    case 4: {
      const Input piece(begin, begin + length);
      input.insert(input.begin() + at, piece.begin(), piece.end());
      break;
    }
    default: {
      const auto from = static_cast<std::ptrdiff_t>(upTo(other.size(), chance));
      const auto most = std::min<std::size_t>(other.size() - static_cast<std::size_t>(from), 64);
      input.insert(begin, other.begin() + from,
                   other.begin() + from + static_cast<std::ptrdiff_t>(upTo(most, chance)));
    }
  }
}

// Memory that outlives a crash as a file.
class Kept {
 public:
  explicit Kept(std::string name) : _name(std::move(name)) {
    _file = open(_name.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (_file < 0 || ftruncate(_file, kMaxBytes) != 0) std::abort();
    void* const memory = mmap(nullptr, kMaxBytes, PROT_READ | PROT_WRITE, MAP_SHARED, _file, 0);
    if (memory == MAP_FAILED) std::abort();
    _memory = static_cast<std::uint8_t*>(memory);
  }
  Kept(const Kept&) = delete;
  Kept& operator=(const Kept&) = delete;
  ~Kept() {
    munmap(_memory, kMaxBytes);
    close(_file);
    std::remove(_name.c_str());
  }
  void keep(const Input& input) const {
    if (ftruncate(_file, kMaxBytes) != 0) std::abort();
    std::copy(input.begin(), input.end(), _memory);
    if (ftruncate(_file, static_cast<off_t>(input.size())) != 0) std::abort();
  }

 private:
  const std::string _name;
  int _file = -1;
  std::uint8_t* _memory = nullptr;
};

std::size_t runChanged(const std::vector<Input>& inputs, double seconds, const std::string& name) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  const auto seed = std::random_device()();
  std::mt19937_64 chance(seed);
  std::printf("changed by chance, from %u\n", seed);
  std::fflush(stdout);
  const Kept kept(name + ".input");
  std::size_t runs = 0;
  for (; std::chrono::steady_clock::now() < end; ++runs) {
    Input input = inputs[upTo(inputs.size() - 1, chance)];
    const Input& other = inputs[upTo(inputs.size() - 1, chance)];
    for (std::size_t changes = 1 + upTo(7, chance); changes > 0; --changes)
      change(input, other, chance);
    input.resize(std::min(input.size(), kMaxBytes));
    kept.keep(input);
    LLVMFuzzerTestOneInput(input.data(), input.size());
  }
  return runs;
}

}  // namespace

int main(int argc, char** argv) {
  double seconds = 0;
  std::vector<Input> inputs;
  for (int i = 1; i < argc; ++i) {
    if (std::string_view(argv[i]) == "--seconds" && i + 1 < argc) {
      seconds = std::atof(argv[++i]);
      continue;
    }
    for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[i])) {
      if (!entry.is_regular_file()) continue;
      std::ifstream file(entry.path(), std::ios::binary);
      inputs.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
      // Named before it runs: what is printed last is the input that a crash is about.
      std::printf("%s (%zu bytes)\n", entry.path().c_str(), inputs.back().size());
      std::fflush(stdout);
      LLVMFuzzerTestOneInput(inputs.back().data(), inputs.back().size());
    }
  }
  if (inputs.empty()) {
    std::fprintf(stderr, "%s: no input found\n", argv[0]);
    return 1;
  }
  std::printf("%zu inputs\n", inputs.size());
  if (seconds <= 0) return 0;
  const std::string name = std::filesystem::path(argv[0]).filename();
  std::printf("%zu changed inputs\n", runChanged(inputs, seconds, name));
  return 0;
}
