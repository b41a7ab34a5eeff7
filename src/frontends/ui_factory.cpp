// Chooses a front end by name, and the default one for a host that installs none.
#include <unistd.h>

#include <cstdlib>

#include "frontends/qt_loader.h"
#include "frontends/terminal_ui.h"
#include "platform/runtime/warnings.h"
#include "platform/ui/default_ui.h"
#include "platform/ui/none_ui.h"
#include "tessarel/ui.h"

namespace tessarel {

namespace {

bool has_display() {
  for (const char* v : {"WAYLAND_DISPLAY", "DISPLAY"}) {
    const char* s = std::getenv(v);
    if (s && *s) return true;
  }
  return false;
}

// The terminal when standard input is one, else nothing that waits for an answer.
std::shared_ptr<Ui> terminal_or_none() {
  if (isatty(0))
    if (auto t = TerminalUi::open()) return t;
  return std::make_shared<NoneUi>();
}

std::shared_ptr<Ui> automatic() {
  if (has_display()) {
    QtLoadResult qt = load_qt_ui();
    if (qt.ui) return qt.ui;
    // Without the optional Qt library the terminal is the expected choice: only a display
    // that the installed front end cannot use is worth a word.
    if (qt.installed) warn("no desktop dialogs: " + qt.why);
  }
  return terminal_or_none();
}

std::shared_ptr<Ui> default_ui() {
  const char* env = std::getenv("TESSAREL_UI");
  return make_ui(env ? env : "auto");
}

const bool registered = (register_default_ui_factory(&default_ui), true);

}  // namespace

std::shared_ptr<Ui> make_ui(const std::string& name) {
  (void)registered;
  if (name.empty() || name == "auto") return automatic();
  if (name == "none") return std::make_shared<NoneUi>();
  if (name == "terminal") {
    if (auto t = TerminalUi::open()) return t;
    return std::make_shared<NoneUi>();
  }
  if (name == "qt") {
    QtLoadResult qt = load_qt_ui();
    if (qt.ui) return qt.ui;
    auto fallback = terminal_or_none();
    warn("no desktop dialogs: " + qt.why + "; using the " + fallback->name() + " front end");
    return fallback;
  }
  warn("unknown user interface '" + name + "'; dialogs are answered as if cancelled");
  return std::make_shared<NoneUi>();
}

}  // namespace tessarel
