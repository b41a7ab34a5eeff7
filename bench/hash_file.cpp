// Digests one file through the exported GetHashFileSHA256, as a host would, and prints the
// digest text. bench/run.sh times it against `openssl dgst -sha256` on the same file.
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "tessarel/tessarel.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: bench_hash_file FILE\n");
    return 2;
  }
  char* digest = nullptr;
  try {
    GetHashFileSHA256(&digest, argv[1]);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 1;
  }
  std::printf("%s\n", digest);
  std::free(digest);
  return 0;
}
