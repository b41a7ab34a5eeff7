// The engine's single-file operations: the verification report, content extraction and
// signing, as a host sees them.
#include <gtest/gtest.h>

#include <algorithm>

#include <filesystem>

#include "archive/sign_e_archivia.h"
#include "cms_support.h"
#include "frontends/scripted_ui.h"
#include "platform/asn1/der.h"
#include "platform/crypto/digest.h"
#include "platform/runtime/datetime.h"
#include "tessarel/signing.h"

namespace tessarel {
namespace {

class Report : public ::testing::Test {
 protected:
  void SetUp() override {
    test::CertParams s;
    s.cn = "Giovanna Firmataria";
    s.serial = {0x51, 0x6E};
    tc_ = std::make_unique<test::TestCert>(test::make_cert(s));
    store_.add(*tc_);
  }
  std::string write(const std::string& name, const Bytes& b) {
    test::write_file(dir_ / name, b);
    return dir_ / name;
  }
  std::string expected_tail(const std::string& algorithm = "SHA-256") const {
    std::string until = FormatShortDate(
        LocalDateTime(std::chrono::system_clock::time_point(tc_->cert.not_after())));
    return "Informazioni certificato\r\nFirmatario : Giovanna Firmataria\r\nEmesso da: Giovanna "
           "Firmataria\r\n"
           "Valido fino al: " +
           until + "\r\n\r\nDocumento Firmato il : 03/03/2021 12:00:00\r\n\r\nAlgoritmo " +
           algorithm;
  }
  test::TempDir dir_;
  test::ScopedStore store_;
  std::unique_ptr<test::TestCert> tc_;
  std::shared_ptr<ScriptedUi> ui_ = std::make_shared<ScriptedUi>();
  test::ScopedUi scoped_{ui_};
  TSignEArchivia engine_;
};

TEST_F(Report, AttachedCadesBesEnvelope) {
  std::string env = write("contratto.xml.p7m", test::SignBytes({'<', 'x', '/', '>'}, *tc_));
  engine_.VerificaFirma(env);
  ASSERT_EQ(ui_->messages().size(), 1u);
  EXPECT_EQ(ui_->messages()[0].kind, MessageKind::Information);
  EXPECT_EQ(ui_->messages()[0].text, "Documento firmato digitalmente\r\n\r\n" + expected_tail() +
                                         " di tipo CAdES - BES\r\n\r\n Il file risulta valido\r\n");
}

TEST_F(Report, DetachedEnvelopeFindsItsDataBesideIt) {
  Bytes data{'p', 'd', 'f'};
  std::string pdf = write("x.pdf", data);
  test::SignOptions o;
  o.detached = true;
  std::string env = write("x.pdf.p7s", test::SignBytes(data, *tc_, o));
  engine_.VerificaFirma(env);
  ASSERT_EQ(ui_->messages().size(), 1u);
  EXPECT_EQ(ui_->messages()[0].text,
            "Documento firmato digitalmente il modalità detached \r\nFile dati: " + pdf +
                "\r\n\r\n" + expected_tail() +
                " di tipo CAdES - BES\r\n\r\n Il file risulta valido\r\n");
  std::filesystem::remove(pdf);
  try {
    engine_.VerificaFirma(env);
    FAIL() << "no exception without the data file";
  } catch (const Exception& e) {
    EXPECT_EQ(std::string(e.what()),
              "File origine dei dati non trovato: " + pdf +
                  "\r\nIl file deve risiedere nella stessa cartella del file di firma");
  }
}

TEST_F(Report, NotCadesBesIsValidButNotConforming) {
  test::SignOptions o;
  o.options = 0x00BF & ~0x0020;
  std::string env = write("a.p7m", test::SignBytes({'a'}, *tc_, o));
  engine_.VerificaFirma(env);
  EXPECT_EQ(ui_->messages()[0].text, "Documento firmato digitalmente\r\n\r\n" + expected_tail() +
                                         " non di tipo CAdES - BES\r\n\r\n Il file risulta valido "
                                         "ma con firma non conforme alle ultime norme");
}

TEST_F(Report, DamagedContentBeepsAndRaises) {
  Bytes env = test::SignBytes({'o', 'r', 'i', 'g', 'i', 'n', 'a', 'l'}, *tc_);
  auto pos =
      std::search(env.begin(), env.end(), std::begin("original"), std::begin("original") + 8);
  ASSERT_NE(pos, env.end());
  *pos = 'O';
  std::string path = write("d.p7m", env);
  try {
    engine_.VerificaFirma(path);
    FAIL() << "a changed content was reported valid";
  } catch (const Exception& e) {
    EXPECT_STREQ(e.what(), "Verifica errata: il file non corrisponde all'originale");
  }
  EXPECT_EQ(ui_->beeps, 1);
  EXPECT_TRUE(ui_->messages().empty());
}

TEST_F(Report, ASha1SignerIsComparedAsSha256AndFails) {
  TElSignedCMSMessage m;
  Bytes data{'s', 'h', 'a'};
  m.CreateNew(data.data(), data.size());
  TElCMSSignature* s = m.GetSignature(m.AddSignature());
  s->SetDigestAlgorithm(DigestAlgorithm::SHA1);
  s->FFingerprintAlgorithm = DigestAlgorithm::SHA256;
  s->FSigningOptions = 0x00BF;
  s->FSigningTime = 44258.5;
  test::KeyOf key(tc_->key);
  s->Sign(tc_->cert, &key);
  std::string path = write("sha1.p7m", m.SaveToBytes());
  EXPECT_THROW(engine_.VerificaFirma(path), Exception);
  EXPECT_EQ(ui_->beeps, 1);
}

TEST_F(Report, NoCertificatesOrNoSignerOrWrongExtension) {
  test::SignOptions no_cert;
  no_cert.options = 0x00BF & ~0x0010;
  std::string path = write("nc.p7m", test::SignBytes({'n'}, *tc_, no_cert));
  try {
    engine_.VerificaFirma(path);
    FAIL();
  } catch (const Exception& e) {
    EXPECT_STREQ(e.what(), "il file non contiene certificati validi");
  }
  TElSignedCMSMessage m;
  Bytes data{'z'};
  m.CreateNew(data.data(), data.size());
  m.FCertificates.push_back(tc_->cert.der());
  std::string unsigned_env = write("ns.p7m", m.SaveToBytes());
  engine_.VerificaFirma(unsigned_env);
  ASSERT_EQ(ui_->messages().size(), 1u);
  EXPECT_EQ(ui_->messages()[0].kind, MessageKind::Error);
  EXPECT_EQ(ui_->messages()[0].text, "Firma non trovata. Verifica non può essere fatta.");
  try {
    engine_.VerificaFirma(dir_ / "file.txt");
    FAIL();
  } catch (const Exception& e) {
    EXPECT_STREQ(e.what(), "il file non contiene firma");
  }
  std::string garbage = write("g.p7m", Bytes{'n', 'o', 't'});
  EXPECT_THROW(engine_.VerificaFirma(garbage), EElCMSError);
}

TEST_F(Report, ExtractionWritesBesideTheEnvelope) {
  Bytes data{'d', 'a', 't', 'i'};
  std::string env = write("A.P7M", test::SignBytes(data, *tc_));
  test::write_file(dir_ / "A", "old");
  EXPECT_EQ(engine_.EstraiContenuto(env), dir_ / "A");
  EXPECT_EQ(test::read_bytes(dir_ / "A"), data);
  test::SignOptions o;
  o.detached = true;
  std::string detached = write("empty.bin.p7m", test::SignBytes(data, *tc_, o));
  EXPECT_EQ(engine_.EstraiContenuto(detached), dir_ / "empty.bin");
  EXPECT_EQ(test::read_file(dir_ / "empty.bin"), "");
  try {
    engine_.EstraiContenuto(dir_ / "x.p7s");
    FAIL();
  } catch (const Exception& e) {
    EXPECT_STREQ(e.what(), "il file deve avere estensione .p7m");
  }
  EXPECT_THROW(engine_.EstraiContenuto(dir_ / "missing.p7m"), EFOpenError);
}

// The slot takes off one layer of a nest, as it always has; the public function for
// extraction goes down to the document.
TEST_F(Report, ExtractionFromANestTakesOffOneLayerThroughTheSlot) {
  Bytes data{'v', 'e', 'r', 'b', 'a', 'l', 'e'};
  Bytes inner = test::SignBytes(data, *tc_);
  std::string nest = write("verbale è.txt.p7m.p7m", test::SignBytes(inner, *tc_));
  EXPECT_EQ(engine_.EstraiContenuto(nest), dir_ / "verbale è.txt.p7m");
  EXPECT_EQ(test::read_bytes(dir_ / "verbale è.txt.p7m"), inner);
  // Again from what it wrote: the next layer.
  EXPECT_EQ(engine_.EstraiContenuto(dir_ / "verbale è.txt.p7m"), dir_ / "verbale è.txt");
  EXPECT_EQ(test::read_bytes(dir_ / "verbale è.txt"), data);
  std::filesystem::remove(dir_ / "verbale è.txt");
  std::filesystem::remove(dir_ / "verbale è.txt.p7m");
  ExtractedContent x = ExtractEnvelopeLayer(nest, "", 0);
  EXPECT_EQ(x.output, dir_ / "verbale è.txt");
  EXPECT_EQ(x.layers, 2);
  EXPECT_EQ(test::read_bytes(dir_ / "verbale è.txt"), data);
  EXPECT_FALSE(std::filesystem::exists(dir_ / "verbale è.txt.p7m"));
  EXPECT_TRUE(ui_->messages().empty());
}

TEST_F(Report, TextEnvelopesReadAndTrustLinesOnlyWhenTheHostAsks) {
  test::SignOptions now;
  now.time =
      DateTimeFromSys(std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now()));
  Bytes data{'<', 'x', '/', '>'};
  std::string flat = crypto::base64_encode(test::SignBytes(data, *tc_, now)), text;
  for (std::size_t i = 0; i < flat.size(); i += 64)
    text += flat.substr(i, 64) + "\r\n";
  std::string env = dir_ / "fattura.xml.p7m";
  test::write_file(env, text);
  engine_.VerificaFirma(env);
  ASSERT_EQ(ui_->messages().size(), 1u);
  std::string plain = ui_->messages()[0].text;
  EXPECT_EQ(plain.rfind("Documento firmato digitalmente\r\n\r\n", 0), 0u) << plain;
  EXPECT_TRUE(plain.ends_with(" di tipo CAdES - BES\r\n\r\n Il file risulta valido\r\n"));

