// The engine through its virtual slots, as a host drives it, with inputs that used to
// crash it or leave an index no parser accepts: empty files, names in every X.509 string
// type, malformed record parameters, and a certificate created in the same process.
#include <gtest/gtest.h>
#include <openssl/asn1.h>

#include <filesystem>

#include "archive_fixture.h"
#include "certgen/wizard_internal.h"
#include "platform/xml/dom.h"
#include "tessarel/errors.h"
#include "tessarel/exports.h"
#include "tessarel/picker.h"
#include "tessarel/sign_e_archivia.h"
#include "tessarel/signing.h"
#include "tessarel/wizard.h"

namespace tessarel {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class EngineSafety : public test::ArchiveFixture {
 protected:
  std::unique_ptr<ISignEArchivia> engine_{GetSignEArchivia()};

  bool xmlsec_accepts(const std::string& index, const Certificate& signer) {
    test::write_pem(signer, dir_ / "signer.pem");
    auto r = test::run({"xmlsec1", "--verify", "--enabled-key-data", "x509", "--trusted-pem",
                        dir_ / "signer.pem", "--enabled-reference-uris", "empty", index});
    return r.exit_code == 0;
  }
};

TEST_F(EngineSafety, EmptyFilesAreSignedAndArchivedThroughTheSlots) {
  std::string empty = input("vuoto.txt", "");
  engine_->Firma(empty, "0A2C", false);
  ASSERT_TRUE(fs::exists(empty + ".p7m"));
  EnvelopeReport r = VerifyEnvelope(empty + ".p7m");
  EXPECT_TRUE(r.valid);
  EXPECT_FALSE(r.detached);
  EXPECT_EQ(r.content_size, 0u);
  fs::remove(empty + ".p7m");

  engine_->ApriIndice(arch_, "0A2C", false);
  engine_->FirmaEArchiviaFile(empty, "<Nota>vuoto</Nota>", "Contratti", march_);
  engine_->ChiudiIndice();
  EXPECT_EQ(fs::file_size(at("Contratti/2021/03/vuoto.txt")), 0u);
  ArchiveCheckReport check = VerifyArchive(arch_);
  EXPECT_TRUE(check.ok()) << (check.problems.empty() ? "" : check.problems[0].what);
  EXPECT_TRUE(xmlsec_accepts(at("index.xml"), tc_->cert));
  // The archived envelope extracts to an empty file.
  EXPECT_EQ(ExtractEnvelopeContent(at("Contratti/2021/03/vuoto.txt.p7m"), dir_ / "x.out"), 0u);
  EXPECT_EQ(fs::file_size(dir_ / "x.out"), 0u);
}

TEST_F(EngineSafety, NamesInEveryStringTypeGiveAWellFormedSignedIndex) {
  auto be16 = [](const std::u16string& s) {
    std::string out;
    for (char16_t c : s) {
      out.push_back(static_cast<char>(c >> 8));
      out.push_back(static_cast<char>(c & 0xFF));
    }
    return out;
  };
  auto be32 = [](const std::u32string& s) {
    std::string out;
    for (char32_t c : s)
      for (int shift : {24, 16, 8, 0})
        out.push_back(static_cast<char>((c >> shift) & 0xFF));
    return out;
  };
  test::CertParams p;
  p.cn = "Nomi Misti";
  p.serial = {0x5A, 0x5A};
  p.raw_subject = {
      {"L", V_ASN1_PRINTABLESTRING, "Citt\xe0"},           // 8-bit bytes, taken as Latin-1
      {"ST", V_ASN1_T61STRING, "Forl\xec"},                // T61String with a Latin-1 byte
      {"O", V_ASN1_BMPSTRING, be16(u"Società €")},         // UTF-16BE
      {"OU", V_ASN1_UNIVERSALSTRING, be32(U"Ufficio 𝄞")},  // UTF-32BE, outside the BMP
      {"street", V_ASN1_UTF8STRING, "Via Nazionale \xc3\xa8"},
      {"title", V_ASN1_IA5STRING, "Dott."},
  };
  test::TestCert mixed = test::make_cert(p);
  store_.add(mixed);
  EXPECT_EQ(mixed.cert.subject_values(oid::kLocalityName), std::vector<std::string>{"Città"});
  EXPECT_EQ(mixed.cert.subject_values(oid::kStateOrProvinceName),
            std::vector<std::string>{"Forlì"});
  EXPECT_EQ(mixed.cert.subject_values(oid::kOrganizationName),
            std::vector<std::string>{"Società €"});
  EXPECT_EQ(mixed.cert.subject_values(oid::kOrganizationalUnitName),
            std::vector<std::string>{"Ufficio 𝄞"});
  const std::string text = mixed.cert.subject_text();
  for (const char* part :
       {"L=Città", "ST=Forlì", "O=Società €", "OU=Ufficio 𝄞", "street=Via Nazionale è"})
    EXPECT_NE(text.find(part), std::string::npos) << text;

  // The index carries the names in its X509 data: it must parse and verify, and reopen.
  for (const char* name : {"a.txt", "b.txt"}) {
    engine_->ApriIndice(arch_, "5A5A", false);
    engine_->FirmaEArchiviaFile(input(name, name), "", "Contratti", march_);
    engine_->ChiudiIndice();
  }
  std::string index = test::read_file(at("index.xml"));
  EXPECT_NO_THROW(xml::Document::Parse(reinterpret_cast<const std::uint8_t*>(index.data()),
                                       index.size(), "utf-8"));
  EXPECT_NE(index.find("Città"), std::string::npos);
  EXPECT_TRUE(xmlsec_accepts(at("index.xml"), mixed.cert));
  ArchiveCheckReport check = VerifyArchive(arch_, "5A5A");
  EXPECT_TRUE(check.ok()) << (check.problems.empty() ? "" : check.problems[0].what);
  EXPECT_NE(check.signer_subject.find("Forlì"), std::string::npos) << check.signer_subject;

  // The verification report and the picker show the same text.
  EnvelopeReport r = VerifyEnvelope(at("Contratti/2021/03/a.txt.p7m"));
  ASSERT_EQ(r.signers.size(), 1u);
  EXPECT_EQ(r.signers[0].subject, text);
  TfrmSelWinCert picker(open_store(store_.path()));
  picker.FormShow();
  bool shown = false;
  for (const auto& row : picker.rows())
    if (row.certificate == mixed.cert) shown = row.cells[1] == "Nomi Misti";
  EXPECT_TRUE(shown);
}

TEST_F(EngineSafety, AMalformedParameterIsRefusedBeforeAnythingIsCopied) {
  std::string doc = input("a.txt", "a");
  engine_->ApriIndice(arch_, "0A2C", false);
  EXPECT_THROW(engine_->ArchiviaFile(doc, "", "<Nota>aperta", "Contratti", march_), Exception);
  EXPECT_THROW(engine_->FirmaEArchiviaFile(doc, "<a></b>", "Contratti", march_), Exception);
  EXPECT_FALSE(fs::exists(doc + ".p7m")) << "signed although the record was refused";
  EXPECT_TRUE(tree().empty());
  // The session goes on: a good record closes and verifies.
  engine_->FirmaEArchiviaFile(doc, "<Nota>chiusa</Nota>", "Contratti", march_);
  engine_->ChiudiIndice();
  EXPECT_TRUE(VerifyArchive(arch_).ok());
  EXPECT_EQ(records().size(), 1u);
}

TEST_F(EngineSafety, ANewArchiveThatGetsNoRecordLeavesNothingBehind) {
  std::string doc = input("a.txt", "a");
  // A refused record, then a close with nothing to write: no folder, no lock file.
  engine_->ApriIndice(arch_, "0A2C", false);
  EXPECT_THROW(engine_->FirmaEArchiviaFile(doc, "", "a:b", march_), Exception);
  engine_->ChiudiIndice();
  EXPECT_FALSE(fs::exists(arch_));
  // The index is still open in the engine: a record made now makes the archive again.
  engine_->FirmaEArchiviaFile(doc, "", "Contratti", march_);
  engine_->ChiudiIndice();
  EXPECT_TRUE(VerifyArchive(arch_).ok());
  EXPECT_EQ(records().size(), 1u);

  // A host that lets an engine go without closing, and the missing parents of the folder.
  std::string nested = dir_ / "nuovi/archivio";
  {
    std::unique_ptr<ISignEArchivia> other(GetSignEArchivia());
    other->ApriIndice(nested, "0A2C", false);
    EXPECT_TRUE(fs::exists(nested + "/index.xml.lock"));
  }
  EXPECT_FALSE(fs::exists(dir_ / "nuovi"));
  // A certificate that is not there: nothing is made at all.
  EXPECT_THROW(engine_->ApriIndice(nested, "BAD0", false), Exception);
  EXPECT_FALSE(fs::exists(dir_ / "nuovi"));
  // An archive with an index keeps its lock file when a session writes nothing.
  engine_->ApriIndice(arch_, "0A2C", false);
  engine_->ChiudiIndice();
  EXPECT_TRUE(fs::exists(at("index.xml.lock")));
  EXPECT_TRUE(VerifyArchive(arch_).ok());
}

TEST_F(EngineSafety, ACertificateMadeInTheProcessIsUsableAtOnce) {
  // The host has already looked a certificate up, so the store's view is cached.
  EXPECT_TRUE(engine_->IsKeyPresent("0A2C"));
  ui_->answer_wizard([](TfrmGenerateCert& w) {
    w.edtCommonName = "Nuovo Firmatario";
    w.edtLocality = "Città";
    w.edtState = "";
    w.edtOrganization = "Studio Forlì";
    w.EdtEmail = "nuovo@example.org";
    w.btnNextClick();
    w.btnNextClick();
    w.btnGenerateClick();
    auto end = std::chrono::steady_clock::now() + 120s;
    while (w.modal_result() == ModalResult::None && std::chrono::steady_clock::now() < end)
      w.ProcessMessages(50ms);
  });
  EXPECT_EQ(engine_->GeneraCertificato(), "Nuovo Firmatario");
  std::string id;
  for (const auto& c : open_store(store_.path())->certificates())
    if (c.subject_cn() == "Nuovo Firmatario") id = c.id();
  ASSERT_FALSE(id.empty());
  EXPECT_TRUE(engine_->IsKeyPresent(id));
  std::string doc = input("b.txt", "b");
  engine_->ApriIndice(arch_, id, false);
  engine_->FirmaEArchiviaFile(doc, "", "Contratti", march_);
  engine_->ChiudiIndice();
  ArchiveCheckReport check = VerifyArchive(arch_, id);
  EXPECT_TRUE(check.ok()) << (check.problems.empty() ? "" : check.problems[0].what);

  // Its name uses string types that GnuTLS parses too; the empty province is left out.
  Certificate made = Certificate::from_der(test::read_bytes(store_.path() + "/" + [&] {
    for (auto& e : fs::directory_iterator(store_.path()))
      if (e.path().extension() == ".crt" &&
          Certificate::from_der(test::read_bytes(e.path())).id() == id)
        return e.path().filename().string();
    return std::string();
  }()));
  for (const auto& a : made.subject()) {
    EXPECT_NE(a.oid, oid::kStateOrProvinceName) << "empty attribute written";
    bool ascii = std::all_of(a.value.begin(), a.value.end(),
                             [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    if (a.oid == oid::kEmailAddress)
      EXPECT_EQ(a.tag, V_ASN1_IA5STRING);
    else
      EXPECT_EQ(a.tag, ascii ? V_ASN1_PRINTABLESTRING : V_ASN1_UTF8STRING) << a.oid;
  }
  if (test::have_program("certtool")) {
    test::write_pem(made, dir_ / "made.pem");
    auto r = test::run({"certtool", "--certificate-info", "--infile", dir_ / "made.pem"});
    EXPECT_EQ(r.exit_code, 0) << r.err;
    EXPECT_EQ(r.out.find("[error]"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("L=Città"), std::string::npos) << r.out;
  }
}

}  // namespace
}  // namespace tessarel
