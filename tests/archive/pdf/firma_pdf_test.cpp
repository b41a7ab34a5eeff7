// FirmaPdf as a host calls it, through the engine's virtual slot: the file sequence, the
// password dialog, the store and the PFX stream, and every message of its failure table.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <regex>
#include <sstream>

#include "archive/pdf_signing.h"
#include "frontends/scripted_ui.h"
#include "pdf_fixtures.h"
#include "platform/crypto/pkcs12.h"
#include "platform/pdf/pdf_document.h"
#include "tessarel/exports.h"
#include "tessarel/pdf.h"
#include "tessarel/sign_e_archivia.h"
#include "test_support.h"

namespace tessarel {
namespace {

test::CertParams cert_params(const std::string& cn, KeyKind kind = KeyKind::Rsa, int bits = 2048) {
  test::CertParams p;
  p.cn = cn;
  p.kind = kind;
  p.bits = bits;
  return p;
}

// Size of the DER element at the start of the bytes (its header says).
std::size_t der_size(const Bytes& b) {
  if (b.size() < 2 || b[0] != 0x30) return 0;
  if (b[1] < 0x80) return 2 + b[1];
  std::size_t n = b[1] & 0x7F, len = 0;
  for (std::size_t i = 0; i < n; ++i)
    len = len << 8 | b[2 + i];
  return 2 + n + len;
}

// A key that says it is smaller than the signatures it makes (as a token that reports the
// wrong size would): the space reserved from what it says is too small for its value.
class UnderstatedKey : public SigningKey {
 public:
  explicit UnderstatedKey(const crypto::PrivateKey& real) : real_(real) {}
  KeyKind kind() const override { return KeyKind::Rsa; }
  int bits() const override { return 1024; }
  Bytes sign_digest(DigestAlgorithm alg, const Bytes& digest) const override {
    return real_.sign_digest(alg, digest);
  }

 private:
  const crypto::PrivateKey& real_;
};

class FirmaPdfTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Temporary files go to a folder of the test's own, so leftovers can be counted.
    std::filesystem::create_directory(tmp_);
    const char* old = std::getenv("TMPDIR");
    if (old) old_tmpdir_ = old;
    setenv("TMPDIR", tmp_.c_str(), 1);
    signer_ = std::make_unique<test::TestCert>(test::make_cert(cert_params("Mario Rossi")));
    store_.add(*signer_);
    test::write_file(src_, original_);
  }
  void TearDown() override {
    if (old_tmpdir_.empty())
      unsetenv("TMPDIR");
    else
      setenv("TMPDIR", old_tmpdir_.c_str(), 1);
  }

  bool firma(const std::string& fname, const std::string& dest, const std::string& reason,
             const std::string& name, std::istream* stream, bool passw, const std::string& cert,
             bool invisible = false) {
    std::unique_ptr<ISignEArchivia> engine(GetSignEArchivia());
    return engine->FirmaPdf(fname, dest, reason, name, stream, passw, cert, invisible);
  }
  std::vector<std::string> messages() const {
    std::vector<std::string> out;
    for (const auto& m : ui_->messages())
      out.push_back(m.text);
    return out;
  }
  bool temp_folder_empty() const { return std::filesystem::is_empty(tmp_); }
  std::string update_of(const std::string& path) const {
    return test::read_file(path).substr(original_.size());
  }
  // Nothing written, nothing left behind, the source as it was.
  void expect_untouched(const std::string& dest) {
    EXPECT_FALSE(std::filesystem::exists(dest)) << dest;
    EXPECT_EQ(test::read_file(src_), original_);
    EXPECT_TRUE(temp_folder_empty());
  }

  test::TempDir dir_;
  std::string tmp_ = dir_ / "tmp";
  std::string old_tmpdir_;
  test::ScopedStore store_;
  std::unique_ptr<test::TestCert> signer_;
  std::shared_ptr<ScriptedUi> ui_ = std::make_shared<ScriptedUi>();
  test::ScopedUi scoped_ui_{ui_};
  std::string original_ = test::hand_pdf();
  std::string src_ = dir_ / "contratto è.pdf";
};

