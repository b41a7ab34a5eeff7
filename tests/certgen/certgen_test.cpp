// Certificate generation: the encoding choices (version, times, string tags, key
// identifiers), key kinds and curves, pairing rules, issuers, serials, cancellation.
#include <gtest/gtest.h>

#include <set>
#include <thread>

#include <openssl/x509v3.h>
#include "certgen/x509_certificate_ex.h"
#include "platform/asn1/der.h"

#include "platform/crypto/digest.h"
#include "platform/crypto/keygen.h"
#include "platform/crypto/x509.h"
#include "tessarel/certgen.h"
#include "tessarel/errors.h"
#include "test_support.h"

namespace tessarel {
namespace {

using std::chrono::sys_days;
using namespace std::chrono_literals;

TElAlgorithmIdentifier id(CertAlgorithm a) {
  return TElAlgorithmIdentifier::CreateByAlgorithm(a);
}

TElX509CertificateEx named(const std::string& cn) {
  TElX509CertificateEx c;
  c.SubjectRDN.Add(oid::kCommonName, cn);
  c.IssuerRDN.Add(oid::kCommonName, cn);
  c.ValidFrom = sys_days{std::chrono::year{2024} / 1 / 1};
  c.ValidTo = sys_days{std::chrono::year{2028} / 1 / 1};
  return c;
}

// The TBSCertificate's elements, in order.
std::vector<asn1::Tlv> tbs_elements(const Certificate& c) {
  const Bytes& der = c.der();
  asn1::Tlv cert = asn1::read_tlv(der.data(), der.size());
  asn1::Tlv tbs = asn1::read_tlv(cert.content, cert.length);
  std::vector<asn1::Tlv> out;
  for (std::size_t off = 0; off < tbs.length;) {
    out.push_back(asn1::read_tlv(tbs.content + off, tbs.length - off));
    off += out.back().total();
  }
  return out;
}

bool self_verifies(const Certificate& c) {
  int rc = X509_verify(crypto::x509_of(c), X509_get0_pubkey(crypto::x509_of(c)));
  crypto::openssl_errors();
  return rc == 1;
}

TEST(Generate, WithoutExtensionsTheVersionStaysOneAndIsWrittenExplicitly) {
  auto c = named("v1");
  c.Generate(id(CertAlgorithm::Rsa), id(CertAlgorithm::Sha512WithRsa), 1024);
  const Certificate& cert = c.certificate();
  EXPECT_EQ(cert.version(), 1);
  auto e = tbs_elements(cert);
  ASSERT_EQ(e[0].tag, 0xA0);
  EXPECT_EQ(Bytes(e[0].content, e[0].content + e[0].length), (Bytes{0x02, 0x01, 0x00}));
  EXPECT_EQ(cert.key_bits(), 1024);
  EXPECT_EQ(cert.signature_algorithm_oid(), "1.2.840.113549.1.1.13");
  EXPECT_TRUE(self_verifies(cert));
  EXPECT_TRUE(c.private_key().matches(cert));
}

TEST(Generate, AnyExtensionRaisesTheVersionToThreeAndFillsTheKeyIdentifiers) {
  auto c = named("v3");
  c.Extensions.push_back({"2.5.29.14", false, {}});
  c.Extensions.push_back({"2.5.29.35", false, {}});
  c.Generate(id(CertAlgorithm::Ec), id(CertAlgorithm::EcdsaWithSha256), 256);
  const Certificate& cert = c.certificate();
  EXPECT_EQ(cert.version(), 3);
  // RFC 5280 method 1: SHA-1 of the subjectPublicKey bits; the same in SKI and AKI.
  X509* x = crypto::x509_of(cert);
  const ASN1_OCTET_STRING* ski = X509_get0_subject_key_id(x);
  const ASN1_OCTET_STRING* aki = X509_get0_authority_key_id(x);
  ASSERT_TRUE(ski && aki);
  Bytes ski_bytes(ASN1_STRING_get0_data(ski), ASN1_STRING_get0_data(ski) + ASN1_STRING_length(ski));
  EXPECT_EQ(ski_bytes, c.KeyIdentifier());
  EXPECT_EQ(ASN1_OCTET_STRING_cmp(ski, aki), 0);
  const ASN1_BIT_STRING* pub = X509_get0_pubkey_bitstr(x);
  Bytes pub_bits(ASN1_STRING_get0_data(pub), ASN1_STRING_get0_data(pub) + ASN1_STRING_length(pub));
  EXPECT_EQ(ski_bytes, crypto::sha1(pub_bits));

  auto capped = named("v9");
  capped.Version = 9;
  capped.Generate(id(CertAlgorithm::Ec), id(CertAlgorithm::EcdsaWithSha256), 256);
  auto e = tbs_elements(capped.certificate());
  EXPECT_EQ(e[0].content[2], 3);  // INTEGER 3: version 4 at most
}

TEST(Generate, TimesFrom2050AreGeneralizedTime) {
  auto c = named("times");
  c.ValidFrom = sys_days{std::chrono::year{2049} / 12 / 31} + 23h + 59min + 59s;
  c.ValidTo = sys_days{std::chrono::year{2050} / 1 / 1};
  c.Generate(id(CertAlgorithm::Ec), id(CertAlgorithm::EcdsaWithSha256), 256);
  auto e = tbs_elements(c.certificate());
  const asn1::Tlv& validity = e[4];
  asn1::Tlv from = asn1::read_tlv(validity.content, validity.length);
  asn1::Tlv to = asn1::read_tlv(validity.content + from.total(), validity.length - from.total());
  EXPECT_EQ(from.tag, asn1::kUtcTime);
  EXPECT_EQ(std::string(from.content, from.content + from.length), "491231235959Z");
  EXPECT_EQ(to.tag, asn1::kGeneralizedTime);
  EXPECT_EQ(std::string(to.content, to.content + to.length), "20500101000000Z");
  EXPECT_EQ(c.certificate().not_after(), sys_days{std::chrono::year{2050} / 1 / 1});
}

TEST(Generate, NameTagsAreWrittenAsGivenOrChosenByFormat) {
  TElX509CertificateEx c;
  c.SubjectRDN.Add(oid::kCountryName, "IT", 19);
  c.SubjectRDN.Add(oid::kCommonName, "a@b_c*", 19);  // PrintableString whatever the characters
  c.SubjectRDN.Add(oid::kEmailAddress, "x@y.it", 19);
  c.SubjectRDN.Add(oid::kOrganizationName, "Città");  // tag 0: UTF8String by default
  c.IssuerRDN.Add(oid::kEmailAddress, "x@y.it");      // tag 0 e-mail: IA5String
  c.IssuerRDN.Add(oid::kLocalityName, "Roma");
  c.UseUTF8Strings = true;
  c.Generate(id(CertAlgorithm::Ec), id(CertAlgorithm::EcdsaWithSha256), 256);
  auto subject = c.certificate().subject();
  ASSERT_EQ(subject.size(), 4u);
  EXPECT_EQ(subject[0].tag, 19);
  EXPECT_EQ(subject[1].tag, 19);
  EXPECT_EQ(subject[1].value, "a@b_c*");
  EXPECT_EQ(subject[2].tag, 19);
  EXPECT_EQ(subject[3].tag, 12);
  for (int i = 0; i < 4; ++i)
    EXPECT_EQ(subject[static_cast<std::size_t>(i)].rdn, i);  // one per RDN
  auto issuer = c.certificate().issuer();
  EXPECT_EQ(issuer[0].tag, 22);
  EXPECT_EQ(issuer[1].tag, 12);

  TElX509CertificateEx p;
  p.SubjectRDN.Add(oid::kCommonName, "Printable");
  p.UseUTF8Strings = false;
  p.Generate(id(CertAlgorithm::Ec), id(CertAlgorithm::EcdsaWithSha256), 256);
  EXPECT_EQ(p.certificate().subject()[0].tag, 19);
}

TEST(Generate, CurveFollowsTheKeySizeWhenNoneIsNamed) {
  struct Case {
    int bits;
    int curve_bits;
  };
  for (Case k : {Case{192, 192}, Case{224, 224}, Case{256, 256}, Case{257, 384}, Case{384, 384},
                 Case{385, 521}}) {
    auto c = named("ec");
    c.Generate(id(CertAlgorithm::Ec), id(CertAlgorithm::EcdsaWithSha256), k.bits);
    EXPECT_EQ(c.certificate().key_bits(), k.curve_bits) << k.bits;
    EXPECT_TRUE(self_verifies(c.certificate())) << k.bits;
  }
  auto named_curve = id(CertAlgorithm::Ec);
  named_curve.curve_oid = "1.3.132.0.34";
  auto c = named("named");
  c.Generate(named_curve, id(CertAlgorithm::EcdsaWithSha384), 192);
  EXPECT_EQ(c.certificate().key_bits(), 384);
}

TEST(Generate, DsaAndRsaPssKeys) {
  auto d = named("dsa");
  d.Generate(id(CertAlgorithm::Dsa), id(CertAlgorithm::DsaWithSha1), 1024);
  EXPECT_EQ(d.certificate().key_kind(), KeyKind::Dsa);
  EXPECT_TRUE(self_verifies(d.certificate()));

  auto pss_key = id(CertAlgorithm::RsaPss);
  pss_key.pss = {DigestAlgorithm::SHA256, DigestAlgorithm::SHA256, 32, 1};
  auto pss_sig = pss_key;
  auto p = named("pss");
  p.Generate(pss_key, pss_sig, 2048);
  EXPECT_EQ(p.certificate().key_kind(), KeyKind::RsaPss);
  EXPECT_EQ(p.certificate().signature_algorithm_oid(), "1.2.840.113549.1.1.10");
  EXPECT_TRUE(self_verifies(p.certificate()));
}

TEST(Generate, KeysAndSignaturesThatDoNotPairAreRefused) {
  auto expect_code = [](int code, auto&& fn) {
    try {
      fn();
      ADD_FAILURE() << "no error";
    } catch (const EElCertificateError& e) {
      EXPECT_EQ(e.code(), code) << e.what();
    }
  };
  expect_code(kCertErrorCannotPair, [] {
    named("x").Generate(id(CertAlgorithm::Dsa), id(CertAlgorithm::Sha256WithRsa), 1024);
  });
  expect_code(kCertErrorCannotPair, [] {
    named("x").Generate(id(CertAlgorithm::Ec), id(CertAlgorithm::Sha1WithRsa), 256);
  });
  expect_code(kCertErrorCannotPair, [] {
    named("x").Generate(id(CertAlgorithm::Rsa), id(CertAlgorithm::EcdsaWithSha256), 1024);
  });
  expect_code(kCertErrorCannotPair, [] {
    named("x").Generate(id(CertAlgorithm::Dh), id(CertAlgorithm::DsaWithSha1), 1024);
  });
  auto pss_key = id(CertAlgorithm::RsaPss);
  pss_key.pss = {DigestAlgorithm::SHA256, DigestAlgorithm::SHA256, 32, 1};
  auto other = id(CertAlgorithm::RsaPss);  // defaults: SHA-1, salt 20
  expect_code(kCertErrorCannotPair, [&] { named("x").Generate(pss_key, other, 1024); });
  expect_code(kCertErrorUnsupported, [] {
    named("x").Generate(id(CertAlgorithm::Rsa), id(CertAlgorithm::Md2WithRsa), 1024);
  });
  expect_code(kCertErrorUnsupported, [] {
    named("x").Generate(id(CertAlgorithm::Rsa), id(CertAlgorithm::RsaOaep), 1024);
  });
  try {
    named("x").Generate(id(CertAlgorithm::Gost2001), id(CertAlgorithm::Gost3411With3410_2001), 256);
    ADD_FAILURE() << "GOST generated without a GOST provider";
  } catch (const EElCertificateError& e) {
    EXPECT_EQ(e.code(), kCertErrorUnsupported);
    EXPECT_NE(std::string(e.what()).find("not supported"), std::string::npos);
  }
}

TEST(Generate, IssuerSignedNeedsTheIssuersKeyAndChainsToIt) {
  auto ca = named("Test CA");
  ca.Extensions.push_back({"2.5.29.19", true, asn1::tlv(asn1::kSequence, Bytes{0x01, 0x01, 0xFF})});
  ca.Extensions.push_back({"2.5.29.14", false, {}});
  ca.Generate(id(CertAlgorithm::Rsa), id(CertAlgorithm::Sha256WithRsa), 2048);

  TElX509CertificateEx no_key(ca.certificate(), std::nullopt);
  try {
    named("leaf").Generate(no_key, id(CertAlgorithm::Ec), id(CertAlgorithm::Sha256WithRsa), 256);
    FAIL() << "an issuer without key signed";
  } catch (const EElCertificateError& e) {
    EXPECT_EQ(e.code(), 20483);
  }

  TElX509CertificateEx leaf;
  leaf.SubjectRDN.Add(oid::kCommonName, "Leaf");
  leaf.ValidFrom = ca.ValidFrom;
  leaf.ValidTo = ca.ValidTo;
  leaf.Extensions.push_back({"2.5.29.35", false, {}});
  // An EC key signed by an RSA issuer: the pairing is checked against the issuer's key.
  leaf.Generate(ca, id(CertAlgorithm::Ec), id(CertAlgorithm::Sha256WithRsa), 256);
  const Certificate& l = leaf.certificate();
  EXPECT_EQ(l.issuer_cn(), "Test CA");
  EXPECT_EQ(l.key_kind(), KeyKind::Ec);
  int rc = X509_verify(crypto::x509_of(l), X509_get0_pubkey(crypto::x509_of(ca.certificate())));
  EXPECT_EQ(rc, 1);
  const ASN1_OCTET_STRING* aki = X509_get0_authority_key_id(crypto::x509_of(l));
  ASSERT_NE(aki, nullptr);
  EXPECT_EQ(Bytes(ASN1_STRING_get0_data(aki), ASN1_STRING_get0_data(aki) + ASN1_STRING_length(aki)),
            ca.KeyIdentifier());
}

TEST(Generate, AnEncodingLargerThanItsBufferIsRefused) {
  auto c = named("big");
  c.SubjectRDN.attributes[0].value = std::string(20000, 'x');
  try {
    c.Generate(id(CertAlgorithm::Ec), id(CertAlgorithm::EcdsaWithSha256), 256);
    FAIL() << "a certificate over 16384 bytes was accepted";
  } catch (const EElCertificateError& e) {
    EXPECT_EQ(e.code(), kCertErrorTooLarge);
  }
  EXPECT_FALSE(c.HasPrivateKey());
}

TEST(Generate, PreservedKeyIsReusedAndAMissingOneIsAnError) {
  auto a = named("keep");
  a.Generate(id(CertAlgorithm::Ec), id(CertAlgorithm::EcdsaWithSha256), 256);
  Bytes first_key = a.certificate().public_key_der();
  a.FPreserveKeyMaterial = true;
  a.Generate(id(CertAlgorithm::Ec), id(CertAlgorithm::EcdsaWithSha256), 256);
  EXPECT_EQ(a.certificate().public_key_der(), first_key);
  auto b = named("nothing to keep");
  b.FPreserveKeyMaterial = true;
  try {
    b.Generate(id(CertAlgorithm::Ec), id(CertAlgorithm::EcdsaWithSha256), 256);
    FAIL();
  } catch (const EElCertificateError& e) {
    EXPECT_EQ(e.code(), kCertErrorNoKeyToPreserve);
  }
}

TEST(Generate, CancellationStopsAKeyGenerationInProgress) {
  std::atomic<bool> cancel{true};
  EXPECT_THROW(
      named("c").Generate(id(CertAlgorithm::Rsa), id(CertAlgorithm::Sha256WithRsa), 2048, &cancel),
      crypto::GenerationCancelled);
  cancel = false;
  auto c = named("slow");
  std::thread stopper([&] {
    std::this_thread::sleep_for(50ms);
    cancel = true;
  });
  bool cancelled = false;
  try {
    // Minutes of prime search unless the key generation's callback sees the flag: a cancel
    // that does not reach it runs into the test's time limit.
    c.Generate(id(CertAlgorithm::Rsa), id(CertAlgorithm::Sha256WithRsa), 15360, &cancel);
  } catch (const crypto::GenerationCancelled&) {
    cancelled = true;
  }
  stopper.join();
  EXPECT_TRUE(cancelled);
  EXPECT_FALSE(c.HasPrivateKey());
}

TEST(Serials, SixteenPositiveBytesUniqueInTheStore) {
  test::ScopedStore store;
  auto s = open_store(store.path());
  std::set<Bytes> seen;
  for (int i = 0; i < 300; ++i) {
    Bytes serial = NewSerialNumber(*s);
    ASSERT_EQ(serial.size(), 16u);
    EXPECT_EQ(serial[0] & 0x80, 0);
    EXPECT_NE(serial[0], 0);
    EXPECT_TRUE(seen.insert(serial).second);
  }
}

TEST(NewCertificate, OptionsAreCheckedAndTheStoreGetsAUsableKey) {
  test::ScopedStore store;
  auto s = open_store(store.path());
  NewCertificateOptions o;
  EXPECT_NE(CheckNewCertificateOptions(o), "");  // no common name
  o.common_name = "Laura Bianchi";
  o.country = "it";
  EXPECT_NE(CheckNewCertificateOptions(o).find("country"), std::string::npos);
  o.country = "IT";
  o.bits = 512;
  EXPECT_NE(CheckNewCertificateOptions(o), "");
  EXPECT_THROW(CreateSelfSignedCertificate(o, *s), Exception);
  EXPECT_TRUE(s->certificates().empty());
  o.bits = 0;
  o.key = KeyKind::Ec;
  o.email = "laura@example.org";
  Certificate c = CreateSelfSignedCertificate(o, *s);
  ASSERT_EQ(s->certificates().size(), 1u);
  EXPECT_TRUE(s->key_valid(c));
  EXPECT_EQ(c.serial().size(), 16u);
  EXPECT_TRUE(c.has_key_usage(kDigitalSignature));
  EXPECT_TRUE(c.has_key_usage(kNonRepudiation));
  EXPECT_EQ(c.subject_values(oid::kCountryName), std::vector<std::string>{"IT"});
  EXPECT_TRUE(self_verifies(c));
  auto days = std::chrono::floor<std::chrono::days>(c.not_after() - c.not_before()).count();
  EXPECT_GE(days, 4 * 365);
  EXPECT_LE(days, 4 * 366);
}

}  // namespace
}  // namespace tessarel
