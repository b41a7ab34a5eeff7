// The six plain entry points. They hold no state of their own and catch nothing:
// exceptions reach the host as they are.
#include "tessarel/exports.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "archive/sign_e_archivia.h"
#include "boundary/file_digest.h"
#include "boundary/pfx_export.h"
#include "tessarel/errors.h"
#include "tessarel/store.h"

namespace {

const char* text(const char* s) { return s ? s : ""; }

// Frees what *result held and stores a malloc'ed copy of value.
char** assign(char** result, const std::string& value) {
  if (!result) return result;
  char* copy = static_cast<char*>(std::malloc(value.size() + 1));
  if (!copy) throw std::bad_alloc();
  std::memcpy(copy, value.c_str(), value.size() + 1);
  std::free(*result);
  *result = copy;
  return result;
}

}  // namespace

extern "C" {

TESSAREL_API char** GetHashFileSHA256(char** result, const char* fname) {
  assign(result, "");
  return assign(result, tessarel::HashFileSHA256(text(fname)));
}

TESSAREL_API void SalvaCertificatopfx(const char* commonName, TessarelDataSet* dataSet,
                                      const char* fieldName) {
  tessarel::SalvaCertificatopfx(text(commonName), dataSet, text(fieldName));
}

TESSAREL_API char** CreaCertificatoPrivato(char** result) {
  // The wizard is not part of this build yet: the result is that of a wizard closed
  // without generating anything.
  return assign(result, "");
}

TESSAREL_API char** SelezionaCommonName(char** result, const char* idCert) {
  std::string id = text(idCert);
  if (id.empty()) return result;
  // A reader of its own, as the store is now.
  for (const tessarel::Certificate& cert : tessarel::personal_store()->certificates()) {
    if (cert.id() == id) return assign(result, cert.subject_cn());
  }
  return result;
}

TESSAREL_API char** SelezionaCertificato(char** result, bool showCA) {
  // The picker is not part of this build yet: a cancelled pick leaves the result alone.
  (void)showCA;
  return result;
}

TESSAREL_API TessarelEngine* GetSignEArchivia(void) { return new tessarel::TSignEArchivia(); }

}  // extern "C"
