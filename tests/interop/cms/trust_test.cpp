// Trust in signers' certificates with a three-level test PKI: envelopes made by OpenSSL,
// checked through `tessarel verify --trust` and the library's trust function.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "cms_support.h"
#include "platform/runtime/datetime.h"
#include "tessarel/signing.h"
#include "tessarel/trust.h"

namespace tessarel {
namespace {

constexpr std::uint16_t kSigning = 1u << kDigitalSignature | 1u << kNonRepudiation;
constexpr std::uint16_t kCa = 1u << kKeyCertSign | 1u << kCrlSign;

class Trust : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new test::TempDir();
    certs_ = new std::map<std::string, test::TestCert>();
    auto make = [](const std::string& name, test::CertParams cp, const std::string& issuer) {
      cp.cn = name;
      auto tc = test::make_cert(cp, issuer.empty() ? nullptr : &certs_->at(issuer));
      test::write_pem(tc.cert, p(name + ".pem"));
      test::write_key_pem(tc.key, p(name + ".key"));
      certs_->emplace(name, std::move(tc));
    };
    test::CertParams ca;
    ca.ca = true;
    ca.key_usage = kCa;
    ca.days = 3650;
    ca.not_before_offset_days = -2000;
    make("Radice Prova", ca, "");
    make("Altra Radice", ca, "");
    make("CA Intermedia", ca, "Radice Prova");
    test::CertParams leaf;
    leaf.key_usage = kSigning;
    make("Firmatario Valido", leaf, "CA Intermedia");
    test::CertParams old = leaf;  // expired ten days ago, valid for the 990 before
    old.not_before_offset_days = -1000;
    old.days = -10;
    make("Firmatario Scaduto", old, "CA Intermedia");
    test::CertParams future = leaf;
    future.not_before_offset_days = 30;
    make("Firmatario Futuro", future, "CA Intermedia");
    test::CertParams encipher = leaf;
    encipher.key_usage = 1u << kKeyEncipherment;
    make("Firmatario Cifratura", encipher, "CA Intermedia");
    test::write_file(p("data.txt"), std::string("contratto di fornitura\n"));
    test::write_file(p("chain.pem"), test::read_file(p("CA Intermedia.pem")) +
                                         test::read_file(p("Radice Prova.pem")));
    std::filesystem::create_directory(p("anchors"));
    std::filesystem::copy_file(p("Radice Prova.pem"), p("anchors/root.pem"));
    test::write_file(p("anchors/LEGGIMI.txt"), std::string("not a certificate"));
  }
  static void TearDownTestSuite() {
    delete certs_;
    delete dir_;
  }
  static std::string p(const std::string& n) { return *dir_ / n; }
  // An envelope made by OpenSSL (signing time: now) carrying the certificates of extra
  // (a PEM file; empty: none).
  static std::string sign(const std::string& signer,
                          const std::string& extra = "CA Intermedia.pem") {
    std::string out = p(signer + (extra.empty() ? "" : " + " + extra) + ".p7m");
    std::vector<std::string> args{"openssl",
                                  "cms",
                                  "-sign",
                                  "-binary",
                                  "-nodetach",
                                  "-outform",
                                  "DER",
                                  "-in",
                                  p("data.txt"),
                                  "-signer",
                                  p(signer + ".pem"),
                                  "-inkey",
                                  p(signer + ".key"),
                                  "-out",
                                  out};
    if (!extra.empty()) args.insert(args.end(), {"-certfile", p(extra)});
    auto r = test::run(args);
    EXPECT_EQ(r.exit_code, 0) << r.err;
    return out;
  }
  static test::CommandResult verify(std::vector<std::string> args,
                                    const std::vector<std::string>& env = {}) {
    args.insert(args.begin(), {test::cli_path(), "verify"});
    return test::run(args, env);
  }

  static test::TempDir* dir_;
  static std::map<std::string, test::TestCert>* certs_;
};
test::TempDir* Trust::dir_ = nullptr;
std::map<std::string, test::TestCert>* Trust::certs_ = nullptr;

