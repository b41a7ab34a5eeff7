// Operations on single files that need no open archive: signing, content extraction,
// verification report, certificate wizard.
#include "archive/sign_e_archivia.h"
#include "tessarel/wizard.h"

namespace tessarel {

void TSignEArchivia::Firma(const std::string&, const std::string&, bool) {
  NotAvailableYet("Firma");
}

std::string TSignEArchivia::EstraiContenuto(const std::string&) {
  NotAvailableYet("EstraiContenuto");
}

void TSignEArchivia::VerificaFirma(const std::string&) {
  NotAvailableYet("VerificaFirma");
}

std::string TSignEArchivia::GeneraCertificato() { return TfrmGenerateCert::DoCreateCertificate(); }

}  // namespace tessarel
