// What the Qt tests share: a private folder for the store and for Qt's caches, an
// application on the offscreen platform, and the Qt front end installed as the host's Ui.
// These tests link the shared library, as a desktop host does, so that the front end
// loaded with dlopen and the test see one library.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <QApplication>
#include <filesystem>
#include <string>

#include "tessarel/tessarel.h"

namespace tessarel::qt_test {

class TempFolder {
 public:
  TempFolder() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "tessarel-qt-XXXXXX").string();
    if (!mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
  }
  ~TempFolder() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

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
