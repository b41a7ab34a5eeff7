// An archive, a store with a signing certificate, a scripted front end, and input files.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>

#include "archive/sign_e_archivia.h"
#include "frontends/scripted_ui.h"
#include "platform/runtime/datetime.h"
#include "tessarel/archive.h"
#include "test_support.h"

namespace tessarel::test {

class ArchiveFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    CertParams s;
    s.cn = "Archivio Firmatario";
    s.serial = {0x0A, 0x2C};
    tc_ = std::make_unique<TestCert>(make_cert(s));
    store_.add(*tc_);
    arch_ = dir_ / "archivio";
    std::filesystem::create_directories(dir_ / "in");
  }
  // A new input file.
  std::string input(const std::string& name, const std::string& content) {
    write_file(dir_ / ("in/" + name), content);
    return dir_ / ("in/" + name);
  }
  std::string at(const std::string& relative) const { return arch_ + "/" + relative; }
  // Files below the archive folder (relative paths), temporary files included; not the
  // archive's lock file, which stays once an engine has opened the archive.
  std::vector<std::string> tree() const {
    std::vector<std::string> out;
    if (!std::filesystem::exists(arch_)) return out;
    for (auto& e : std::filesystem::recursive_directory_iterator(arch_))
      if (e.is_regular_file() && e.path().filename() != "index.xml.lock")
        out.push_back(std::filesystem::relative(e.path(), arch_).string());
    std::sort(out.begin(), out.end());
    return out;
  }
  std::vector<ArchiveRecord> records() const { return ListArchive(arch_); }
  // Records in the open engine's document (the index in memory).
  int records_in_memory(TSignEArchivia& e) const {
    int n = 0;
    for (xml::Node g = e.document()->root().first_child(); g; g = g.next_sibling())
      for (xml::Node d = g.first_child(); d; d = d.next_sibling())
        if (d.is_element() && d.name() == "Documento") ++n;
    return n;
  }

  TempDir dir_;
  ScopedStore store_;
  std::unique_ptr<TestCert> tc_;
  std::string arch_;
  std::shared_ptr<ScriptedUi> ui_ = std::make_shared<ScriptedUi>();
  ScopedUi scoped_{ui_};
  const DateTime march_ = EncodeDateTime({2021, 3, 3});
  const DateTime april_ = EncodeDateTime({2021, 4, 9});
};

}  // namespace tessarel::test
