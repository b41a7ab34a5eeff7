// Loads the Qt front end (libtessarel-qt) on demand.
#pragma once

#include <memory>
#include <string>

#include "tessarel/ui.h"

namespace tessarel {

struct QtLoadResult {
  std::shared_ptr<Ui> ui;  // null when the Qt front end cannot be used
  bool installed = false;  // the library was found and loaded
  std::string why;         // why ui is null
};

// Looks for libtessarel-qt beside the library that holds this code, then in the install
// libdir, then on the loader's search path; creates its Ui when a display can be used.
QtLoadResult load_qt_ui();

}  // namespace tessarel
