// Opening, closing and signing the archive index: structure, messages, stability over
// cycles, hostile files in place of index.xml, and crashes while it is written.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "frontends/scripted_ui.h"
#include "index_support.h"
#include "platform/runtime/datetime.h"
#include "xmlsig/xml_signature.h"

namespace tessarel {
namespace {

class Index : public ::testing::Test {
 protected:
  void SetUp() override {
    test::CertParams s;
    s.cn = "Archivista";
    s.serial = {0x1D, 0x0C};
    tc_ = std::make_unique<test::TestCert>(test::make_cert(s));
    store_.add(*tc_);
    arch_ = dir_ / "arch";
  }
  std::string index() const { return arch_ + "/index.xml"; }
  bool verifies(const std::string& file) {
    auto doc = xml::Document::ParseFile(file);
    TElXMLVerifier v;
    v.Load(doc->root());
    return v.Verify(*doc).ok();
  }
  test::TempDir dir_;
  test::ScopedStore store_;
  std::unique_ptr<test::TestCert> tc_;
  std::string arch_;
  std::shared_ptr<ScriptedUi> ui_ = std::make_shared<ScriptedUi>();
  test::ScopedUi scoped_{ui_};
};

TEST_F(Index, ANewIndexLivesInMemoryUntilARecordIsClosed) {
  test::IndexEngine e;
  e.ApriIndice(arch_, "1D0C", true);
  EXPECT_TRUE(std::filesystem::is_directory(arch_));
  EXPECT_FALSE(std::filesystem::exists(index()));
  EXPECT_TRUE(e.index_open());
  EXPECT_EQ(e.collision_action(), -1);
  EXPECT_TRUE(e.detached());
  e.ChiudiIndice();  // not modified: nothing written
  EXPECT_FALSE(std::filesystem::exists(index()));
  e.add_record("Contratti", "contratto.xml");
  e.ChiudiIndice();
  ASSERT_TRUE(std::filesystem::exists(index()));
  EXPECT_TRUE(e.modified());  // stays set: a further close writes again
  EXPECT_TRUE(verifies(index()));
}

TEST_F(Index, StructureAttributeOrderAndWhitespace) {
  test::IndexEngine e;
  e.ApriIndice(arch_, "1D0C", false);
  e.add_record("Contratti", "contratto.xml", "<Nota>prova</Nota>");
  e.ChiudiIndice();
  std::string text = test::read_file(index());
  std::string today = FormatShortDate(Date());
  std::string expected_head =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<?xml-stylesheet type=\"text/xsl\" "
      "href=\"index.xsl\"?>\n"
      "<IndiceFile Creato_il=\"" +
      today + "\" modificato_il=\"" + today +
      "\"><Contratti>"
      "<Documento Name=\"contratto.xml\" Data=\"2021-03-03\" Id=\"0\"><Nota>prova</Nota>\n\t"
      "<File_Dati link=\"Contratti\\2021\\03\\contratto.xml\" size=\"5120\" Hash_SHA256=\"" +
      std::string(64, 'A') +
      "\" detached=\"F\">\n\t</File_Dati></Documento></Contratti>\n<ds:Signature "
      "xmlns:ds=\"http://www.w3.org/2000/09/xmldsig#\">\n"
      "\t<ds:SignedInfo>\n\t\t<ds:CanonicalizationMethod "
      "Algorithm=\"http://www.w3.org/TR/2001/REC-xml-c14n-20010315\"/>\n"
      "\t\t<ds:SignatureMethod "
      "Algorithm=\"http://www.w3.org/2000/09/xmldsig#rsa-sha1\"/>\n\t\t<ds:Reference URI=\"\">\n"
      "\t\t\t<ds:Transforms>\n\t\t\t\t<ds:Transform "
      "Algorithm=\"http://www.w3.org/2000/09/xmldsig#enveloped-signature\"/>\n"
      "\t\t\t</ds:Transforms>\n\t\t\t<ds:DigestMethod "
      "Algorithm=\"http://www.w3.org/2000/09/xmldsig#sha1\"/>\n"
      "\t\t\t<ds:DigestValue>";
  EXPECT_EQ(text.substr(0, expected_head.size()), expected_head);
  EXPECT_NE(text.find("</ds:KeyInfo>\n</ds:Signature>\n</IndiceFile>\n"), std::string::npos);
  EXPECT_NE(
      text.find("<ds:X509IssuerName>CN=Archivista</"
                "ds:X509IssuerName>\n\t\t\t\t<ds:X509SerialNumber>7436</ds:X509SerialNumber>"),
      std::string::npos);
  // The markup that the record carried as text is an element of the signed document.
  auto doc = xml::Document::ParseFile(index());
  EXPECT_TRUE(doc->root().find_child("Contratti").find_child("Documento").find_child("Nota"));
}

TEST_F(Index, LocationRules) {
  std::filesystem::create_directories(arch_);
  std::vector<std::pair<std::string, std::string>> cases = {
      {arch_, arch_ + "/index.xml"},
      {arch_ + "/", arch_ + "/index.xml"},
      {arch_ + "/Index.XML", arch_ + "/Index.XML"},
      {arch_ + "/index.xml", arch_ + "/index.xml"},
  };
  for (const auto& [given, expected] : cases) {
    TSignEArchivia e;
    e.ApriIndice(given, "1D0C", false);
    EXPECT_EQ(e.index_path(), expected) << given;
  }
  std::string program_dir = std::filesystem::read_symlink("/proc/self/exe").parent_path().string();
  bool existed = std::filesystem::exists(program_dir + "/archiviazione");
  TSignEArchivia beside_program;
  beside_program.ApriIndice("", "1D0C", false);
  if (!existed) std::filesystem::remove_all(program_dir + "/archiviazione");
  EXPECT_EQ(beside_program.index_path(),
            std::filesystem::read_symlink("/proc/self/exe").parent_path().string() +
                "/archiviazione/index.xml")
      << beside_program.index_path();
}

TEST_F(Index, ExactMessagesAndNoIndexLeftOpenAfterAFailure) {
  auto message = [&](const std::string& where, const std::string& id) {
    TSignEArchivia e;
    try {
      e.ApriIndice(where, id, false);
    } catch (const Exception& ex) {
      EXPECT_FALSE(e.index_open());
      return std::string(ex.what());
    }
    return std::string("opened");
  };
  std::filesystem::create_directories(dir_ / "other");
  test::write_file(dir_ / "other/index.xml", "<Archivio/>");
  EXPECT_EQ(message(dir_ / "other", "1D0C"),
            "File indice (index.xml) ha un elemento root con nome diverso da \"IndiceFile\"");
  EXPECT_EQ(message(arch_, "FFFF"),
            "Certificato non trovato. Impossibile applicare la Firma Digitale.");
  test::CertParams s;
  s.serial = {0x44};
  store_.add(test::make_cert(s), false);
  EXPECT_EQ(message(arch_, "44"), "Chiave non trovata. Impossibile applicare la Firma Digitale.");
  test::write_file(dir_ / "file", "x");
  EXPECT_EQ(message(dir_ / "file/sub", "1D0C"),
            "Impossibile accedere alla cartella: " + (dir_ / "file/sub"));
}

TEST_F(Index, OpenCloseCyclesGiveTheSameFileAndOneSignature) {
  {
    test::IndexEngine e;
    e.ApriIndice(arch_, "1D0C", false);
    e.add_record("Contratti", "a.xml");
    e.add_record("Fatture", "b.xml", "<Importo valuta=\"EUR\">10</Importo>");
    e.ChiudiIndice();
  }
  std::string first = test::masked(test::read_file(index()));
  for (int round = 0; round < 3; ++round) {
    test::IndexEngine e;
    e.ApriIndice(arch_, "1D0C", false);
    e.mark_modified();
    e.ChiudiIndice();
    EXPECT_EQ(test::masked(test::read_file(index())), first) << "round " << round;
    EXPECT_TRUE(verifies(index()));
  }
  // A second close in the same session signs once, not twice.
  test::IndexEngine e;
  e.ApriIndice(arch_, "1D0C", false);
  e.add_record("Contratti", "c.xml");
  e.ChiudiIndice();
  e.add_record("Verbali", "d.xml");  // a group created after the signature
  e.ChiudiIndice();
  std::string text = test::read_file(index());
  EXPECT_EQ(text.find("<ds:Signature "), text.rfind("<ds:Signature "));
  EXPECT_TRUE(verifies(index()));
  auto doc = xml::Document::ParseFile(index());
  EXPECT_EQ(doc->root().last_child().previous_sibling().local_name(), "Signature");
}

TEST_F(Index, AnUnwritableIndexIsReportedAndTheOldOneStays) {
  test::IndexEngine e;
  e.ApriIndice(arch_, "1D0C", false);
  e.add_record("Contratti", "a.xml");
  e.ChiudiIndice();
  std::string before = test::read_file(index());
  e.ApriIndice(arch_, "1D0C", false);
  e.add_record("Contratti", "b.xml");
  // The folder becomes a place where nothing can be created: make index.xml's folder a
  // read-only mount point stand-in by replacing the path with a directory of that name.
  std::filesystem::rename(index(), dir_ / "saved.xml");
  std::filesystem::create_directories(index());
  e.ChiudiIndice();
  ASSERT_EQ(ui_->messages().size(), 1u);
  EXPECT_EQ(ui_->messages()[0].text.rfind("Error: ", 0), 0u) << ui_->messages()[0].text;
  std::filesystem::remove(index());
  std::filesystem::rename(dir_ / "saved.xml", index());
  EXPECT_EQ(test::read_file(index()), before);
}

class HostileIndex : public Index {
 protected:
  // Puts text in place of index.xml, opens it, and checks the error, the untouched file and
  // (from outside, under strace) that no other file was opened.
  void expect_refused(const std::string& content, const std::string& expected_reason) {
    std::filesystem::create_directories(arch_);
    test::write_file(index(), content);
    std::string error;
    {
      TSignEArchivia e;
      try {
        e.ApriIndice(arch_, "1D0C", false);
      } catch (const EElXMLSecurityError& ex) {
        error = ex.what();
      }
      EXPECT_FALSE(e.index_open());
    }
    EXPECT_NE(error.find(expected_reason), std::string::npos) << "error: " << error;
    EXPECT_EQ(test::read_file(index()), content);
    auto r = test::run({"strace", "-f", "-e", "trace=open,openat", "-o", dir_ / "trace.txt",
                        INDEX_PROBE_PATH, arch_, "1D0C"},
                       {"TESSAREL_STORE=" + store_.path()});
    EXPECT_EQ(r.exit_code, 1) << r.out << r.err;
    std::string trace = test::read_file(dir_ / "trace.txt");
    EXPECT_NE(trace.find(index()), std::string::npos)
        << "the trace does not show the index being opened";
    EXPECT_EQ(trace.find(secret_), std::string::npos)
        << "the parser opened the file an entity names";
  }
  std::string secret_ = (dir_ / "secret.txt");
};

TEST_F(HostileIndex, EntitiesDoctypesAndGarbageAreRefusedWithoutReadingOtherFiles) {
  test::write_file(secret_, "top secret");
  expect_refused("<?xml version=\"1.0\"?>\n<!DOCTYPE IndiceFile [<!ENTITY x SYSTEM \"file://" +
                     secret_ + "\">]>\n<IndiceFile>&x;</IndiceFile>",
                 "DOCTYPE");
  std::string laughs;
  laughs = "<?xml version=\"1.0\"?>\n<!DOCTYPE IndiceFile [<!ENTITY l0 \"ha\">";
  for (int i = 1; i < 12; ++i) {
    laughs += "<!ENTITY l" + std::to_string(i) + " \"";
    for (int k = 0; k < 10; ++k)
      laughs += "&l" + std::to_string(i - 1) + ";";
    laughs += "\">";
  }
  laughs += "]>\n<IndiceFile>&l11;</IndiceFile>";
  expect_refused(laughs, "DOCTYPE");
  expect_refused("<!DOCTYPE IndiceFile SYSTEM \"file://" + secret_ + "\"><IndiceFile/>", "DOCTYPE");
  expect_refused("this is not XML at all", "XML parse error");
  expect_refused("", "empty");
  expect_refused("<IndiceFile><Contratti></IndiceFile>", "XML parse error");
  std::string deep;
  for (int i = 0; i < 300; ++i)
    deep += "<a>";
  expect_refused("<IndiceFile>" + deep + "</IndiceFile>", "nested deeper");
  expect_refused("<IndiceFile a=\"" + std::string(20 << 20, 'x') + "\"/>", "XML parse error");
}

TEST_F(HostileIndex, AGigabyteAttributeIsRefusedBeforeItIsRead) {
  std::filesystem::create_directories(arch_);
  // A gigabyte as its size says, but sparse: the reader must refuse it by its size, so the
  // bytes in the middle (zeros here) are never looked at.
  const std::string head = "<IndiceFile Creato_il=\"", tail = "\"/>";
  test::write_file(index(), head);
  std::filesystem::resize_file(index(), (1u << 30) - tail.size());
  {
    std::ofstream out(index(), std::ios::binary | std::ios::app);
    out << tail;
  }
  ASSERT_EQ(std::filesystem::file_size(index()), 1u << 30);
  auto size_before = std::filesystem::file_size(index());
  TSignEArchivia e;
  try {
    e.ApriIndice(arch_, "1D0C", false);
    FAIL() << "a gigabyte index was accepted";
  } catch (const EElXMLSecurityError& ex) {
    EXPECT_NE(std::string(ex.what()).find("larger than the limit"), std::string::npos) << ex.what();
  }
  EXPECT_EQ(std::filesystem::file_size(index()), size_before);
  std::filesystem::remove(index());
}

TEST_F(Index, AWriterKilledWhileClosingLeavesTheOldOrTheNewSignedIndex) {
  {
    test::IndexEngine e;
    e.ApriIndice(arch_, "1D0C", false);
    for (int i = 0; i < 3000; ++i)
      e.add_record("Contratti", "doc" + std::to_string(i) + ".xml");
    e.ChiudiIndice();
  }
  std::mt19937 rng(99);
  int interrupted = 0;
  for (int round = 0; round < 25; ++round) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      for (int k = 0;; ++k) {
        test::IndexEngine e;
        e.ApriIndice(arch_, "1D0C", false);
        e.add_record("Fatture", "f" + std::to_string(k) + ".xml");
        e.ChiudiIndice();
      }
    }
    usleep(std::uniform_int_distribution<useconds_t>(20000, 150000)(rng));
    kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    if (WIFSIGNALED(status)) ++interrupted;
    ASSERT_TRUE(verifies(index())) << "round " << round;
  }
  EXPECT_EQ(interrupted, 25);
  // The next open clears what killed writers left behind.
  TSignEArchivia e;
  e.ApriIndice(arch_, "1D0C", false);
  for (auto& f : std::filesystem::directory_iterator(arch_))
    EXPECT_EQ(f.path().filename().string().find(".tmp-"), std::string::npos) << f.path();
}

}  // namespace
}  // namespace tessarel
