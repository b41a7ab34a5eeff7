// The token store inside a host process: the engine through its virtual slots with a key
// on a SoftHSM2 token, one login for the whole process, several signing threads on the one
// session, the PIN form naming the token, and a token deleted while the process holds it.
// The tokens are made before the module is first loaded, in a temporary folder.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <thread>

#include "boundary/batch_signer.h"
#include "boundary/cert_lookup.h"
#include "frontends/scripted_ui.h"
#include "platform/crypto/digest.h"
#include "platform/crypto/pkey.h"
#include "platform/runtime/datetime.h"
#include "softhsm.h"
#include "tessarel/exports.h"
#include "tessarel/tessarel.h"
#include "test_support.h"

namespace tessarel {
namespace {

namespace fs = std::filesystem;

struct Tokens {
  std::unique_ptr<test::SoftHsm> hsm;
  std::string rsa_uri, ec_uri, fresh_uri, gone_uri, always_uri;
  std::optional<test::TestCert> rsa, ec, fresh, gone, always;
};
Tokens& tokens() {
  static Tokens t;
  return t;
}

// SoftHSM2 reads its configuration once per process, so every token is made up front.
class TokenEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    if (!test::SoftHsm::available()) return;
    Tokens& t = tokens();
    t.hsm = std::make_unique<test::SoftHsm>();
    auto make = [&](const std::string& label, KeyKind kind, std::optional<test::TestCert>& tc,
                    std::string& uri, std::vector<std::string> extra = {}) {
      test::CertParams p;
      p.cn = "Societ\xC3\xA0 " + label;
      p.kind = kind;
      p.bits = kind == KeyKind::Ec ? 256 : 2048;
      tc = test::make_cert(p);
      uri = t.hsm->add_token(label);
      t.hsm->put_key(label, *tc, "11", "firma", extra);
      t.hsm->put_cert(label, tc->cert, "11", "firma");
    };
    make("Motore", KeyKind::Rsa, t.rsa, t.rsa_uri);
    make("Ellittico", KeyKind::Ec, t.ec, t.ec_uri);
    make("Nuovo", KeyKind::Rsa, t.fresh, t.fresh_uri);
    make("Effimero", KeyKind::Rsa, t.gone, t.gone_uri);
    // A key that wants the PIN again before every signature, as qualified-signature cards do.
    make("Sempre", KeyKind::Ec, t.always, t.always_uri, {"--always-auth"});
    t.hsm->use_in_this_process();
  }
};
const auto* const kEnvironment = ::testing::AddGlobalTestEnvironment(new TokenEnvironment);

class TokenStore : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!tokens().hsm) GTEST_SKIP() << "SoftHSM2 or pkcs11-tool is not installed";
  }
  void TearDown() override {
    set_pin_provider(nullptr);
    set_store_location("");
  }
  // A PIN provider that counts how often it is asked.
  void pin(const std::string& value) {
    asked_ = std::make_shared<std::atomic<int>>(0);
    auto asked = asked_;
    set_pin_provider([asked, value](const std::string&) -> std::optional<std::string> {
      ++*asked;
      return value;
    });
  }
  bool openssl_verifies(const std::string& envelope, const Certificate& cert) {
    std::string pem = test::write_pem(cert, dir_ / "signer.pem");
    auto r = test::run({"openssl", "cms", "-verify", "-binary", "-inform", "DER", "-in", envelope,
                        "-CAfile", pem, "-purpose", "any", "-cades", "-out", "/dev/null"});
    last_ = r.err;
    return r.exit_code == 0;
  }
  test::TempDir dir_;
  std::shared_ptr<std::atomic<int>> asked_;
  std::string last_;
};