TEST_F(Trust, AChainToATrustAnchorIsTrustedAndSaidSo) {
  std::string env = sign("Firmatario Valido");
  auto r = verify({env});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_NE(r.out.find("  trust not checked\n"), std::string::npos) << r.out;
  // The root as a file, and as a folder that also holds other files.
  for (const std::string& anchors : {p("Radice Prova.pem"), p("anchors")}) {
    r = verify({env, "--trust", anchors});
    EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
    EXPECT_EQ(r.out.rfind("VALID, trusted (", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("  trusted: yes\n"), std::string::npos) << r.out;
  }
  // Without the intermediate in the envelope, the trust folder's copy completes the chain.
  std::string bare = sign("Firmatario Valido", "");
  EXPECT_EQ(verify({bare, "--trust", p("anchors")}).exit_code, 1);
  std::filesystem::copy_file(p("CA Intermedia.pem"), p("anchors/intermediate.pem"));
  r = verify({bare, "--trust", p("anchors"), "--json"});
  std::filesystem::remove(p("anchors/intermediate.pem"));
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_NE(r.out.find("\"trust_checked\": true, \"trusted\": true"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("\"chain\": [\"CN=Firmatario Valido\", \"CN=CA Intermedia\", \"CN=Radice "
                       "Prova\"]"),
            std::string::npos)
      << r.out;
  // The system's CA bundle, as OpenSSL finds it (SSL_CERT_FILE points it at the test root).
  r = verify({env, "--trust-system"},
             {"SSL_CERT_FILE=" + p("Radice Prova.pem"), "SSL_CERT_DIR=" + p("empty")});
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("trusted: yes"), std::string::npos) << r.out;
}

TEST_F(Trust, EveryReasonNotToTrustIsNamedAndExitsOne) {
  struct Case {
    std::string signer, certs, anchors, reason;
  } cases[] = {
      {"Firmatario Valido", "chain.pem", "Altra Radice.pem",
       "trusted: no (the root CN=Radice Prova is not a trust anchor)"},
      {"Firmatario Valido", "CA Intermedia.pem", "Altra Radice.pem",
       "trusted: no (the issuer CN=Radice Prova of CN=CA Intermedia is neither a trust anchor "
       "nor among the certificates)"},
      {"Firmatario Scaduto", "CA Intermedia.pem", "Radice Prova.pem",
       "trusted: no (the certificate CN=Firmatario Scaduto had expired at "},
      {"Firmatario Futuro", "CA Intermedia.pem", "Radice Prova.pem",
       "trusted: no (the certificate CN=Firmatario Futuro was not yet valid at "},
      {"Firmatario Cifratura", "CA Intermedia.pem", "Radice Prova.pem",
       "trusted: no (the key usage of CN=Firmatario Cifratura allows neither digitalSignature "
       "nor nonRepudiation)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.signer + " with " + c.anchors);
    std::string env = sign(c.signer, c.certs);
    auto r = verify({env, "--trust", p(c.anchors)});
    EXPECT_EQ(r.exit_code, 1);
    // Intact, but not trusted: both are said.
    EXPECT_EQ(r.out.rfind("VALID, NOT TRUSTED (", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("  " + c.reason), std::string::npos) << r.out;
  }
  auto r = verify({sign("Firmatario Valido"), "--trust", p("data.txt")});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("No certificate in the trust file"), std::string::npos) << r.err;
  EXPECT_EQ(verify({sign("Firmatario Valido"), "--trust", p("none.pem")}).exit_code, 2);
}

TEST_F(Trust, ValidityIsJudgedAtTheSigningTime) {
  // Signed 100 days ago, when the certificate (expired ten days ago) was valid.
  DateTime then =
      DateTimeFromSys(std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now()) -
                      std::chrono::hours(24 * 100));
  test::SignOptions o;
  o.time = then;
  test::write_file(p("past.p7m"),
                   test::SignBytes({'d', 'o', 'c'}, certs_->at("Firmatario Scaduto"), o));
  VerifyOptions options;
  options.trust.anchors = {p("Radice Prova.pem"), p("CA Intermedia.pem")};
  EnvelopeReport r = VerifyEnvelopeWithOptions(p("past.p7m"), options);
  ASSERT_EQ(r.signers.size(), 1u);
  EXPECT_TRUE(r.trust_checked);
  EXPECT_TRUE(r.signers[0].trust.trusted) << r.signers[0].trust.reason;
  EXPECT_EQ(r.signers[0].trust.checked_at, r.signers[0].signing_time);
  EXPECT_TRUE(r.trusted);

  // The same function the PDF verifier uses: the signer, the certificates around it, a time.
  const auto& leaf = certs_->at("Firmatario Scaduto").cert;
  TrustOptions root;
  root.anchors = {p("Radice Prova.pem")};
  auto at = SysFromDateTime(then);
  TrustReport t = CheckCertificateTrust(leaf, {certs_->at("CA Intermedia").cert}, at, root);
  EXPECT_TRUE(t.trusted) << t.reason;
  EXPECT_EQ(t.chain.size(), 3u);
  t = CheckCertificateTrust(
      leaf, {certs_->at("CA Intermedia").cert},
      std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now()), root);
  EXPECT_FALSE(t.trusted);
  t = CheckCertificateTrust(leaf, {}, at, root);
  EXPECT_FALSE(t.trusted);
  EXPECT_NE(t.reason.find("CN=CA Intermedia"), std::string::npos) << t.reason;
  EXPECT_FALSE(CheckCertificateTrust(leaf, {}, at, TrustOptions{}).checked);
}

}  // namespace
}  // namespace tessarel
