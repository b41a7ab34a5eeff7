// Our envelopes against OpenSSL and GnuTLS, and theirs against our reader and verifier,
// including tampered copies, where both verdicts must agree.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "boundary/batch_signer.h"
#include "cms/cades.h"
#include "cms/cms_verify.h"
#include "cms_support.h"
#include "platform/crypto/digest.h"

namespace tessarel {
namespace {

class CmsInterop : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new test::TempDir();
    test::CertParams s;
    s.cn = "Interop Firmatario";
    s.org = "Prove Srl";
    s.country = "IT";
    tc_ = new test::TestCert(test::make_cert(s));
    test::CertParams s2;
    s2.cn = "Secondo Firmatario";
    s2.kind = KeyKind::Ec;
    s2.bits = 256;
    tc2_ = new test::TestCert(test::make_cert(s2));
    test::write_pem(tc_->cert, *dir_ / "cert.pem");
    test::write_key_pem(tc_->key, *dir_ / "key.pem");
    test::write_pem(tc2_->cert, *dir_ / "cert2.pem");
    test::write_key_pem(tc2_->key, *dir_ / "key2.pem");
    test::write_file(*dir_ / "ca.pem", tc_->cert.pem() + tc2_->cert.pem());
    Bytes data(70000);
    for (std::size_t i = 0; i < data.size(); ++i)
      data[i] = static_cast<std::uint8_t>(i % 251);
    test::write_file(*dir_ / "data.bin", data);
  }
  static void TearDownTestSuite() {
    delete tc_;
    delete tc2_;
    delete dir_;
  }
  static std::string p(const std::string& n) { return *dir_ / n; }

  // Our verdict on an envelope file (with external content for detached ones).
  static bool ours_valid(const std::string& envelope, const std::string& content = "") {
    try {
      TElSignedCMSMessage m;
      m.Open(std::make_shared<asn1::FileSource>(envelope));
      std::unique_ptr<TElCMSContent> ext;
      if (!content.empty()) {
        auto src = std::make_shared<asn1::FileSource>(content);
        ext = std::make_unique<TElCMSContent>();
        ext->Init(src, 0, src->size());
      }
      return VerifySignedMessage(m, ext.get()).ok();
    } catch (const EElCMSError&) {
      return false;
    }
  }
  static bool openssl_valid(const std::string& envelope, const std::string& content = "") {
    std::vector<std::string> args{"openssl",  "cms", "-verify", "-binary",  "-inform",
                                  "DER",      "-in", envelope,  "-CAfile",  p("ca.pem"),
                                  "-purpose", "any", "-out",    "/dev/null"};
    if (!content.empty()) args.insert(args.end(), {"-content", content});
    return test::run(args).exit_code == 0;
  }

  static test::TempDir* dir_;
  static test::TestCert* tc_;
  static test::TestCert* tc2_;
};
test::TempDir* CmsInterop::dir_ = nullptr;
test::TestCert* CmsInterop::tc_ = nullptr;
test::TestCert* CmsInterop::tc2_ = nullptr;

TEST_F(CmsInterop, OurAttachedEnvelopeVerifiesAndExtractsWithOpensslAndCerttool) {
  test::ScopedStore store;
  store.add(*tc_);
  std::string data = p("ours.bin");
  std::filesystem::copy_file(p("data.bin"), data,
                             std::filesystem::copy_options::overwrite_existing);
  ASSERT_TRUE(FirmaFiles(data, data, tc_->cert.id(), false, nullptr));
  auto r = test::run({"openssl", "cms", "-verify", "-binary", "-inform", "DER", "-in",
                      data + ".p7m", "-CAfile", p("cert.pem"), "-purpose", "any", "-cades", "-out",
                      p("openssl-out.bin")});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(test::read_bytes(p("openssl-out.bin")), test::read_bytes(data));
  r = test::run({"certtool", "--p7-verify", "--inder", "--infile", data + ".p7m",
                 "--load-ca-certificate", p("cert.pem")});
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
  EXPECT_NE((r.out + r.err).find("Signature status: ok"), std::string::npos) << r.out << r.err;
  r = test::run({"certtool", "--p7-verify", "--p7-show-data", "--inder", "--infile", data + ".p7m",
                 "--load-ca-certificate", p("cert.pem"), "--outfile", p("certtool-out.bin")});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(test::read_bytes(p("certtool-out.bin")), test::read_bytes(data));
}

