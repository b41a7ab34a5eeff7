// Export of a store certificate with its key into a host database field.
#pragma once

#include <string>

#include "tessarel/dataset.h"

namespace tessarel {

// Exports the first certificate of the personal store whose subject common name equals
// commonName, with its key, as PKCS#12 with the empty password into the blob field of the
// dataset's current record, and posts it. No match: the dataset is not touched (it may be null).
void SalvaCertificatopfx(const std::string& commonName, TDataSet* dataSet,
                         const std::string& fieldName);

}  // namespace tessarel
