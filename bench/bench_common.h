// Shared by the benchmark programs: argument handling (a usage line on --help or bad input,
// positive whole numbers only, so a typo never becomes a zero-file run with a bogus ratio)
// and the random input files.
#pragma once
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace bench {

inline void usage_exit(const char* usage, int code) {
  std::fprintf(code == 0 ? stdout : stderr, "usage: %s\n", usage);
  std::exit(code);
}

inline void check_help(int argc, char** argv, const char* usage) {
  for (int i = 1; i < argc; ++i)
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0)
      usage_exit(usage, 0);
}

// argv[i] as a positive number, or `fallback` when absent.
inline long positive_arg(int argc, char** argv, int i, long fallback, const char* usage) {
  if (i >= argc) return fallback;
  char* end = nullptr;
  long v = std::strtol(argv[i], &end, 10);
  if (end == argv[i] || *end != '\0' || v <= 0) {
    std::fprintf(stderr, "not a positive number: %s\n", argv[i]);
    usage_exit(usage, 2);
  }
  return v;
}

// `count` files of `size` random bytes named doc0.bin, doc1.bin, ..., each written with the
// same content into folder `a` and folder `b` (one set per contender); returns both lists.
inline std::pair<std::vector<std::string>, std::vector<std::string>> write_twin_inputs(
    const std::filesystem::path& a, const std::filesystem::path& b, int count, std::size_t size,
    unsigned seed) {
  std::filesystem::create_directories(a);
  std::filesystem::create_directories(b);
  std::mt19937_64 rng(seed);
  std::pair<std::vector<std::string>, std::vector<std::string>> out;
  std::string content(size, '\0');
  for (int i = 0; i < count; ++i) {
    for (auto& c : content)
      c = static_cast<char>(rng());
    std::string name = "doc" + std::to_string(i) + ".bin";
    std::ofstream(a / name, std::ios::binary) << content;
    std::ofstream(b / name, std::ios::binary) << content;
    out.first.push_back((a / name).string());
    out.second.push_back((b / name).string());
  }
  return out;
}

}  // namespace bench