TEST_F(TokenStore, TheEngineSignsArchivesAndClosesWithTheTokenKeyAskingThePinOnce) {
  const Tokens& t = tokens();
  set_store_location(t.rsa_uri);
  pin("1234");
  std::string id = t.rsa->cert.id();
  std::unique_ptr<ISignEArchivia> engine(GetSignEArchivia());
  EXPECT_TRUE(engine->IsKeyPresent(id));
  EXPECT_FALSE(engine->IsKeyPresent(id + "00"));

  std::string arch = dir_ / "archivio";
  test::write_file(dir_ / "contratto.txt", "contratto\n");
  test::write_file(dir_ / "lettera.txt", "lettera\n");
  engine->ApriIndice(arch, id, false);
  engine->FirmaEArchiviaFile(dir_ / "contratto.txt", "", "Contratti", EncodeDateTime({2024, 5, 6}));
  engine->ChiudiIndice();
  engine->Firma(dir_ / "lettera.txt", id, true);

  EXPECT_EQ(*asked_, 1) << "one login for the process";
  EXPECT_TRUE(openssl_verifies(arch + "/Contratti/2024/05/contratto.txt.p7m", t.rsa->cert))
      << last_;
  std::string pem = test::write_pem(t.rsa->cert, dir_ / "rsa.pem");
  auto x = test::run({"xmlsec1", "--verify", "--enabled-key-data", "x509", "--trusted-pem", pem,
                      "--enabled-reference-uris", "empty", arch + "/index.xml"});
  EXPECT_EQ(x.exit_code, 0) << x.out << x.err;
  auto d = test::run({"openssl", "cms", "-verify", "-binary", "-inform", "DER", "-in",
                      dir_ / "lettera.txt.p7s", "-content", dir_ / "lettera.txt", "-CAfile", pem,
                      "-purpose", "any", "-out", "/dev/null"});
  EXPECT_EQ(d.exit_code, 0) << d.err;
}

TEST_F(TokenStore, SigningThreadsTakeTurnsOnTheOneSession) {
  const Tokens& t = tokens();
  for (const auto* tc : {&*t.rsa, &*t.ec}) {
    set_store_location(tc == &*t.rsa ? t.rsa_uri : t.ec_uri);
    pin("1234");
    const Certificate* cert = TrovaCertificato(tc->cert.id());
    ASSERT_TRUE(cert);
    std::shared_ptr<SigningKey> key = ChiaveDiFirma(*cert);
    ASSERT_TRUE(key);
    crypto::PublicKey pub = crypto::PublicKey::from_certificate(tc->cert);
    std::atomic<int> good{0}, bad{0};
    std::vector<std::thread> threads;
    for (int n = 0; n < 4; ++n)
      threads.emplace_back([&, n] {
        for (int i = 0; i < 25; ++i) {
          Bytes digest =
              crypto::sha256(Bytes{static_cast<std::uint8_t>(n), static_cast<std::uint8_t>(i)});
          try {
            Bytes sig = key->sign_digest(DigestAlgorithm::SHA256, digest);
            (pub.verify_digest(DigestAlgorithm::SHA256, digest, sig) ? good : bad)++;
          } catch (const std::exception&) {
            bad++;
          }
        }
      });
    for (auto& th : threads)
      th.join();
    EXPECT_EQ(good, 100);
    EXPECT_EQ(bad, 0);
  }
}

TEST_F(TokenStore, ThePinFormNamesTheTokenAndACancelSignsNothing) {
  const Tokens& t = tokens();
  set_store_location(t.fresh_uri);
  auto ui = std::make_shared<ScriptedUi>();
  test::ScopedUi scoped(ui);
  ui->answer_password("", ModalResult::Cancel);
  std::string id = t.fresh->cert.id();
  test::write_file(dir_ / "a.txt", "a");
  EXPECT_FALSE(FirmaFiles(dir_ / "a.txt", dir_ / "a.txt", id, false, nullptr, nullptr));
  EXPECT_FALSE(fs::exists(dir_ / "a.txt.p7m"));
  ASSERT_EQ(ui->shown.size(), 1u);
  EXPECT_EQ(ui->shown[0].dialog, "password");
  EXPECT_EQ(ui->shown[0].text, "Richiesta Password - token Nuovo");

  ResetSharedCertStorage();
  ui->answer_password("1234");
  EXPECT_TRUE(ChiaveValida(id));
  EXPECT_EQ(FirmaFiles(dir_ / "a.txt", dir_ / "a.txt", id, false, nullptr, nullptr),
            dir_ / "a.txt.p7m");
  EXPECT_EQ(ui->shown.size(), 2u) << "logged in once, asked once more";
  EXPECT_TRUE(openssl_verifies(dir_ / "a.txt.p7m", t.fresh->cert)) << last_;
}

