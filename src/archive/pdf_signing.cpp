// Signing PDF documents.
#include "archive/sign_e_archivia.h"

namespace tessarel {

bool TSignEArchivia::FirmaPdf(const std::string&, const std::string&, const std::string&,
                              const std::string&, std::istream*, bool, const std::string&, bool) {
  NotAvailableYet("FirmaPdf");
}

}  // namespace tessarel
