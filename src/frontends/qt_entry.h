// The entry points of libtessarel-qt, looked up with dlsym by the loader. The library is
// loaded on demand so that the core never links Qt; the ABI number guards against a
// libtessarel-qt built for another version of the Ui interface.
#pragma once

#include <cstddef>

namespace tessarel {
class Ui;
}

#define TESSAREL_QT_ABI_SYMBOL "tessarel_qt_abi"
#define TESSAREL_QT_CREATE_SYMBOL "tessarel_qt_create_ui"

namespace tessarel::qt_entry {
// Raised whenever the Ui interface or the dialog models change shape.
constexpr int kAbi = 2;
using AbiFn = int (*)();
// Returns a new Ui (owned by the caller), or null with the reason written into why.
using CreateFn = Ui* (*)(char* why, std::size_t why_size);
}  // namespace tessarel::qt_entry