TEST_F(TokenStore, ATokenDeletedWhileTheProcessHoldsItsSessionIsReportedAndNothingIsWritten) {
  const Tokens& t = tokens();
  set_store_location(t.gone_uri);
  pin("1234");
  std::string id = t.gone->cert.id();
  test::write_file(dir_ / "a.txt", "a");
  test::write_file(dir_ / "b.txt", "b");
  ASSERT_TRUE(FirmaFiles(dir_ / "a.txt", dir_ / "a.txt", id, false, nullptr, nullptr));
  t.hsm->delete_token("Effimero");
  // The store's view follows the token: the next call finds no certificate, signs nothing
  // and says that the token is gone.
  std::vector<std::string> warnings;
  set_warning_handler([&](const std::string& w) { warnings.push_back(w); });
  EXPECT_FALSE(FirmaFiles(dir_ / "b.txt", dir_ / "b.txt", id, false, nullptr, nullptr));
  set_warning_handler(nullptr);
  EXPECT_TRUE(std::any_of(warnings.begin(), warnings.end(), [](const std::string& w) {
    return w.find("no token present matches pkcs11:token=Effimero") != std::string::npos;
  })) << (warnings.empty() ? "no warning" : warnings.back());
  // Said once, although the store looks at the slots several times in the call.
  std::vector<std::string> sorted = warnings;
  std::sort(sorted.begin(), sorted.end());
  auto twice = std::adjacent_find(sorted.begin(), sorted.end());
  EXPECT_TRUE(twice == sorted.end()) << "repeated: " << *twice;
  EXPECT_FALSE(fs::exists(dir_ / "b.txt.p7m"));
}

TEST_F(TokenStore, AKeyThatWantsThePinForEverySignatureIsAskedEachTime) {
  const Tokens& t = tokens();
  set_store_location(t.always_uri);
  pin("1234");
  for (const char* name : {"a.txt", "b.txt", "c.txt"})
    test::write_file(dir_ / name, name);
  std::string list = dir_ / "a.txt" + "\n" + dir_ / "b.txt" + "\n" + dir_ / "c.txt";
  auto out = FirmaFiles(list, list, t.always->cert.id(), true, nullptr, nullptr);
  ASSERT_TRUE(out);
  EXPECT_EQ(*asked_, 4) << "the login, then once per signature";
  std::string pem = test::write_pem(t.always->cert, dir_ / "q.pem");
  auto v = test::run({"openssl", "cms", "-verify", "-binary", "-inform", "DER", "-in",
                      dir_ / "c.txt.p7s", "-content", dir_ / "c.txt", "-CAfile", pem, "-purpose",
                      "any", "-out", "/dev/null"});
  EXPECT_EQ(v.exit_code, 0) << v.err;

  // Declining the second question stops the batch before its envelope is written.
  fs::remove(dir_ / "a.txt.p7s");
  fs::remove(dir_ / "b.txt.p7s");
  auto answers = std::make_shared<int>(0);
  set_pin_provider([answers](const std::string&) -> std::optional<std::string> {
    if (++*answers == 2) return std::nullopt;
    return std::string("1234");
  });
  try {
    FirmaFiles(list, list, t.always->cert.id(), true, nullptr, nullptr);
    ADD_FAILURE() << "signed without the PIN";
  } catch (const Exception& e) {
    EXPECT_NE(std::string(e.what()).find("nothing was signed"), std::string::npos) << e.what();
  }
  EXPECT_TRUE(fs::exists(dir_ / "a.txt.p7s"));
  EXPECT_FALSE(fs::exists(dir_ / "b.txt.p7s"));
}

