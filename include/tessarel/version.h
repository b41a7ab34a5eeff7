#ifndef TESSAREL_VERSION_H
#define TESSAREL_VERSION_H

#include "tessarel/export.h"

namespace tessarel {
// The library's version, "major.minor.patch".
TESSAREL_API const char* version();
}  // namespace tessarel

#endif
