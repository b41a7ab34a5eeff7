// The engine driven as a host would, checked by xmlsec1 and OpenSSL.
#include "archive_fixture.h"

namespace tessarel {
namespace {

class ArchiveInterop : public test::ArchiveFixture {};

TEST_F(ArchiveInterop, ArchiveReopenDeleteAndCheckWithOutsideVerifiers) {
  std::string a = input("contratto.xml", "<c>uno</c>");
  std::string b = input("allegato.pdf", "%PDF-1.4 finto");
  std::string c = input("fattura.txt", "totale 10");
  {
    TSignEArchivia e;
    e.ApriIndice(arch_, "0A2C", false);
    e.FirmaEArchiviaFile(a, "", "Contratti", march_);
    e.FirmaEArchiviaFile(b, "<Nota>allegato</Nota>", "Contratti", march_);
    e.FirmaEArchiviaFile(c, "", "Fatture", april_);
    e.ChiudiIndice();
  }
  ASSERT_EQ(records().size(), 3u);
  {
    TSignEArchivia e;
    e.ApriIndice(arch_, "0A2C", false);
    ui_->answer_deletion(0, "1");  // Contratti, Id 1: allegato.pdf
    ui_->answer_message(ModalResult::Ok);
    e.CancellaId();
  }
  EXPECT_TRUE(ui_->all_answers_used());
  auto msgs = ui_->messages();
  ASSERT_EQ(msgs.size(), 2u);
  EXPECT_EQ(msgs[0].text,
            "Confermi l'operazione di cancellazione del record con nome file allegato.pdf?");
  EXPECT_EQ(msgs[1].text, "Operazione teminata");

  auto left = records();
  ASSERT_EQ(left.size(), 2u);
  EXPECT_EQ(left[0].name, "contratto.xml");
  EXPECT_EQ(left[1].name, "fattura.txt");
  EXPECT_FALSE(std::filesystem::exists(at("Contratti/2021/03/allegato.pdf")));
  // An attached envelope of a deleted record stays: only the data file (and a detached
  // signature) are deleted.
  EXPECT_TRUE(std::filesystem::exists(at("Contratti/2021/03/allegato.pdf.p7m")));
  EXPECT_TRUE(std::filesystem::exists(at("Contratti/2021/03/contratto.xml")));
  EXPECT_TRUE(std::filesystem::exists(at("Fatture/2021/04/fattura.txt")));

  std::string pem = test::write_pem(tc_->cert, dir_ / "cert.pem");
  auto r = test::run({"xmlsec1", "--verify", "--enabled-key-data", "x509", "--trusted-pem", pem,
                      "--enabled-reference-uris", "empty", at("index.xml")});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  for (const auto& rec : left) {
    std::string envelope = at(rec.envelope.link);
    std::replace(envelope.begin(), envelope.end(), '\\', '/');
    r = test::run({"openssl", "cms", "-verify", "-binary", "-inform", "DER", "-in", envelope,
                   "-CAfile", pem, "-purpose", "any", "-cades", "-out", dir_ / "out.bin"});
    EXPECT_EQ(r.exit_code, 0) << envelope << ": " << r.err;
    std::string data = at(rec.data.link);
    std::replace(data.begin(), data.end(), '\\', '/');
    EXPECT_EQ(test::read_file(dir_ / "out.bin"), test::read_file(data));
  }
  EXPECT_TRUE(VerifyArchive(arch_).ok());
}

TEST_F(ArchiveInterop, DetachedRecordsLoseBothFilesOnDeletion) {
  std::string a = input("a.txt", "A");
  TSignEArchivia e;
  e.ApriIndice(arch_, "0A2C", true);
  e.FirmaEArchiviaFile(a, "", "Verbali", march_);
  e.ChiudiIndice();
  ASSERT_TRUE(std::filesystem::exists(at("Verbali/2021/03/a.txt.p7s")));
  ui_->answer_deletion(0, "0");
  ui_->answer_message(ModalResult::Ok);
  e.CancellaId();
  EXPECT_FALSE(std::filesystem::exists(at("Verbali/2021/03/a.txt")));
  EXPECT_FALSE(std::filesystem::exists(at("Verbali/2021/03/a.txt.p7s")));
  std::string pem = test::write_pem(tc_->cert, dir_ / "cert.pem");
  auto r = test::run({"xmlsec1", "--verify", "--enabled-key-data", "x509", "--trusted-pem", pem,
                      "--enabled-reference-uris", "empty", at("index.xml")});
  EXPECT_EQ(r.exit_code, 0) << r.err;
}

}  // namespace
}  // namespace tessarel
