#include "archive/sign_e_archivia.h"

#include "boundary/cert_lookup.h"
#include "platform/runtime/files.h"
#include "platform/xml/dom.h"
#include "tessarel/errors.h"

namespace tessarel {

ISignEArchivia::~ISignEArchivia() = default;

namespace {
constexpr const char* kIndexNotOpen = "File indice non aperto";

[[noreturn]] void not_available(const char* operation) {
  throw Exception(std::string(operation) + " is not available yet in this build of Tessarel");
}
}  // namespace

TSignEArchivia::TSignEArchivia() = default;
TSignEArchivia::~TSignEArchivia() = default;

void TSignEArchivia::ApriIndice(const std::string&, const std::string&, bool) {
  not_available("ApriIndice");
}

void TSignEArchivia::ArchiviaFile(const std::string&, const std::string&, const std::string&,
                                  const std::string&, DateTime) {
  if (!FXMLDocument) throw Exception(kIndexNotOpen);
  not_available("ArchiviaFile");
}

void TSignEArchivia::FirmaEArchiviaFile(const std::string&, const std::string&,
                                        const std::string&, DateTime) {
  if (!FXMLDocument) throw Exception(kIndexNotOpen);
  not_available("FirmaEArchiviaFile");
}

void TSignEArchivia::Firma(const std::string&, const std::string&, bool) { not_available("Firma"); }

void TSignEArchivia::ChiudiIndice() {
  if (!isModified) return;
  not_available("ChiudiIndice");
}

void TSignEArchivia::CancellaId() {
  if (!FXMLDocument) throw Exception(kIndexNotOpen);
  not_available("CancellaId");
}

std::string TSignEArchivia::EstraiContenuto(const std::string&) { not_available("EstraiContenuto"); }

void TSignEArchivia::VerificaFirma(const std::string&) { not_available("VerificaFirma"); }

bool TSignEArchivia::IsKeyPresent(const std::string& idCert) {
  FidCert = idCert;
  return ChiaveValida(FidCert);
}

std::string TSignEArchivia::GeneraCertificato() { not_available("GeneraCertificato"); }

bool TSignEArchivia::FirmaPdf(const std::string&, const std::string&, const std::string&,
                              const std::string&, std::istream*, bool, const std::string&, bool) {
  not_available("FirmaPdf");
}

std::string TSignEArchivia::GenerateTempFilename() { return MakeTempFile("tessarel"); }

}  // namespace tessarel