TEST_F(FirmaPdfTest, StoreCertificateSignsACopyAndTheOriginalBytesStay) {
  std::string dest = dir_ / "firmato ñ.pdf";
  ASSERT_TRUE(firma(src_, dest, "Approvazione", "Mario Rossi", nullptr, false, signer_->cert.id()));
  EXPECT_TRUE(messages().empty());
  EXPECT_EQ(test::read_file(src_), original_);
  std::string signed_pdf = test::read_file(dest);
  ASSERT_GT(signed_pdf.size(), original_.size());
  EXPECT_EQ(signed_pdf.substr(0, original_.size()), original_);
  EXPECT_TRUE(temp_folder_empty());

  PdfReport r = VerifyPdf(dest);
  ASSERT_EQ(r.signatures.size(), 1u);
  const auto& s = r.signatures[0];
  EXPECT_TRUE(r.valid);
  EXPECT_TRUE(s.whole_document);
  EXPECT_EQ(s.field, "Signature1");
  EXPECT_EQ(s.sub_filter, "adbe.pkcs7.detached");
  EXPECT_EQ(s.name, "Mario Rossi");
  EXPECT_EQ(s.reason, "Approvazione di Mario Rossi");
  ASSERT_EQ(s.cms.signers.size(), 1u);
  EXPECT_EQ(s.cms.signers[0].certificate_id, signer_->cert.id());
  EXPECT_TRUE(s.cms.signers[0].cades_bes);
  // The dictionary's time and the CMS signing time are the same moment, in UTC.
  EXPECT_EQ(s.signing_time, s.cms.signers[0].signing_time);
  auto info = pdf::Document::open(dest)->signatures();
  EXPECT_EQ(info[0].filter, "Adobe.PPKMS");
  std::string update = update_of(dest);
  EXPECT_NE(update.find("(Firmato: Mario Rossi) Tj"), std::string::npos);
  EXPECT_NE(update.find("/BaseFont/Helvetica/Encoding/WinAnsiEncoding"), std::string::npos);
  EXPECT_NE(update.find("/SigFlags 3"), std::string::npos);
}

