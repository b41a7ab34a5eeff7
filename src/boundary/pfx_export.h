// Export of a store certificate with its key into a host database field.
#pragma once

#include <string>

#include "tessarel/dataset.h"

namespace tessarel {

void SalvaCertificatopfx(const std::string& commonName, TDataSet& dataSet,
                         const std::string& fieldName);

}  // namespace tessarel
