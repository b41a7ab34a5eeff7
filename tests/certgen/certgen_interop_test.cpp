// Generated certificates checked by independent implementations.
#include <gtest/gtest.h>

#include <algorithm>

#include "certgen/x509_certificate_ex.h"
#include "tessarel/certgen.h"
#include "test_support.h"

namespace tessarel {
namespace {

TElAlgorithmIdentifier id(CertAlgorithm a) {
  return TElAlgorithmIdentifier::CreateByAlgorithm(a);
}

struct Kind {
  CertAlgorithm key;
  CertAlgorithm sig;
  int bits;
};

TEST(CertgenInterop, SelfSignedCertificatesVerifyWithOpensslAndParseWithCerttool) {
  test::TempDir dir;
  auto pss = id(CertAlgorithm::RsaPss);
  pss.pss = {DigestAlgorithm::SHA256, DigestAlgorithm::SHA256, 32, 1};
  std::vector<std::pair<TElAlgorithmIdentifier, TElAlgorithmIdentifier>> kinds = {
      {id(CertAlgorithm::Rsa), id(CertAlgorithm::Sha512WithRsa)},
      {id(CertAlgorithm::Rsa), id(CertAlgorithm::Sha1WithRsa)},
      {id(CertAlgorithm::Ec), id(CertAlgorithm::EcdsaWithSha384)},
      {id(CertAlgorithm::Dsa), id(CertAlgorithm::DsaWithSha1)},
      {pss, pss},
  };
  int n = 0;
  for (auto& [key, sig] : kinds) {
    TElX509CertificateEx c;
    for (auto* rdn : {&c.SubjectRDN, &c.IssuerRDN}) {
      rdn->Add(oid::kCountryName, "IT", 19);
      rdn->Add(oid::kCommonName, "Interop " + std::to_string(n), 19);
      rdn->Add(oid::kEmailAddress, "interop@example.org", rdn == &c.SubjectRDN ? 19 : 22);
    }
    c.ValidFrom = std::chrono::floor<std::chrono::days>(std::chrono::system_clock::now());
    c.ValidTo = c.ValidFrom + std::chrono::days(365);
    int bits = key.algorithm() == CertAlgorithm::Ec    ? 384
               : key.algorithm() == CertAlgorithm::Dsa ? 1024
                                                       : 2048;
    c.Generate(key, sig, bits);
    std::string pem = test::write_pem(c.certificate(), dir / ("c" + std::to_string(n++) + ".pem"));
    auto r = test::run({"openssl", "verify", "-CAfile", pem, pem});
    EXPECT_EQ(r.exit_code, 0) << AlgorithmName(sig.algorithm()) << ": " << r.out << r.err;
    r = test::run({"certtool", "--certificate-info", "--infile", pem});
    EXPECT_EQ(r.exit_code, 0) << AlgorithmName(sig.algorithm()) << ": " << r.err;
    EXPECT_NE(r.out.find("Interop"), std::string::npos);
  }
}

TEST(CertgenInterop, ChainsVerifyAndCommandLineCertificatesAreAccepted) {
  test::TempDir dir;
  TElX509CertificateEx ca;
  ca.SubjectRDN.Add(oid::kCommonName, "Interop CA");
  ca.IssuerRDN.Add(oid::kCommonName, "Interop CA");
  ca.ValidFrom = std::chrono::floor<std::chrono::days>(std::chrono::system_clock::now());
  ca.ValidTo = ca.ValidFrom + std::chrono::days(365);
  ca.Extensions.push_back({"2.5.29.19", true, Bytes{0x30, 0x03, 0x01, 0x01, 0xFF}});
  ca.Extensions.push_back(
      {"2.5.29.15", true, Bytes{0x03, 0x02, 0x01, 0x06}});  // keyCertSign, cRLSign
  ca.Extensions.push_back({"2.5.29.14", false, {}});
  ca.Generate(id(CertAlgorithm::Rsa), id(CertAlgorithm::Sha256WithRsa), 2048);
  TElX509CertificateEx leaf;
  leaf.SubjectRDN.Add(oid::kCommonName, "Interop Leaf");
  leaf.ValidFrom = ca.ValidFrom;
  leaf.ValidTo = ca.ValidTo;
  leaf.Extensions.push_back({"2.5.29.35", false, {}});
  leaf.Generate(ca, id(CertAlgorithm::Rsa), id(CertAlgorithm::Sha256WithRsa), 2048);
  std::string ca_pem = test::write_pem(ca.certificate(), dir / "ca.pem");
  std::string leaf_pem = test::write_pem(leaf.certificate(), dir / "leaf.pem");
  auto r = test::run({"openssl", "verify", "-CAfile", ca_pem, leaf_pem});
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
  r = test::run({"certtool", "--verify", "--load-ca-certificate", ca_pem, "--infile", leaf_pem});
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;

  // tessarel cert new, then the certificate exported as PEM.
  std::string store = dir / "MY";
  r = test::run({test::cli_path(), "--store", store, "cert", "new", "--cn", "Da Riga di Comando",
                 "--country", "IT", "--key", "ec"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  std::string id_text = r.out.substr(0, r.out.size() - 1);
  r = test::run({test::cli_path(), "--store", store, "cert", "show", id_text, "--pem"});
  ASSERT_EQ(r.exit_code, 0);
  test::write_file(dir / "cli.pem", r.out);
  r = test::run({"openssl", "verify", "-CAfile", dir / "cli.pem", dir / "cli.pem"});
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
  r = test::run({"certtool", "--certificate-info", "--infile", dir / "cli.pem"});
  EXPECT_EQ(r.exit_code, 0) << r.err;

  // Usage errors are found before any key is generated.
  r = test::run(
      {test::cli_path(), "--store", store, "cert", "new", "--cn", "X", "--country", "Italia"});
  EXPECT_EQ(r.exit_code, 2);
  r = test::run({test::cli_path(), "--store", store, "cert", "new", "--cn", "X", "--bits", "100"});
  EXPECT_EQ(r.exit_code, 2);
  r = test::run({test::cli_path(), "--store", store, "cert", "list"});
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 1);
}

}  // namespace
}  // namespace tessarel
