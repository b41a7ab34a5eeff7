// The plain entry points of the boundary (the picker's, the wizard's and the engine's
// live with them). They hold no state of their own and catch nothing: exceptions reach
// the host as they are.
#include "tessarel/exports.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "boundary/file_digest.h"
#include "boundary/pfx_export.h"
#include "boundary/result_string.h"
#include "tessarel/errors.h"
#include "tessarel/store.h"

namespace tessarel {

char** AssignResult(char** result, const std::string& value) {
  if (!result) return result;
  char* copy = static_cast<char*>(std::malloc(value.size() + 1));
  if (!copy) throw std::bad_alloc();
  std::memcpy(copy, value.c_str(), value.size() + 1);
  std::free(*result);
  *result = copy;
  return result;
}

}  // namespace tessarel

namespace {
using tessarel::AssignResult;
using tessarel::TextArg;
}  // namespace

extern "C" {

TESSAREL_API char** GetHashFileSHA256(char** result, const char* fname) {
  AssignResult(result, "");
  return AssignResult(result, tessarel::HashFileSHA256(TextArg(fname)));
}

TESSAREL_API void SalvaCertificatopfx(const char* commonName, TessarelDataSet* dataSet,
                                      const char* fieldName) {
  tessarel::SalvaCertificatopfx(TextArg(commonName), dataSet, TextArg(fieldName));
}

TESSAREL_API char** SelezionaCommonName(char** result, const char* idCert) {
  std::string id = TextArg(idCert);
  if (id.empty()) return result;
  // A reader of its own, as the store is now.
  for (const tessarel::Certificate& cert : tessarel::personal_store()->certificates()) {
    if (cert.id() == id) return AssignResult(result, cert.subject_cn());
  }
  return result;
}

}  // extern "C"