TEST_F(TokenStore, AnIndexWhosePinIsRefusedAtTheCloseIsWrittenUnsignedAndSignedAtTheNextClose) {
  // The P-256 key that wants the PIN for every signature: the user declines the one for the
  // index, after the document was already signed and copied into the archive.
  const Tokens& t = tokens();
  set_store_location(t.always_uri);
  auto answers = std::make_shared<int>(0);
  auto decline = std::make_shared<int>(3);  // the login, the document, then the index
  set_pin_provider([answers, decline](const std::string&) -> std::optional<std::string> {
    if (++*answers == *decline) return std::nullopt;
    return std::string("1234");
  });
  std::string id = t.always->cert.id();
  std::string arch = dir_ / "archivio";
  test::write_file(dir_ / "contratto.txt", "contratto\n");
  std::unique_ptr<ISignEArchivia> engine(GetSignEArchivia());
  engine->ApriIndice(arch, id, false);
  engine->FirmaEArchiviaFile(dir_ / "contratto.txt", "", "Contratti", EncodeDateTime({2024, 5, 6}));
  try {
    engine->ChiudiIndice();
    ADD_FAILURE() << "the index was signed without the PIN";
  } catch (const EElXMLSecurityError& e) {
    EXPECT_NE(std::string(e.what()).find("Errore durante la firma o Comando Annullato. (No PIN was "
                                         "given for the token \"Sempre\""),
              std::string::npos)
        << e.what();
  }
  EXPECT_EQ(*answers, 3);
  std::string index = arch + "/index.xml";
  ASSERT_TRUE(fs::exists(index)) << "the archived document is listed nowhere";
  std::string text = test::read_file(index);
  EXPECT_NE(text.find("Contratti\\2024\\05\\contratto.txt.p7m"), std::string::npos) << text;
  EXPECT_EQ(text.find("Signature"), std::string::npos) << "a partial signature was kept: " << text;
  EXPECT_TRUE(fs::exists(arch + "/Contratti/2024/05/contratto.txt.p7m"));

  // The same engine closes again once the PIN is given: ECDSA, accepted by xmlsec1.
  engine->ChiudiIndice();
  EXPECT_EQ(*answers, 5) << "the declined question ended the session: a login, then the signature";
  std::string pem = test::write_pem(t.always->cert, dir_ / "sempre.pem");
  auto x = test::run({"xmlsec1", "--verify", "--enabled-key-data", "x509", "--trusted-pem", pem,
                      "--enabled-reference-uris", "empty", index});
  EXPECT_EQ(x.exit_code, 0) << x.out << x.err;
  EXPECT_NE(test::read_file(index).find("xmldsig-more#ecdsa-sha256"), std::string::npos);
}

TEST_F(TokenStore, TheCommonNameExportNamesATokenCertificateWithoutAskingForThePin) {
  const Tokens& t = tokens();
  pin("1234");
  for (const auto* tc : {&*t.rsa, &*t.ec}) {
    set_store_location(tc == &*t.rsa ? t.rsa_uri : t.ec_uri);
    char* name = strdup("prima");
    EXPECT_EQ(SelezionaCommonName(&name, tc->cert.id().c_str()), &name);
    EXPECT_STREQ(name, tc->cert.subject_cn().c_str());
    EXPECT_EQ(std::string(name).rfind("Societ\xC3\xA0 ", 0), 0u) << name;
    // Another token's certificate is not in this store: the text stays.
    const auto* other = tc == &*t.rsa ? &*t.ec : &*t.rsa;
    SelezionaCommonName(&name, other->cert.id().c_str());
    EXPECT_STREQ(name, tc->cert.subject_cn().c_str());
    SelezionaCommonName(&name, "");
    EXPECT_STREQ(name, tc->cert.subject_cn().c_str());
    std::free(name);
  }
  EXPECT_EQ(*asked_, 0) << "certificates are public objects: no login";
}

}  // namespace
}  // namespace tessarel
