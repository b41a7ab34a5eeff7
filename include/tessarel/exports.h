/* The six plain entry points of libtessarel, callable from C and from any language with a
 * C foreign-function interface.
 *
 * Strings are UTF-8 and NUL-terminated; a null pointer counts as the empty string.
 * A string result comes back through the first parameter: the function frees what *result
 * held with free() and stores a fresh malloc'ed copy there, then returns result. Where a
 * function "leaves the result unchanged", *result is not touched at all.
 * Failures are C++ exceptions (tessarel::Exception and its subclasses); they pass through
 * these functions unchanged, so a C++ host can catch them by type. */
#ifndef TESSAREL_EXPORTS_H
#define TESSAREL_EXPORTS_H

#include "tessarel/export.h"

#ifdef __cplusplus
namespace tessarel {
class TDataSet;
class ISignEArchivia;
}  // namespace tessarel
typedef tessarel::TDataSet TessarelDataSet;
typedef tessarel::ISignEArchivia TessarelEngine;
extern "C" {
#else
#include <stdbool.h>
typedef struct TessarelDataSet TessarelDataSet;
typedef struct TessarelEngine TessarelEngine;
#endif

/* SHA-256 of the file as 64 upper-case hexadecimal digits. The result is emptied first;
 * a missing file raises an exception and leaves it empty. */
TESSAREL_API char** GetHashFileSHA256(char** result, const char* fname);

/* Exports the first certificate of the personal store whose subject common name equals
 * commonName, with its private key, as PKCS#12 (empty password) into the blob field
 * fieldName of the dataset's current record, and posts the record. No match: nothing. */
TESSAREL_API void SalvaCertificatopfx(const char* commonName, TessarelDataSet* dataSet,
                                      const char* fieldName);

/* Runs the certificate wizard; the result is the new certificate's display name, or the
 * empty string when the wizard was closed without generating anything. */
TESSAREL_API char** CreaCertificatoPrivato(char** result);

/* Subject common name of the certificate whose idCert is given; result unchanged when no
 * certificate has that identifier. */
TESSAREL_API char** SelezionaCommonName(char** result, const char* idCert);

/* Lets the user pick a certificate; result is its idCert, unchanged when cancelled. */
TESSAREL_API char** SelezionaCertificato(char** result, bool showCA);

/* A new engine object with no archive open; the caller deletes it. */
TESSAREL_API TessarelEngine* GetSignEArchivia(void);

#ifdef __cplusplus
}
#endif

#endif
