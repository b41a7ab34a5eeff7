// The front end used when the host installs none. The choice among front ends belongs to
// the front-end layer above the dialog models; it registers its chooser here, so nothing
// below it depends on a front end. Without a chooser the library stays non-interactive.
#pragma once

#include <memory>

#include "tessarel/ui.h"

namespace tessarel {

using DefaultUiFactory = std::shared_ptr<Ui> (*)();
void register_default_ui_factory(DefaultUiFactory factory);

}  // namespace tessarel