TEST_F(FirmaPdfTest, WithoutDestinationTheSourceIsReplacedAndCanBeSignedAgain) {
  ASSERT_TRUE(firma(src_, "", "", "Mario Rossi", nullptr, false, signer_->cert.id()));
  std::string once = test::read_file(src_);
  EXPECT_EQ(once.substr(0, original_.size()), original_);
  ASSERT_TRUE(firma(src_, src_, "", "Anna Bianchi", nullptr, false, signer_->cert.id()));
  std::string twice = test::read_file(src_);
  EXPECT_EQ(twice.substr(0, once.size()), once);
  PdfReport r = VerifyPdf(src_);
  ASSERT_EQ(r.signatures.size(), 2u);
  EXPECT_TRUE(r.valid);
  EXPECT_EQ(r.signatures[0].field, "Signature1");
  EXPECT_EQ(r.signatures[1].field, "Signature2");
  EXPECT_FALSE(r.signatures[0].whole_document);
  EXPECT_TRUE(r.signatures[0].later_changes_allowed);
  EXPECT_TRUE(r.signatures[1].whole_document);
  EXPECT_TRUE(messages().empty());
  EXPECT_TRUE(temp_folder_empty());

  // A destination that is a symbolic link stays one; the file it names gets the document,
  // with the mode it had.
  std::string target = dir_ / "archiviato.pdf";
  test::write_file(target, "vecchio");
  ::chmod(target.c_str(), 0640);
  std::filesystem::create_symlink(target, dir_ / "collegamento.pdf");
  ASSERT_TRUE(firma(src_, dir_ / "collegamento.pdf", "", "", nullptr, false, signer_->cert.id()));
  EXPECT_TRUE(std::filesystem::is_symlink(dir_ / "collegamento.pdf"));
  EXPECT_EQ(test::read_file(target).substr(0, twice.size()), twice);
  EXPECT_TRUE(VerifyPdf(target).valid);
  struct stat st {};
  ASSERT_EQ(::stat(target.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
}

TEST_F(FirmaPdfTest, PfxStreamWithThePasswordDialog) {
  test::TestCert pfx_cert = test::make_cert(cert_params("Firma Da Pfx", KeyKind::Ec, 256));
  Bytes pfx = crypto::write_pkcs12(pfx_cert.cert, pfx_cert.key, "segreta");
  std::string dest = dir_ / "out.pdf";

  // The dialog's text is the password.
  ui_->answer_password("segreta");
  std::istringstream good(std::string(pfx.begin(), pfx.end()));
  ASSERT_TRUE(firma(src_, dest, "", "", &good, true, ""));
  EXPECT_TRUE(messages().empty());
  PdfReport r = VerifyPdf(dest);
  ASSERT_EQ(r.signatures.size(), 1u);
  EXPECT_TRUE(r.valid);
  EXPECT_EQ(r.signatures[0].cms.signers[0].certificate_id, pfx_cert.cert.id());
  // Without a name the visible text names the certificate's holder; there is no /Name.
  EXPECT_NE(update_of(dest).find("(Firmato: Firma Da Pfx) Tj"), std::string::npos);
  EXPECT_EQ(r.signatures[0].name, "");
  std::filesystem::remove(dest);

  // A wrong password: "Error: " and the reader's message; nothing written.
  ui_->answer_password("sbagliata");
  std::istringstream wrong(std::string(pfx.begin(), pfx.end()));
  EXPECT_FALSE(firma(src_, dest, "", "", &wrong, true, ""));
  ASSERT_EQ(messages().size(), 1u);
  EXPECT_EQ(messages()[0].rfind("Error: ", 0), 0u) << messages()[0];
  EXPECT_GT(messages()[0].size(), 7u);
  expect_untouched(dest);

  // The dialog cancelled: no message, nothing written.
  ui_->answer_password("segreta", ModalResult::Cancel);
  std::istringstream cancelled(std::string(pfx.begin(), pfx.end()));
  EXPECT_FALSE(firma(src_, dest, "", "", &cancelled, true, ""));
  EXPECT_EQ(messages().size(), 1u);
  expect_untouched(dest);

  // passw false: the PFX is opened with the empty password, without a dialog.
  Bytes open_pfx = crypto::write_pkcs12(pfx_cert.cert, pfx_cert.key, "");
  std::istringstream empty_pw(std::string(open_pfx.begin(), open_pfx.end()));
  std::size_t dialogs = ui_->shown.size();
  EXPECT_TRUE(firma(src_, dest, "", "", &empty_pw, false, ""));
  EXPECT_EQ(ui_->shown.size(), dialogs);
  EXPECT_TRUE(VerifyPdf(dest).valid);
  EXPECT_TRUE(ui_->all_answers_used());
}

TEST_F(FirmaPdfTest, WithoutACertificateSourceNothingHappens) {
  std::istringstream empty;
  EXPECT_FALSE(firma(src_, dir_ / "out.pdf", "", "", &empty, true, ""));
  EXPECT_FALSE(firma(src_, dir_ / "out.pdf", "", "", nullptr, false, ""));
  EXPECT_TRUE(ui_->shown.empty());
  expect_untouched(dir_ / "out.pdf");
}

TEST_F(FirmaPdfTest, StoreCertificatesThatCannotSign) {
  std::string dest = dir_ / "out.pdf";
  EXPECT_FALSE(firma(src_, dest, "", "", nullptr, false, "00DEADBEEF"));
  // The identifier is compared exactly: lower case names no certificate.
  std::string lower = signer_->cert.id();
  for (auto& c : lower)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  EXPECT_FALSE(firma(src_, dest, "", "", nullptr, false, lower));
  test::TestCert keyless = test::make_cert(cert_params("Senza Chiave"));
  store_.add(keyless, false);
  EXPECT_FALSE(firma(src_, dest, "", "", nullptr, false, keyless.cert.id()));
  EXPECT_EQ(messages(),
            (std::vector<std::string>{"Certificato non trovato", "Certificato non trovato",
                                      "Error: Private key not found"}));
  expect_untouched(dest);
}

TEST_F(FirmaPdfTest, DocumentsThatCannotBeSigned) {
  std::string dest = dir_ / "out.pdf";
  struct Case {
    std::string name, bytes, message;
  };
  std::string past =
      std::regex_replace(original_, std::regex(R"(startxref\n\d+)"), "startxref\n999999");
  std::vector<Case> cases = {
      {"truncated.pdf", original_.substr(0, original_.size() / 2), "Error: the PDF document"},
      {"text.pdf", "Documento di testo\n", "Error: "},
      {"past.pdf", past, "Error: the PDF document"},
      {"empty.pdf", "", "Error: "},
  };
  if (test::have_program("qpdf")) {
    test::TempDir t;
    test::write_file(t / "plain.pdf", original_);
    ASSERT_EQ(test::run({"qpdf", "--encrypt", "utente", "titolare", "256", "--", t / "plain.pdf",
                         t / "enc.pdf"})
                  .exit_code,
              0);
    cases.push_back(
        {"enc.pdf", test::read_file(t / "enc.pdf"), "Cannot sign the encrypted document"});
  }
  for (const auto& c : cases) {
    test::write_file(src_, c.bytes);
    ui_->shown.clear();
    EXPECT_FALSE(firma(src_, dest, "r", "n", nullptr, false, signer_->cert.id())) << c.name;
    ASSERT_EQ(messages().size(), 1u) << c.name;
    EXPECT_EQ(messages()[0].rfind(c.message, 0), 0u) << c.name << ": " << messages()[0];
    EXPECT_EQ(test::read_file(src_), c.bytes) << c.name;
    EXPECT_FALSE(std::filesystem::exists(dest)) << c.name;
    EXPECT_TRUE(temp_folder_empty()) << c.name;
  }
  // A source that is not there: the temporary copy cannot be made.
  ui_->shown.clear();
  EXPECT_FALSE(firma(dir_ / "missing.pdf", dest, "", "", nullptr, false, signer_->cert.id()));
  EXPECT_EQ(messages(), std::vector<std::string>{"Errore nella creazione del file temporaneo"});
  EXPECT_TRUE(temp_folder_empty());
}

TEST_F(FirmaPdfTest, AFailedFinalCopyIsReportedButTheResultStaysTrue) {
  std::string dest = dir_ / "no such folder/out.pdf";
  EXPECT_TRUE(firma(src_, dest, "", "", nullptr, false, signer_->cert.id()));
  EXPECT_EQ(messages(), std::vector<std::string>{"Failed to save temporary file"});
  EXPECT_EQ(test::read_file(src_), original_);
  EXPECT_TRUE(temp_folder_empty());

  // An existing destination is replaced whole, keeping its permissions.
  std::string existing = dir_ / "existing.pdf";
  test::write_file(existing, "old contents");
  ::chmod(existing.c_str(), 0640);
  EXPECT_TRUE(firma(src_, existing, "", "", nullptr, false, signer_->cert.id()));
  EXPECT_EQ(test::read_file(existing).substr(0, original_.size()), original_);
  struct stat st {};
  ::stat(existing.c_str(), &st);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
}

TEST_F(FirmaPdfTest, InvisibleSignaturesAndTheReasonField) {
  std::string dest = dir_ / "invisible.pdf";
  ASSERT_TRUE(firma(src_, dest, "", "Mario Rossi", nullptr, false, signer_->cert.id(), true));
  std::string update = update_of(dest);
  EXPECT_NE(update.find("/Rect[0 0 0 0]"), std::string::npos);
  EXPECT_EQ(update.find("/AP"), std::string::npos);
  EXPECT_EQ(update.find("Firmato"), std::string::npos);
  auto s = pdf::Document::open(dest)->signatures();
  ASSERT_EQ(s.size(), 1u);
  EXPECT_EQ(s[0].name, "Mario Rossi");
  EXPECT_EQ(s[0].reason, "");

  ASSERT_TRUE(firma(src_, dest, "Solo il motivo", "", nullptr, false, signer_->cert.id(), true));
  s = pdf::Document::open(dest)->signatures();
  EXPECT_EQ(s[0].reason, "Solo il motivo");
  EXPECT_EQ(s[0].name, "");
  EXPECT_TRUE(VerifyPdf(dest).valid);
}

TEST_F(FirmaPdfTest, AValueLargerThanItsReservedSpaceIsAnErrorAndNothingIsAppended) {
  std::string copy = dir_ / "copia.pdf";
  test::write_file(copy, original_);
  auto doc = pdf::Document::open(copy);
  PdfSigner signer{signer_->cert, std::make_shared<UnderstatedKey>(signer_->key), {}};
  PdfSignatureSettings settings;
  settings.display = "Firmato: Mario Rossi";
  try {
    SignPdfDocument(*doc, copy, signer, settings);
    ADD_FAILURE() << "a signature value was written into a space too small for it";
  } catch (const Exception& e) {
    EXPECT_NE(std::string(e.what()).find("does not fit the space reserved for it"),
              std::string::npos)
        << e.what();
  }
  EXPECT_EQ(test::read_file(copy), original_);
}

TEST_F(FirmaPdfTest, TheReservedSpaceIsComputedForEveryKeyKind) {
  // RSA signatures have a fixed size: the value fills its space exactly. (EC)DSA values vary
  // by a few bytes, and the space is sized for the longest.
  struct Key {
    KeyKind kind;
    int bits;
  };
  for (Key k : {Key{KeyKind::Rsa, 2048}, Key{KeyKind::Rsa, 4096}, Key{KeyKind::Ec, 256},
                Key{KeyKind::Ec, 384}, Key{KeyKind::Dsa, 2048}}) {
    test::TestCert tc = test::make_cert(cert_params("Chiave", k.kind, k.bits));
    Bytes pfx = crypto::write_pkcs12(tc.cert, tc.key, "");
    std::string dest = dir_ / "k.pdf";
    for (int round = 0; round < 4; ++round) {
      std::istringstream in(std::string(pfx.begin(), pfx.end()));
      ASSERT_TRUE(firma(src_, dest, "", "", &in, false, "")) << static_cast<int>(k.kind);
      auto s = pdf::Document::open(dest)->signatures();
      ASSERT_EQ(s.size(), 1u);
      std::size_t spare = s[0].contents.size() - der_size(s[0].contents);
      if (k.kind == KeyKind::Rsa)
        EXPECT_EQ(spare, 0u) << k.bits;
      else  // DSA: sized for a 256-bit subgroup; a 224-bit one leaves 8 bytes more
        EXPECT_LE(spare, k.kind == KeyKind::Dsa ? 12u : 4u) << static_cast<int>(k.kind);
      EXPECT_TRUE(VerifyPdf(dest).valid);
    }
  }
  EXPECT_EQ(MaxSignatureSize(KeyKind::Rsa, 3072), 384u);
  EXPECT_EQ(MaxSignatureSize(KeyKind::Ec, 256), 72u);
  EXPECT_EQ(MaxSignatureSize(KeyKind::Ec, 521), 141u);
  EXPECT_TRUE(messages().empty());
}

}  // namespace
}  // namespace tessarel
