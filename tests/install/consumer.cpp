// A host application built against an installed Tessarel.
#include <tessarel/tessarel.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  char* digest = nullptr;
  GetHashFileSHA256(&digest, argv[1]);
  std::unique_ptr<tessarel::ISignEArchivia> engine(GetSignEArchivia());
  std::printf("%s %s\n", digest, tessarel::version());
  std::free(digest);
  return engine ? 0 : 1;
}
