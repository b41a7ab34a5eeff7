// Argument handling shared by the benchmark programs: a usage line on --help or bad input,
// positive whole numbers only (a typo must not turn into a zero-file run with a bogus ratio).
#pragma once
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

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

}  // namespace bench