TEST_F(CmsInterop, OurDetachedEnvelopeVerifiesWithTheDataSupplied) {
  test::ScopedStore store;
  store.add(*tc2_);  // an ECDSA signer
  std::string data = p("detached.bin");
  std::filesystem::copy_file(p("data.bin"), data,
                             std::filesystem::copy_options::overwrite_existing);
  ASSERT_TRUE(FirmaFiles(data, data, tc2_->cert.id(), true, nullptr));
  auto r = test::run({"openssl", "cms", "-verify", "-binary", "-inform", "DER", "-in",
                      data + ".p7s", "-content", data, "-CAfile", p("cert2.pem"), "-purpose", "any",
                      "-cades", "-out", "/dev/null"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  r = test::run({"certtool", "--p7-verify", "--inder", "--infile", data + ".p7s", "--load-data",
                 data, "--load-ca-certificate", p("cert2.pem")});
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
}

// The signing-certificate attribute for each fingerprint algorithm: ESS for SHA-1, ESS v2
// otherwise, with its hash algorithm written unless it is SHA-256. OpenSSL's CAdES check
// hashes the signer's certificate with that algorithm and compares; reading it back gives
// the same property.
TEST_F(CmsInterop, TheSigningCertificateOfEveryFingerprintAlgorithmPassesTheCadesCheck) {
  Bytes data{'e', 's', 's'};
  for (DigestAlgorithm fp : {DigestAlgorithm::SHA1, DigestAlgorithm::SHA256,
                             DigestAlgorithm::SHA384, DigestAlgorithm::SHA512}) {
    TElSignedCMSMessage m;
    m.CreateNew(data.data(), data.size());
    TElCMSSignature* s = m.GetSignature(m.AddSignature());
    s->FFingerprintAlgorithm = fp;
    s->SetDigestAlgorithm(DigestAlgorithm::SHA256);
    s->FSigningOptions = kCadesBesSigningOptions;
    test::KeyOf key(tc_->key);
    s->Sign(tc_->cert, &key);
    Bytes envelope = m.SaveToBytes();
    std::string file = p("ess-" + crypto::digest_name(fp) + ".p7m");
    test::write_file(file, envelope);
    auto r = test::run({"openssl", "cms", "-verify", "-cades", "-binary", "-inform", "DER", "-in",
                        file, "-CAfile", p("cert.pem"), "-purpose", "any", "-out", "/dev/null"});
    EXPECT_EQ(r.exit_code, 0) << file << ": " << r.err;

    auto opened = test::OpenBytes(envelope);
    const TElCMSSigningCertificate& read = opened->GetSignature(0)->FSigningCertificate;
    EXPECT_EQ(read.FSigningCertificateType,
              fp == DigestAlgorithm::SHA1
                  ? TSBCMSSigningCertificateType::sctESSSigningCertificate
                  : TSBCMSSigningCertificateType::sctESSSigningCertificateV2);
    ASSERT_EQ(read.FCertIDs.size(), 1u);
    EXPECT_EQ(read.FCertIDs[0].FHash.FHashAlgorithm, fp);
    EXPECT_EQ(read.FCertIDs[0].FHash.FHashValue, tc_->cert.fingerprint(fp));
    EXPECT_EQ(read.FCertIDs[0].FSerialNumber, tc_->cert.serial());
  }
}

TEST_F(CmsInterop, EnvelopesOfOtherProducersOpenExtractAndVerify) {
  struct Producer {
    std::string name;
    std::vector<std::string> args;
    bool cades;
    int signers;
    std::vector<std::string> after_signer{};
  };
  std::vector<Producer> producers = {
      {"openssl-der",
       {"openssl", "cms", "-sign", "-binary", "-nodetach", "-outform", "DER"},
       false,
       1},
      {"openssl-cades",
       {"openssl", "cms", "-sign", "-binary", "-nodetach", "-cades", "-outform", "DER"},
       true,
       1},
      {"openssl-stream",
       {"openssl", "cms", "-sign", "-binary", "-nodetach", "-stream", "-outform", "DER"},
       false,
       1},
      {"openssl-pss",
       {"openssl", "cms", "-sign", "-binary", "-nodetach", "-outform", "DER"},
       false,
       1,
       {"-keyopt", "rsa_padding_mode:pss"}},
  };
  for (auto& pr : producers) {
    std::string out = p(pr.name + ".p7m");
    std::vector<std::string> args = pr.args;
    args.insert(args.end(),
                {"-in", p("data.bin"), "-signer", p("cert.pem"), "-inkey", p("key.pem")});
    args.insert(args.end(), pr.after_signer.begin(), pr.after_signer.end());
    args.insert(args.end(), {"-out", out});
    auto r = test::run(args);
    ASSERT_EQ(r.exit_code, 0) << pr.name << ": " << r.err;
    TElSignedCMSMessage m;
    m.Open(std::make_shared<asn1::FileSource>(out));
    ASSERT_EQ(m.SignatureCount(), pr.signers) << pr.name;
    EXPECT_EQ(DigestContent(m.FContent.get(), DigestAlgorithm::SHA256),
              crypto::sha256(test::read_bytes(p("data.bin"))))
        << pr.name;
    EXPECT_EQ(TElCAdESSignatureProcessor(m.GetSignature(0)).IsBES(), pr.cades) << pr.name;
    auto v = VerifySignedMessage(m);
    EXPECT_TRUE(v.ok()) << pr.name << ": "
                        << (v.signers.empty() || v.signers[0].problems.empty()
                                ? ""
                                : v.signers[0].problems[0]);
  }

  // Two signers and an extra certificate.
  std::string two = p("two.p7m");
  auto r = test::run({"openssl", "cms", "-sign", "-binary", "-nodetach", "-outform", "DER", "-in",
                      p("data.bin"), "-signer", p("cert.pem"), "-inkey", p("key.pem"), "-signer",
                      p("cert2.pem"), "-inkey", p("key2.pem"), "-out", two});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  TElSignedCMSMessage m2;
  m2.Open(std::make_shared<asn1::FileSource>(two));
  EXPECT_EQ(m2.SignatureCount(), 2);
  EXPECT_EQ(m2.Certificates().size(), 2u);
  EXPECT_TRUE(VerifySignedMessage(m2).ok());

  // GnuTLS, attached and detached.
  std::string gnutls = p("gnutls.p7m");
  r = test::run({"certtool", "--p7-sign", "--p7-include-cert", "--outder", "--load-privkey",
                 p("key.pem"), "--load-certificate", p("cert.pem"), "--infile", p("data.bin"),
                 "--outfile", gnutls});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  TElSignedCMSMessage g;
  g.Open(std::make_shared<asn1::FileSource>(gnutls));
  EXPECT_FALSE(g.FDetached);
  EXPECT_EQ(DigestContent(g.FContent.get(), DigestAlgorithm::SHA256),
            crypto::sha256(test::read_bytes(p("data.bin"))));
  EXPECT_TRUE(VerifySignedMessage(g).ok());
  std::string gnutls_detached = p("gnutls.p7s");
  r = test::run({"certtool", "--p7-detached-sign", "--p7-include-cert", "--outder",
                 "--load-privkey", p("key.pem"), "--load-certificate", p("cert.pem"), "--infile",
                 p("data.bin"), "--outfile", gnutls_detached});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_TRUE(ours_valid(gnutls_detached, p("data.bin")));
}

TEST_F(CmsInterop, IndefiniteAndDefiniteEncodingsGiveTheSameModel) {
  std::string streamed = p("s.p7m"), definite = p("d.p7m");
  ASSERT_EQ(test::run({"openssl", "cms", "-sign", "-binary", "-nodetach", "-stream", "-cades",
                       "-outform", "DER", "-in", p("data.bin"), "-signer", p("cert.pem"), "-inkey",
                       p("key.pem"), "-out", streamed})
                .exit_code,
            0);
  ASSERT_EQ(test::run({"openssl", "cms", "-cmsout", "-inform", "DER", "-in", streamed, "-outform",
                       "DER", "-out", definite})
                .exit_code,
            0);
  ASSERT_NE(test::read_bytes(streamed), test::read_bytes(definite));
  TElSignedCMSMessage a, b;
  a.Open(std::make_shared<asn1::FileSource>(streamed));
  b.Open(std::make_shared<asn1::FileSource>(definite));
  EXPECT_EQ(a.FCertificates, b.FCertificates);
  EXPECT_EQ(a.FContentType, b.FContentType);
  ASSERT_EQ(a.SignatureCount(), 1);
  ASSERT_EQ(b.SignatureCount(), 1);
  EXPECT_EQ(a.GetSignature(0)->FPKCS7Signer.AuthenticatedAttributesPlain,
            b.GetSignature(0)->FPKCS7Signer.AuthenticatedAttributesPlain);
  EXPECT_EQ(a.GetSignature(0)->FMessageDigest, b.GetSignature(0)->FMessageDigest);
  EXPECT_EQ(a.GetSignature(0)->FSigningTime, b.GetSignature(0)->FSigningTime);
  EXPECT_EQ(DigestContent(a.FContent.get(), DigestAlgorithm::SHA256),
            DigestContent(b.FContent.get(), DigestAlgorithm::SHA256));
  EXPECT_GT(a.FContent->sources().size(), 1u) << "the streamed content should come in chunks";
}

TEST_F(CmsInterop, TamperedEnvelopesGetTheSameVerdictAsOpenssl) {
  test::ScopedStore store;
  store.add(*tc_);
  std::string data = p("tamper.bin");
  test::write_file(data, std::string("Contenuto da non modificare, 2021.\n"));
  ASSERT_TRUE(FirmaFiles(data, data, tc_->cert.id(), false, nullptr));
  Bytes good = test::read_bytes(data + ".p7m");
  std::string openssl_made = p("openssl-tamper.p7m");
  ASSERT_EQ(test::run({"openssl", "cms", "-sign", "-binary", "-nodetach", "-cades", "-outform",
                       "DER", "-in", data, "-signer", p("cert.pem"), "-inkey", p("key.pem"), "-out",
                       openssl_made})
                .exit_code,
            0);
  for (const Bytes& original : {good, test::read_bytes(openssl_made)}) {
    // Where to flip: a content byte, a digit of the signing time, the signature's last byte.
    auto content_at = std::search(original.begin(), original.end(), std::begin("Contenuto"),
                                  std::begin("Contenuto") + 9) -
                      original.begin();
    Bytes signing_time_oid{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x05};
    auto time_at = std::search(original.begin(), original.end(), signing_time_oid.begin(),
                               signing_time_oid.end()) -
                   original.begin() + 9 + 4 + 5;
    std::vector<std::pair<std::string, long>> flips{
        {"content", content_at},
        {"attribute", time_at},
        {"signature", static_cast<long>(original.size()) - 1}};
    std::string path = p("flip.p7m");
    test::write_file(path, original);
    EXPECT_TRUE(openssl_valid(path));
    EXPECT_TRUE(ours_valid(path));
    for (auto& [where, at] : flips) {
      ASSERT_LT(static_cast<std::size_t>(at), original.size()) << where;
      Bytes bad = original;
      bad[static_cast<std::size_t>(at)] ^= 0x01;
      test::write_file(path, bad);
      bool theirs = openssl_valid(path), mine = ours_valid(path);
      EXPECT_FALSE(theirs) << where;
      EXPECT_EQ(mine, theirs) << where;
    }
  }
}

}  // namespace
}  // namespace tessarel
