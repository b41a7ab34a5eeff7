// The auditor's check: each kind of damage is reported, a sound archive passes, and the
// check changes nothing.
#include <sys/stat.h>

#include <map>

#include "archive_fixture.h"
#include "tessarel/certgen.h"
#include "tessarel/errors.h"

namespace tessarel {
namespace {

class ArchiveCheck : public test::ArchiveFixture {
 protected:
  void SetUp() override {
    test::ArchiveFixture::SetUp();
    TSignEArchivia e;
    e.ApriIndice(arch_, "0A2C", false);
    e.FirmaEArchiviaFile(input("a.txt", "alpha"), "", "Contratti", march_);
    e.FirmaEArchiviaFile(input("b.txt", "beta"), "", "Contratti", march_);
    e.FirmaEArchiviaFile(input("c.txt", "gamma"), "", "Fatture", april_);
    e.ChiudiIndice();
  }
  std::string problems(const ArchiveCheckReport& r) {
    std::string out;
    for (const auto& p : r.problems)
      out += p.record + ": " + p.what + "\n";
    return out;
  }
};

TEST_F(ArchiveCheck, ASoundArchivePassesAndIsNotTouched) {
  std::map<std::string, std::pair<std::string, long>> before;
  for (const auto& f : tree()) {
    struct stat st {};
    stat(at(f).c_str(), &st);
    before[f] = {test::read_file(at(f)), st.st_mtim.tv_nsec + st.st_mtim.tv_sec * 1000000000L};
  }
  ArchiveCheckReport r = VerifyArchive(arch_);
  EXPECT_TRUE(r.ok()) << problems(r);
  EXPECT_TRUE(r.index_signed);
  EXPECT_EQ(r.signer_id, "0A2C");
  EXPECT_EQ(r.records, 3u);
  EXPECT_EQ(r.files_checked, 6u);
  for (const auto& f : tree()) {
    struct stat st {};
    stat(at(f).c_str(), &st);
    EXPECT_EQ(before[f].first, test::read_file(at(f))) << f;
    EXPECT_EQ(before[f].second, st.st_mtim.tv_nsec + st.st_mtim.tv_sec * 1000000000L) << f;
  }
}

TEST_F(ArchiveCheck, AChangedByteInADataFile) {
  test::write_file(at("Contratti/2021/03/a.txt"), "alphA");
  ArchiveCheckReport r = VerifyArchive(arch_);
  EXPECT_FALSE(r.ok());
  std::string p = problems(r);
  EXPECT_NE(p.find("Contratti#0 a.txt: data file SHA-256 differs"), std::string::npos) << p;
  EXPECT_NE(p.find("Contratti#0 a.txt: the envelope's content is not the archived data file"),
            std::string::npos)
      << p;
}

TEST_F(ArchiveCheck, ADeletedEnvelope) {
  std::filesystem::remove(at("Contratti/2021/03/b.txt.p7m"));
  std::string p = problems(VerifyArchive(arch_));
  EXPECT_NE(p.find("Contratti#1 b.txt: envelope missing: Contratti\\2021\\03\\b.txt.p7m"),
            std::string::npos)
      << p;
}

TEST_F(ArchiveCheck, ASwappedEnvelope) {
  std::filesystem::copy_file(at("Contratti/2021/03/a.txt.p7m"), at("Contratti/2021/03/b.txt.p7m"),
                             std::filesystem::copy_options::overwrite_existing);
  std::string p = problems(VerifyArchive(arch_));
  EXPECT_NE(p.find("Contratti#1 b.txt: envelope SHA-256 differs"), std::string::npos) << p;
  EXPECT_NE(p.find("Contratti#1 b.txt: the envelope's content is not the archived data file"),
            std::string::npos)
      << p;
}

TEST_F(ArchiveCheck, ARecordEditedInTheIndex) {
  std::string text = test::read_file(at("index.xml"));
  std::string from = "Name=\"b.txt\"";
  text.replace(text.find(from), from.size(), "Name=\"B.txt\"");
  test::write_file(at("index.xml"), text);
  ArchiveCheckReport r = VerifyArchive(arch_);
  EXPECT_FALSE(r.index_signed);
  EXPECT_NE(problems(r).find("index signature: the document does not match the signed digest"),
            std::string::npos)
      << problems(r);
}

TEST_F(ArchiveCheck, AnIndexSignedAgainByAnotherCertificate) {
  // Someone with a key of their own opens the archive and signs it again.
  test::TempDir other;
  auto other_store = open_store(other / "MY");
  NewCertificateOptions o;
  o.common_name = "Falsario";
  o.key = KeyKind::Rsa;
  Certificate forger = CreateSelfSignedCertificate(o, *other_store);
  set_store_location(other / "MY");
  {
    TSignEArchivia e;
    e.ApriIndice(arch_, forger.id(), false);
    e.ArchiviaFile(at("Contratti/2021/03/a.txt"), "", "", "Contratti", march_);
    e.ChiudiIndice();
  }
  set_store_location(store_.path());
  ArchiveCheckReport r = VerifyArchive(arch_);
  EXPECT_TRUE(r.index_signed);  // a valid signature, by the wrong certificate
  EXPECT_FALSE(r.ok());
  EXPECT_NE(
      problems(r).find("signed by a certificate that is not in the personal store: CN=Falsario"),
      std::string::npos)
      << problems(r);
  EXPECT_EQ(problems(VerifyArchive(arch_, "0A2C")),
            ": the index is signed by certificate " + forger.id() + ", not by 0A2C\n");
  EXPECT_TRUE(VerifyArchive(arch_, forger.id()).problems.empty());
}

// An index without its signature is still checked record by record; a record without its
// data file and an index of another kind are named as such.
TEST_F(ArchiveCheck, AnUnsignedIndexARecordWithoutDataAndAnotherRoot) {
  std::string text = test::read_file(at("index.xml"));
  auto cut = [&](const std::string& from, const std::string& to) {
    auto a = text.find(from);
    ASSERT_NE(a, std::string::npos) << from;
    text.erase(a, text.find(to, a) + to.size() - a);
  };
  cut("<ds:Signature", "</ds:Signature>\n");
  cut("<File_Dati link=\"Contratti\\2021\\03\\b.txt\"", "</File_Dati>");
  test::write_file(at("index.xml"), text);
  ArchiveCheckReport r = VerifyArchive(arch_);
  EXPECT_FALSE(r.index_signed);
  EXPECT_EQ(r.signer_id, "");
  EXPECT_EQ(r.records, 3u);
  EXPECT_EQ(r.files_checked, 5u);
  EXPECT_EQ(problems(r),
            ": the index carries no usable signature: no ds:Signature element under the index's "
            "root\nContratti#1 b.txt: the record has no data file\n");

  test::write_file(at("index.xml"), "<Archivio><Contratti/></Archivio>");
  r = VerifyArchive(arch_);
  EXPECT_EQ(problems(r), ": the index's root element is not IndiceFile\n");
  EXPECT_EQ(r.records, 0u);
}

TEST_F(ArchiveCheck, AnEnvelopeReceivedAsBase64IsCheckedLikeOurOwn) {
  // Signed elsewhere (OpenSSL, ECDSA) and delivered as Base64 text, as invoices often are.
  test::CertParams s;
  s.cn = "Fornitore";
  s.kind = KeyKind::Ec;
  auto supplier = test::make_cert(s);
  std::string data = input("fattura.xml", "<Fattura>123</Fattura>");
  std::string env = data + ".p7m";
  auto r = test::run_shell("openssl cms -sign -binary -nodetach -outform DER -in '" + data +
                           "' -signer '" + test::write_pem(supplier.cert, dir_ / "s.pem") +
                           "' -inkey '" + test::write_key_pem(supplier.key, dir_ / "s.key") +
                           "' | openssl base64 -e > '" + env + "'");
  ASSERT_EQ(r.exit_code, 0) << r.err;
  {
    TSignEArchivia e;
    e.ApriIndice(arch_, "0A2C", false);
    e.ArchiviaFile(data, env, "", "Fatture", april_);
    e.ChiudiIndice();
  }
  EXPECT_TRUE(VerifyArchive(arch_).ok()) << problems(VerifyArchive(arch_));
  // The archived text envelope replaced by one over other content.
  test::write_file(data, std::string("<Fattura>124</Fattura>"));
  ASSERT_EQ(
      test::run_shell("openssl cms -sign -binary -nodetach -outform DER -in '" + data +
                      "' -signer '" + dir_ / "s.pem" + "' -inkey '" + dir_ / "s.key" +
                      "' | openssl base64 -e > '" + at("Fatture/2021/04/fattura.xml.p7m") + "'")
          .exit_code,
      0);
  std::string p = problems(VerifyArchive(arch_));
  EXPECT_NE(p.find("fattura.xml: the envelope's content is not the archived data file"),
            std::string::npos)
      << p;
}

// A document signed, then signed again by someone else (an envelope inside an envelope):
// the archived data file is the document inside both, and every layer is checked.
TEST_F(ArchiveCheck, ANestedEnvelopeIsCheckedLayerByLayer) {
  test::CertParams s;
  s.cn = "Secondo Firmatario";
  s.kind = KeyKind::Ec;
  auto second = test::make_cert(s);
  std::string pem = test::write_pem(second.cert, dir_ / "second.pem");
  std::string key = test::write_key_pem(second.key, dir_ / "second.key");
  auto sign = [&](const std::string& in, const std::string& out, const std::string& form) {
    return test::run({"openssl", "cms", "-sign", "-binary", "-nodetach", "-outform", form, "-in",
                      in, "-signer", pem, "-inkey", key, "-out", out})
        .exit_code;
  };
  std::string data = input("verbale è.txt", "verbale di consegna\n");
  ASSERT_EQ(sign(data, data + ".p7m", "DER"), 0);
  ASSERT_EQ(sign(data + ".p7m", data + ".p7m.p7m", "PEM"), 0);
  // And an envelope archived as the data file, signed again: its content is that envelope.
  std::string inner = input("inner.txt", "allegato\n");
  ASSERT_EQ(sign(inner, inner + ".p7m", "DER"), 0);
  ASSERT_EQ(sign(inner + ".p7m", inner + ".p7m.p7m", "DER"), 0);
  // Even a damaged envelope, archived as it was received and signed: its content only looks
  // like an envelope.
  Bytes cut = test::read_bytes(inner + ".p7m");
  std::string damaged = input("ricevuta.p7m", std::string(cut.begin(), cut.begin() + 200));
  ASSERT_EQ(sign(damaged, damaged + ".p7m", "DER"), 0);
  {
    TSignEArchivia e;
    e.ApriIndice(arch_, "0A2C", false);
    e.ArchiviaFile(data, data + ".p7m.p7m", "", "Verbali", april_);
    e.ArchiviaFile(inner + ".p7m", inner + ".p7m.p7m", "", "Verbali", april_);
    e.ArchiviaFile(damaged, damaged + ".p7m", "", "Verbali", april_);
    e.ChiudiIndice();
  }
  ArchiveCheckReport r = VerifyArchive(arch_);
  EXPECT_TRUE(r.ok()) << problems(r);
  auto cli = test::run({test::cli_path(), "--store", store_.path(), "archive", "verify", arch_});
  EXPECT_EQ(cli.exit_code, 0) << cli.out << cli.err;

  // The inner envelope's signature broken inside an intact outer one (the outer signed the
  // broken bytes); the index is closed again over the new file.
  Bytes broken = test::read_bytes(data + ".p7m");
  broken[broken.size() - 3] ^= 0x01;  // in the signature value, the envelope's last element
  test::write_file(dir_ / "broken.p7m", broken);
  ASSERT_EQ(sign(dir_ / "broken.p7m", dir_ / "in/verbale è.txt.p7m.p7m", "DER"), 0);
  // And a nest whose document is another one.
  std::string other = input("altro.txt", "altro documento\n");
  ASSERT_EQ(sign(other, other + ".p7m", "DER"), 0);
  ASSERT_EQ(sign(other + ".p7m", dir_ / "in/inner.txt.p7m.p7m", "DER"), 0);
  ui_->answer_overwrite(1);  // the records are replaced: overwrite every time
  {
    TSignEArchivia e;
    e.ApriIndice(arch_, "0A2C", false);
    e.ArchiviaFile(data, data + ".p7m.p7m", "", "Verbali", april_);
    e.ArchiviaFile(inner + ".p7m", inner + ".p7m.p7m", "", "Verbali", april_);
    e.ChiudiIndice();
  }
  std::string p = problems(VerifyArchive(arch_));
  EXPECT_NE(p.find("verbale è.txt: envelope layer 2: "), std::string::npos) << p;
  EXPECT_EQ(p.find("verbale è.txt: envelope layer 1: "), std::string::npos) << p;
  EXPECT_EQ(p.find("verbale è.txt: the envelope's content is not"), std::string::npos) << p;
  EXPECT_NE(p.find("inner.txt.p7m: the envelope's content is not the archived data file"),
            std::string::npos)
      << p;
  cli = test::run({test::cli_path(), "--store", store_.path(), "archive", "verify", arch_});
  EXPECT_EQ(cli.exit_code, 1);
  EXPECT_NE(cli.out.find("envelope layer 2: "), std::string::npos) << cli.out;
}

TEST_F(ArchiveCheck, EnvelopesThatAreNotEnvelopesOrDoNotMatch) {
  test::write_file(at("Fatture/2021/04/c.txt.p7m"), "not an envelope");
  std::string p = problems(VerifyArchive(arch_));
  EXPECT_NE(p.find("Fatture#0 c.txt: envelope: this is text, not a CMS envelope (Failed to load "
                   "CMS message, error "),
            std::string::npos)
      << p;
  EXPECT_THROW(ListArchive(dir_ / "nowhere"), Exception);
  ArchiveCheckReport none = VerifyArchive(dir_ / "nowhere");
  EXPECT_FALSE(none.ok());
  EXPECT_NE(problems(none).find("index unreadable"), std::string::npos);
}

}  // namespace
}  // namespace tessarel
