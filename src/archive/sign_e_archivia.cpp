#include "archive/sign_e_archivia.h"

#include "boundary/cert_lookup.h"
#include "platform/runtime/files.h"
#include "platform/xml/dom.h"
#include "tessarel/errors.h"
#include "tessarel/exports.h"

namespace tessarel {

ISignEArchivia::~ISignEArchivia() = default;

TSignEArchivia::TSignEArchivia() = default;
TSignEArchivia::~TSignEArchivia() {
  ReleaseArchive();
}

bool TSignEArchivia::IsKeyPresent(const std::string& idCert) {
  FidCert = idCert;
  return ChiaveValida(FidCert);
}

std::string TSignEArchivia::GenerateTempFilename() {
  return MakeTempFile("tessarel");
}

void TSignEArchivia::RequireOpenIndex() const {
  if (!FXMLDocument) throw Exception("File indice non aperto");
}

}  // namespace tessarel

extern "C" TESSAREL_API tessarel::ISignEArchivia* GetSignEArchivia(void) {
  return new tessarel::TSignEArchivia();
}
