// Must not compile: the cms layer sits below the archive layer.
#include "archive/archive_paths.h"
