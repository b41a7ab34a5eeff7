// The wizard's entry point for hosts.
#include "boundary/result_string.h"
#include "tessarel/exports.h"
#include "tessarel/wizard.h"

extern "C" TESSAREL_API char** CreaCertificatoPrivato(char** result) {
  return tessarel::AssignResult(result, tessarel::TfrmGenerateCert::DoCreateCertificate());
}
