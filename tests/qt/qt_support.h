// What the Qt tests share: a private folder for the store and for Qt's caches, an
// application on the offscreen platform, and the Qt front end installed as the host's Ui.
// These tests link the shared library, as a desktop host does, so that the front end
// loaded with dlopen and the test see one library; of the other tests' helpers they take
// only those that need no part of the library (system_support.h).
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <QApplication>
#include <filesystem>
#include <string>

#include "system_support.h"
#include "tessarel/tessarel.h"

namespace tessarel::qt_test {

// Keeps Qt's and fontconfig's caches and settings out of the home folder.
inline void private_environment(const std::string& dir) {
  std::filesystem::create_directories(dir + "/cache");
  std::filesystem::create_directories(dir + "/config");
  std::filesystem::create_directories(dir + "/runtime");
  std::filesystem::permissions(dir + "/runtime", std::filesystem::perms::owner_all);
  setenv("XDG_CACHE_HOME", (dir + "/cache").c_str(), 1);
  setenv("XDG_CONFIG_HOME", (dir + "/config").c_str(), 1);
  setenv("XDG_RUNTIME_DIR", (dir + "/runtime").c_str(), 1);
}

}  // namespace tessarel::qt_test
