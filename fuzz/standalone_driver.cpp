// Runs a libFuzzer-style target without libFuzzer (GCC builds, CI smoke runs).
//
//   driver [--runs N] [--seed S] [FILE...]
//
// Each FILE is passed to the target as it is. With --runs, N mutations (byte
// flips, byte overwrites, truncation, insertion, duplication of a range) of
// each FILE, or of the target's built-in seed when no FILE is given, are run
// too. Exit status 0 when every input returned; a fault ends the process.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
std::vector<unsigned char> tileReaderFuzzSeed();

namespace {

std::vector<unsigned char> mutate(std::vector<unsigned char> input, std::mt19937_64& rng) {
  const int edits = 1 + static_cast<int>(rng() % 4);
  for (int e = 0; e < edits; ++e) {
    const size_t n = input.size();
    switch (rng() % 6) {
      case 0:
        if (n) input[rng() % n] ^= static_cast<unsigned char>(1u << (rng() % 8));
        break;
      case 1:
        if (n) input[rng() % n] = static_cast<unsigned char>(rng());
        break;
      case 2:
        if (n) input.resize(rng() % n);
        break;
      case 3:
        input.insert(input.begin() + static_cast<long>(n ? rng() % n : 0), static_cast<unsigned char>(rng()));
        break;
      case 4:
        if (n > 1) {
          const size_t from = rng() % n, length = 1 + rng() % (n - from);
          std::vector<unsigned char> copy(input.begin() + static_cast<long>(from),
                                          input.begin() + static_cast<long>(from + length));
          input.insert(input.begin() + static_cast<long>(rng() % n), copy.begin(), copy.end());
        }
        break;
      default:
        if (n) input[rng() % n] = (rng() % 2) ? 0x00 : 0xFF;
        break;
    }
  }
  return input;
}

}  // namespace

int main(int argc, char** argv) {
  unsigned long runs = 0;
  unsigned long seed = 1;
  std::vector<std::vector<unsigned char>> inputs;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if ((arg == "--runs" || arg == "--seed") && i + 1 < argc) {
      (arg == "--runs" ? runs : seed) = std::strtoul(argv[++i], nullptr, 10);
      continue;
    }
    std::ifstream in(arg, std::ios::binary);
    if (!in) {
      std::fprintf(stderr, "cannot read %s\n", arg.c_str());
      return 2;
    }
    inputs.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  if (inputs.empty()) inputs.push_back(tileReaderFuzzSeed());
  std::mt19937_64 rng(seed);
  unsigned long executed = 0;
  for (const auto& input : inputs) {
    LLVMFuzzerTestOneInput(input.data(), input.size());
    ++executed;
    for (unsigned long r = 0; r < runs; ++r, ++executed) {
      const auto mutated = mutate(input, rng);
      LLVMFuzzerTestOneInput(mutated.data(), mutated.size());
    }
  }
  std::printf("%lu inputs run\n", executed);
  return 0;
}
