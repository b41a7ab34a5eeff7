// Opens an archive index and reports what happened: used to watch, from outside, which
// files opening an index touches.
#include <cstdio>

#include "archive/sign_e_archivia.h"
#include "tessarel/errors.h"

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  tessarel::TSignEArchivia engine;
  try {
    engine.ApriIndice(argv[1], argv[2], false);
  } catch (const std::exception& e) {
    std::printf("%s\n", e.what());
    return 1;
  }
  std::printf("opened\n");
  return 0;
}
