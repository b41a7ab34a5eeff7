// Archiving files into the dated folder tree, and deleting records.
#include "archive/sign_e_archivia.h"
#include "platform/xml/dom.h"

namespace tessarel {

void TSignEArchivia::ArchiviaFile(const std::string&, const std::string&, const std::string&,
                                  const std::string&, DateTime) {
  RequireOpenIndex();
  NotAvailableYet("ArchiviaFile");
}

void TSignEArchivia::FirmaEArchiviaFile(const std::string&, const std::string&, const std::string&,
                                        DateTime) {
  RequireOpenIndex();
  NotAvailableYet("FirmaEArchiviaFile");
}

void TSignEArchivia::CancellaId() {
  RequireOpenIndex();
  NotAvailableYet("CancellaId");
}

}  // namespace tessarel