  TrustOptions trust;
  trust.anchors = {test::write_pem(tc_->cert, dir_ / "anchor.pem")};
  SetEngineTrustOptions(engine_, trust);
  engine_.VerificaFirma(env);
  EXPECT_EQ(ui_->messages()[1].text, plain + "trusted: yes\r\n");
  test::CertParams other;
  other.cn = "Altra Autorita";
  trust.anchors = {test::write_pem(test::make_cert(other).cert, dir_ / "other.pem")};
  SetEngineTrustOptions(engine_, trust);
  engine_.VerificaFirma(env);
  EXPECT_EQ(ui_->messages()[2].text,
            plain + "trusted: no (the root CN=Giovanna Firmataria is not a trust anchor)\r\n");
  // The report without CAdES-BES ends without a line break; the trust line starts a new one.
  now.options = 0x00BF & ~0x0020;
  std::string not_bes = write("nb.p7m", test::SignBytes(data, *tc_, now));
  engine_.VerificaFirma(not_bes);
  EXPECT_TRUE(ui_->messages()[3].text.ends_with(
      "alle ultime norme\r\ntrusted: no (the root CN=Giovanna Firmataria is not a trust "
      "anchor)\r\n"));
  SetEngineTrustOptions(engine_, TrustOptions{});
  engine_.VerificaFirma(env);
  EXPECT_EQ(ui_->messages()[4].text, plain);

  // Extraction reads the text envelope too, and takes off one layer.
  EXPECT_EQ(engine_.EstraiContenuto(env), dir_ / "fattura.xml");
  EXPECT_EQ(test::read_bytes(dir_ / "fattura.xml"), data);
}

TEST_F(Report, FirmaSignsEveryListedFileAndRemembersItsSettings) {
  write("one.txt", Bytes{'1'});
  write("two.txt", Bytes{'2'});
  engine_.Firma(dir_ / "one.txt\n" + dir_ / "two.txt", "516E", true);
  EXPECT_TRUE(std::filesystem::exists(dir_ / "one.txt.p7s"));
  EXPECT_TRUE(std::filesystem::exists(dir_ / "two.txt.p7s"));
  EXPECT_EQ(engine_.id_cert(), "516E");
  EXPECT_TRUE(engine_.detached());
  engine_.Firma(dir_ / "one.txt", "NOPE", false);  // unknown certificate: nothing, silently
  EXPECT_FALSE(std::filesystem::exists(dir_ / "one.txt.p7m"));
  EXPECT_EQ(engine_.id_cert(), "NOPE");
  EXPECT_TRUE(ui_->shown.empty());
}

}  // namespace
}  // namespace tessarel
