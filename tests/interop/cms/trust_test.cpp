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

// A signature timestamp from a trusted authority says when the signature existed: the
// chain is judged at its time, not at the time the signer claims.
TEST_F(Trust, AVerifiedTimestampSetsTheTimeTheChainIsJudgedAt) {
  auto sh = [](const std::string& command) {
    auto r = test::run_shell("cd '" + dir_->path() + "' && " + command);
    ASSERT_EQ(r.exit_code, 0) << command << "\n" << r.err;
  };
  // An authority certified by the test root, as openssl ts needs it.
  test::write_file(p("tsa.ext"), std::string("extendedKeyUsage=critical,timeStamping\n"));
  test::write_file(p("tsa.cnf"),
                   std::string("[ tsa ]\ndefault_tsa = t\n[ t ]\nserial = ./tsaserial\n"
                               "signer_digest = sha256\ndefault_policy = 1.2.3.4.1\n"
                               "digests = sha256\ness_cert_id_alg = sha256\n"));
  sh("echo 01 > tsaserial && openssl req -new -newkey rsa:2048 -nodes -keyout tsa.key "
     "-subj '/CN=Marca Temporale Prova' -out tsa.csr 2>/dev/null && openssl x509 -req -in "
     "tsa.csr -CA 'Radice Prova.pem' -CAkey 'Radice Prova.key' -set_serial 9001 -days 30 "
     "-extfile tsa.ext -out tsa.pem 2>/dev/null");
  auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  // The signer's claimed time, and a timestamp token (made now) over the signature value.
  sh("openssl req -x509 -newkey rsa:2048 -nodes -keyout tsa-self.key -out tsa-self.pem -days 30 "
     "-subj '/CN=Marca Temporale Ignota' -addext 'extendedKeyUsage=critical,timeStamping' "
     "2>/dev/null");
  auto sign_at = [&](const std::string& name, const std::string& signer, std::chrono::hours ago,
                     const std::string& tsa = "tsa") {
    test::SignOptions o;
    o.time = DateTimeFromSys(now - ago);
    test::write_file(p(name + ".p7m"),
                     test::SignBytes({'a', 't', 't', 'o'}, certs_->at(signer), o));
    auto m = test::OpenBytes(test::read_bytes(p(name + ".p7m")));
    test::write_file(p(name + ".value"), m->GetSignature(0)->FPKCS7Signer.EncryptedDigest);
    sh("openssl ts -query -data '" + name + ".value' -sha256 -cert -no_nonce -out '" + name +
       ".tsq' && openssl ts -reply -queryfile '" + name + ".tsq' -signer " + tsa + ".pem -inkey " +
       tsa + ".key -config tsa.cnf -token_out -out '" + name + ".tst' 2>/dev/null");
    m->GetSignature(0)->FPKCS7Signer.UnauthenticatedAttributes.push_back(
        {cms_oid::kSignatureTimestamp, {test::read_bytes(p(name + ".tst"))}});
    test::write_file(p(name + "-stamped.p7m"), m->SaveToBytes());
  };
  const std::string root = p("chain.pem");  // the root and the intermediate the envelopes lack
  // Claimed long before the certificate existed: not trusted at that time, trusted at the
  // timestamp's.
  sign_at("early", "Firmatario Valido", std::chrono::hours(24 * 1000));
  auto r = verify({p("early.p7m"), "--trust", root});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.out.find("  trusted: no (the certificate CN=Firmatario Valido was not yet valid at "),
            std::string::npos)
      << r.out;
  r = verify({p("early-stamped.p7m"), "--trust", root});
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_EQ(r.out.rfind("VALID, trusted (", 0), 0u) << r.out;
  EXPECT_NE(r.out.find("signature ok, authority trusted: yes\n"), std::string::npos) << r.out;
  r = verify({p("early-stamped.p7m"), "--trust", root, "--json"});
  auto stamp_time = [](const std::string& json) {
    const std::string key = "\"timestamps\": [{\"time\": \"";
    auto at = json.find(key);
    return at == std::string::npos ? std::string("(none)") : json.substr(at + key.size(), 20);
  };
  EXPECT_NE(r.out.find("\"checked_at\": \"" + stamp_time(r.out) +
                       "\", \"chain\": [\"CN=Firmatario "
                       "Valido\""),
            std::string::npos)
      << r.out;

  // Claimed while the certificate was valid, stamped after it expired: the timestamp wins.
  sign_at("late", "Firmatario Scaduto", std::chrono::hours(24 * 100));
  r = verify({p("late.p7m"), "--trust", root});
  EXPECT_EQ(r.exit_code, 0) << r.out;
  r = verify({p("late-stamped.p7m"), "--trust", root});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.out.rfind("VALID, NOT TRUSTED (", 0), 0u) << r.out;
  EXPECT_NE(r.out.find("  trusted: no (the certificate CN=Firmatario Scaduto had expired at "),
            std::string::npos)
      << r.out;

  // An authority that is not trusted says nothing about time: the claim counts again.
  sign_at("unknown-tsa", "Firmatario Valido", std::chrono::hours(24 * 1000), "tsa-self");
  r = verify({p("unknown-tsa-stamped.p7m"), "--trust", root});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.out.find("signature ok, authority trusted: no ("), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("  trusted: no (the certificate CN=Firmatario Valido was not yet valid at "),
            std::string::npos)
      << r.out;
}

