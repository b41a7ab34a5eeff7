// A host that uses OpenSSL and libxml2 itself, linked against the shared library: what the
// library does must not change the host's algorithm policy or libxml2's process-wide
// external entity loader, not even for a moment while another host thread runs.
#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <openssl/evp.h>
#include <openssl/provider.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

#include "tessarel/tessarel.h"

namespace {

namespace fs = std::filesystem;

xmlParserInputPtr host_loader(const char*, const char*, xmlParserCtxtPtr) {
  return nullptr;
}

class HostSettings : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/tessarel-host-XXXXXX";
    ASSERT_NE(::mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override { fs::remove_all(dir_); }
  int sh(const std::string& command) {
    return std::system(("cd " + dir_ + " && " + command).c_str());
  }
  std::string dir_;
};

TEST_F(HostSettings, ImportingAnOldPfxLeavesTheHostsProvidersAlone) {
  ASSERT_EQ(sh("openssl req -x509 -newkey rsa:2048 -nodes -keyout k.pem -out c.pem -subj /CN=Old "
               "-days 2 2>/dev/null && printf 'secret\\n' > pw && openssl pkcs12 -export -legacy "
               "-in c.pem -inkey k.pem -passout file:pw -out old.pfx"),
            0);
  ASSERT_FALSE(OSSL_PROVIDER_available(nullptr, "legacy"));
  std::ifstream in(dir_ + "/old.pfx", std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  std::string text = bytes.str();
  tessarel::Bytes pfx(text.begin(), text.end());
  auto store = tessarel::open_store(dir_ + "/MY");
  tessarel::Certificate c = tessarel::import_pkcs12(*store, pfx, "secret");
  EXPECT_EQ(c.subject_cn(), "Old");
  EXPECT_TRUE(store->key_valid(c));
  // The legacy algorithms were used, but only inside the library's own context.
  EXPECT_FALSE(OSSL_PROVIDER_available(nullptr, "legacy"));
  EVP_CIPHER* rc2 = EVP_CIPHER_fetch(nullptr, "RC2-40-CBC", nullptr);
  EXPECT_EQ(rc2, nullptr) << "RC2 became available to the host";
  EVP_CIPHER_free(rc2);
}

TEST_F(HostSettings, ParsingAnIndexNeverSwapsTheHostsEntityLoader) {
  xmlSetExternalEntityLoader(host_loader);
  // An index big enough that each parse takes a while.
  {
    std::ofstream out(dir_ + "/index.xml");
    out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<IndiceFile><T>";
    for (int i = 0; i < 20000; ++i)
      out << "<Documento Name=\"d" << i << ".txt\" Data=\"2026-01-01\" Id=\"" << i
          << "\"><File_Dati link=\"T\\2026\\01\\d" << i
          << ".txt\" size=\"1\" Hash_SHA256=\"00\" detached=\"F\"/></Documento>";
    out << "</T></IndiceFile>\n";
  }
  std::atomic<bool> done{false};
  std::atomic<long> foreign{0}, looks{0};
  std::thread host([&] {
    while (!done) {
      if (xmlGetExternalEntityLoader() != host_loader) ++foreign;
      ++looks;
    }
  });
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(tessarel::ListArchive(dir_).size(), 20000u);
  done = true;
  host.join();
  EXPECT_GT(looks.load(), 0);
  EXPECT_EQ(foreign.load(), 0) << "the host saw another loader " << foreign << " times";
  EXPECT_EQ(xmlGetExternalEntityLoader(), host_loader);
}

}  // namespace
