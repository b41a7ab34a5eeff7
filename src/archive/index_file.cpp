// The archive index: opening, closing and signing index.xml.
#include "archive/sign_e_archivia.h"
#include "platform/xml/dom.h"

namespace tessarel {

void TSignEArchivia::ApriIndice(const std::string&, const std::string&, bool) {
  NotAvailableYet("ApriIndice");
}

void TSignEArchivia::ChiudiIndice() {
  if (!isModified) return;
  NotAvailableYet("ChiudiIndice");
}

}  // namespace tessarel
