#include "frontends/qt_loader.h"

#include <dlfcn.h>

#include <array>
#include <mutex>

#include "frontends/qt_entry.h"

#ifndef TESSAREL_QT_LIBRARY_NAME
#define TESSAREL_QT_LIBRARY_NAME "libtessarel-qt.so"
#endif
#ifndef TESSAREL_INSTALL_LIBDIR
#define TESSAREL_INSTALL_LIBDIR "/usr/local/lib"
#endif

namespace tessarel {

namespace {

std::string own_directory() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&load_qt_ui), &info) == 0 || !info.dli_fname) return "";
  std::string path = info.dli_fname;
  auto slash = path.rfind('/');
  return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

// The handle stays open for the life of the process: Qt does not support being unloaded.
void* open_library(std::string& tried) {
  static std::mutex m;
  static void* handle = nullptr;
  std::lock_guard lock(m);
  if (handle) return handle;
  std::array<std::string, 3> candidates = {
      own_directory() + "/" TESSAREL_QT_LIBRARY_NAME,
      std::string(TESSAREL_INSTALL_LIBDIR "/" TESSAREL_QT_LIBRARY_NAME),
      std::string(TESSAREL_QT_LIBRARY_NAME),
  };
  for (const auto& c : candidates) {
    handle = dlopen(c.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle) return handle;
    const char* err = dlerror();
    // Report why the first existing candidate failed, not that the others are missing.
    if (tried.empty() || tried.find("No such file") != std::string::npos)
      tried = err ? err : c + ": cannot be loaded";
  }
  return nullptr;
}

}  // namespace

QtLoadResult load_qt_ui() {
  QtLoadResult r;
  std::string error;
  void* lib = open_library(error);
  if (!lib) {
    r.why = "the Qt front end is not installed (" + error + ")";
    return r;
  }
  auto abi = reinterpret_cast<qt_entry::AbiFn>(dlsym(lib, TESSAREL_QT_ABI_SYMBOL));
  auto create = reinterpret_cast<qt_entry::CreateFn>(dlsym(lib, TESSAREL_QT_CREATE_SYMBOL));
  if (!abi || !create || abi() != qt_entry::kAbi) {
    r.why = "the installed Qt front end belongs to another version of the library";
    return r;
  }
  r.installed = true;
  std::array<char, 512> why{};
  Ui* ui = create(why.data(), why.size());
  if (!ui) {
    r.why = why.data();
    return r;
  }
  r.ui.reset(ui);
  return r;
}

}  // namespace tessarel