// An issuer whose basic constraints say it is no CA cannot vouch for a signer, even with
// the key usage for signing certificates and a chain to a trusted root.
TEST_F(Trust, AnIssuerThatIsNotACaBreaksTheChain) {
  auto sh = [](const std::string& command) {
    auto r = test::run_shell("cd '" + dir_->path() + "' && " + command);
    ASSERT_EQ(r.exit_code, 0) << command << "\n" << r.err;
  };
  test::write_file(p("leaf.ext"),
                   std::string("keyUsage=critical,digitalSignature,nonRepudiation\n"));
  for (const char* is_ca : {"TRUE", "FALSE"}) {
    std::string ca = is_ca;
    SCOPED_TRACE("CA:" + ca);
    std::string office = "ufficio-" + ca, signer = "firmatario-" + ca;
    test::write_file(p(office + ".ext"), "basicConstraints=critical,CA:" + ca +
                                             "\nkeyUsage=critical,keyCertSign,digitalSignature\n");
    sh("openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout " + office +
       ".key -subj '/CN=Ufficio CA " + ca + "' -out " + office +
       ".csr 2>/dev/null && openssl x509 -req -in " + office +
       ".csr -CA 'Radice Prova.pem' -CAkey 'Radice Prova.key' -set_serial 0x" +
       (ca == "TRUE" ? "71" : "70") + " -days 30 -extfile " + office + ".ext -out " + office +
       ".pem 2>/dev/null && openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes "
       "-keyout " +
       signer + ".key -subj '/CN=Firmatario Sotto " + ca + "' -out " + signer +
       ".csr 2>/dev/null && openssl x509 -req -in " + signer + ".csr -CA " + office +
       ".pem -CAkey " + office + ".key -set_serial 0x72 -days 30 -extfile leaf.ext -out " + signer +
       ".pem 2>/dev/null && openssl cms -sign -binary -nodetach -outform DER -in "
       "data.txt -signer " +
       signer + ".pem -inkey " + signer + ".key -certfile " + office + ".pem -out " + signer +
       ".p7m");
    auto r = verify({p(signer + ".p7m"), "--trust", p("Radice Prova.pem")});
    if (ca == "TRUE") {
      EXPECT_EQ(r.exit_code, 0) << r.out;
      EXPECT_NE(r.out.find("  trusted: yes\n"), std::string::npos) << r.out;
    } else {
      EXPECT_EQ(r.exit_code, 1);
      EXPECT_EQ(r.out.rfind("VALID, NOT TRUSTED (", 0), 0u) << r.out;
      EXPECT_NE(r.out.find("  trusted: no (the certificate CN=Ufficio CA FALSE issues others but "
                           "is not a CA certificate)\n"),
                std::string::npos)
          << r.out;
    }
  }
}

}  // namespace
}  // namespace tessarel
