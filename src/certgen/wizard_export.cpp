// The wizard's entry point for hosts.
#include "boundary/result_string.h"
#include "tessarel/exports.h"

extern "C" TESSAREL_API char** CreaCertificatoPrivato(char** result) {
  // The wizard is not part of this build yet: the result is that of a wizard closed
  // without generating anything.
  return tessarel::AssignResult(result, "");
}
