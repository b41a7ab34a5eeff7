// The SignedData we write, checked element by element.
#include <gtest/gtest.h>
#include <openssl/x509.h>

#include "cms/cades.h"
#include "cms/cms_verify.h"
#include "cms_support.h"
#include "platform/asn1/ber.h"
#include "platform/asn1/der.h"
#include "platform/crypto/digest.h"
#include "platform/crypto/x509.h"
#include "platform/runtime/datetime.h"

namespace tessarel {
namespace {

using asn1::BerNode;
using test::SignBytes;

const test::TestCert& signer() {
  static test::TestCert tc = [] {
    test::CertParams s;
    s.cn = "Firmatario Prova";
    return test::make_cert(s);
  }();
  return tc;
}

struct Tree {
  Bytes bytes;
  asn1::MemorySource src;
  BerNode root;
  explicit Tree(Bytes b) : bytes(std::move(b)), src(bytes), root(asn1::ParseBer(src)) {}
  Bytes element(const BerNode& n) const { return asn1::ElementBytes(src, n); }
  Bytes content(const BerNode& n) const { return asn1::ContentBytes(src, n, 1 << 30); }
};

TEST(CmsStructure, AttachedEnvelopeHasExactlyTheExpectedElements) {
  Bytes data{'c', 'o', 'n', 't', 'r', 'a', 't', 't', 'o'};
  Tree t(SignBytes(data, signer()));
  const Certificate& cert = signer().cert;
  // ContentInfo { id-signedData, [0] { SignedData } }
  ASSERT_EQ(t.root.children.size(), 2u);
  EXPECT_EQ(asn1::ReadOid(t.src, t.root.children[0]), "1.2.840.113549.1.7.2");
  const BerNode& sd = t.root.children[1].children[0];
  ASSERT_EQ(sd.children.size(), 5u);  // version, digestAlgorithms, encap, certificates, signerInfos
  EXPECT_EQ(asn1::ReadSmallInteger(t.src, sd.children[0]), 1);
  // SHA-256 with absent parameters.
  EXPECT_EQ(
      t.element(sd.children[1]),
      asn1::tlv(0x31,
                asn1::tlv(0x30, asn1::tlv(0x06, asn1::encode_oid("2.16.840.1.101.3.4.2.1")))));
  const BerNode& encap = sd.children[2];
  EXPECT_EQ(asn1::ReadOid(t.src, encap.children[0]), "1.2.840.113549.1.7.1");
  EXPECT_EQ(encap.children[1].tag_number, 0u);
  EXPECT_FALSE(encap.children[1].children[0].constructed);
  EXPECT_EQ(t.content(encap.children[1].children[0]), data);
  ASSERT_TRUE(sd.children[3].is_context(0));
  ASSERT_EQ(sd.children[3].children.size(), 1u);
  EXPECT_EQ(t.element(sd.children[3].children[0]), cert.der());

  const BerNode& si = sd.children[4].children.at(0);
  ASSERT_EQ(si.children.size(), 6u);
  EXPECT_EQ(asn1::ReadSmallInteger(t.src, si.children[0]), 1);
  // sid: the certificate's issuer Name and serial, byte for byte.
  EXPECT_EQ(t.element(si.children[1].children[0]), cert.issuer_der());
  EXPECT_EQ(asn1::ReadIntegerBytes(t.src, si.children[1].children[1]), cert.serial());
  EXPECT_EQ(asn1::ReadOid(t.src, si.children[2].children[0]), "2.16.840.1.101.3.4.2.1");
  // Signed attributes: four, in DER SET order, which is this order.
  const BerNode& attrs = si.children[3];
  ASSERT_TRUE(attrs.is_context(0));
  ASSERT_EQ(attrs.children.size(), 4u);
  std::vector<std::string> types;
  for (const auto& a : attrs.children)
    types.push_back(asn1::ReadOid(t.src, a.children[0]));
  EXPECT_EQ(types,
            (std::vector<std::string>{"1.2.840.113549.1.9.3", "1.2.840.113549.1.9.5",
                                      "1.2.840.113549.1.9.4", "1.2.840.113549.1.9.16.2.47"}));
  for (const auto& a : attrs.children)
    EXPECT_EQ(a.children[1].children.size(), 1u);  // one value each
  EXPECT_EQ(asn1::ReadOid(t.src, attrs.children[0].children[1].children[0]),
            "1.2.840.113549.1.7.1");
  const BerNode& time = attrs.children[1].children[1].children[0];
  EXPECT_TRUE(time.is_universal(asn1::kGeneralizedTime));
  EXPECT_EQ(t.content(time),
            Bytes({'2', '0', '2', '1', '0', '3', '0', '3', '1', '2', '0', '0', '0', '0', 'Z'}));
  EXPECT_EQ(t.content(attrs.children[2].children[1].children[0]), crypto::sha256(data));
  // SigningCertificateV2 { certs { ESSCertIDv2 { certHash, issuerSerial { { [4] Name }, serial } }
  // } }
  const BerNode& essid = attrs.children[3].children[1].children[0].children[0].children[0];
  ASSERT_EQ(essid.children.size(), 2u);  // hashAlgorithm left out: SHA-256 is its default
  EXPECT_EQ(t.content(essid.children[0]), crypto::sha256(cert.der()));
  const BerNode& issuer_serial = essid.children[1];
  EXPECT_TRUE(issuer_serial.children[0].children[0].is_context(4));
  EXPECT_EQ(t.element(issuer_serial.children[0].children[0].children[0]), cert.issuer_der());
  EXPECT_EQ(asn1::ReadIntegerBytes(t.src, issuer_serial.children[1]), cert.serial());
  // signatureAlgorithm rsaEncryption with NULL parameters; the signature covers the
  // attributes re-tagged as a SET.
  EXPECT_EQ(t.element(si.children[4]),
            asn1::tlv(0x30, Bytes{0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01,
                                  0x05, 0x00}));
  Bytes signed_attrs = t.element(attrs);
  signed_attrs[0] = 0x31;
  auto pub = crypto::PublicKey::from_certificate(cert);
  EXPECT_TRUE(pub.verify_digest(DigestAlgorithm::SHA256, crypto::sha256(signed_attrs),
                                t.content(si.children[5])));
  // Nothing after the signature: no unsigned attributes, no CRLs, no trailing bytes.
  EXPECT_EQ(t.root.end(), t.bytes.size());
}

TEST(CmsStructure, EmptyContentGivesAnEmptyOctetStringAndReadsAsDetached) {
  Bytes envelope = SignBytes({}, signer());
  Tree t(envelope);
  const BerNode& econtent = t.root.children[1].children[0].children[2].children[1].children[0];
  EXPECT_EQ(t.element(econtent), (Bytes{0x04, 0x00}));
  auto m = test::OpenBytes(envelope);
  EXPECT_EQ(m->FContent->Size(), 0u);
  EXPECT_TRUE(m->FDetached);
  EXPECT_EQ(m->GetSignature(0)->FMessageDigest, crypto::sha256(Bytes{}));
}

TEST(CmsStructure, DetachedDiffersFromAttachedOnlyByTheContent) {
  Bytes data(5000, 'q');
  Tree a(SignBytes(data, signer()));
  test::SignOptions o;
  o.detached = true;
  Tree d(SignBytes(data, signer(), o));
  const BerNode& sa = a.root.children[1].children[0];
  const BerNode& sd = d.root.children[1].children[0];
  EXPECT_EQ(sd.children[2].children.size(), 1u);  // eContentType only
  EXPECT_EQ(a.element(sa.children[3]), d.element(sd.children[3]));
  EXPECT_EQ(a.element(sa.children[4]), d.element(sd.children[4]));
}

TEST(CmsStructure, OneMessageObjectSignsManyFilesIndependently) {
  TElSignedCMSMessage m;
  test::KeyOf key(signer().key);
  std::vector<Bytes> outputs;
  Bytes first{'1'}, second{'2', '2'};
  for (const Bytes* content : {&first, &second}) {
    m.CreateNew(content->data(), content->size());
    TElCMSSignature* s = m.GetSignature(m.AddSignature());
    s->SetDigestAlgorithm(DigestAlgorithm::SHA256);
    s->FFingerprintAlgorithm = DigestAlgorithm::SHA256;
    s->FSigningOptions = 0x00BF;
    s->FSigningTime = 44258.0;
    s->Sign(signer().cert, &key);
    s->Sign(signer().cert, &key);  // a second Sign does not add the certificate twice
    outputs.push_back(m.SaveToBytes());
    m.Clear();
  }
  auto reread = test::OpenBytes(outputs[1]);
  EXPECT_EQ(reread->SignatureCount(), 1);
  EXPECT_EQ(reread->FCertificates.size(), 1u);
  EXPECT_EQ(reread->GetSignature(0)->FMessageDigest, crypto::sha256(second));
}

TEST(CmsStructure, StreamedContentGivesTheSameBytesAsContentInMemory) {
  test::TempDir d;
  Bytes data(3 * 1024 * 1024 + 17);
  for (std::size_t i = 0; i < data.size(); ++i)
    data[i] = static_cast<std::uint8_t>(i * 131 + (i >> 9));
  test::write_file(d / "big.bin", data);
  test::KeyOf key(signer().key);
  auto sign_with = [&](bool stream) {
    TElSignedCMSMessage m;
    if (stream) {
      auto src = std::make_shared<asn1::FileSource>(d / "big.bin");
      m.CreateNew(src, 0, src->size());
    } else {
      m.CreateNew(data.data(), data.size());
    }
    TElCMSSignature* s = m.GetSignature(m.AddSignature());
    s->SetDigestAlgorithm(DigestAlgorithm::SHA256);
    s->FFingerprintAlgorithm = DigestAlgorithm::SHA256;
    s->FSigningOptions = 0x00BF;
    s->FSigningTime = 45000.25;
    s->Sign(signer().cert, &key);
    return m.SaveToBytes();
  };
  EXPECT_EQ(sign_with(true), sign_with(false));
}

TEST(CmsStructure, SerialsWithALeadingZeroAndMixedIssuerNamesAreCopiedExactly) {
  // An issuer with PrintableString and UTF8String values and a multi-valued RDN.
  X509_NAME* n = X509_NAME_new();
  X509_NAME_add_entry_by_txt(n, "C", V_ASN1_PRINTABLESTRING,
                             reinterpret_cast<const unsigned char*>("IT"), -1, -1, 0);
  X509_NAME_add_entry_by_txt(n, "O", V_ASN1_UTF8STRING,
                             reinterpret_cast<const unsigned char*>("Ente \xC3\xA8"), -1, -1, 0);
  X509_NAME_add_entry_by_txt(n, "OU", V_ASN1_PRINTABLESTRING,
                             reinterpret_cast<const unsigned char*>("Uno"), -1, -1, 0);
  X509_NAME_add_entry_by_txt(n, "CN", V_ASN1_UTF8STRING,
                             reinterpret_cast<const unsigned char*>("Multi"), -1, -1, -1);
  // Leaf with serial 00 80 01 (a leading zero kept) issued under that name.
  test::CertParams leaf_spec;
  leaf_spec.serial = {0x00, 0x80, 0x01};
  test::TestCert leaf = test::make_cert(leaf_spec);
  crypto::X509Ptr lx(X509_dup(crypto::x509_of(leaf.cert)));
  X509_set_issuer_name(lx.get(), n);
  X509_NAME_free(n);
  X509_sign(lx.get(), leaf.key.get(), EVP_sha256());
  test::TestCert mixed{crypto::certificate_from_x509(lx.get()),
                       crypto::PrivateKey::from_pkcs8_der(leaf.pkcs8())};
  ASSERT_EQ(mixed.cert.serial(), (Bytes{0x00, 0x80, 0x01}));
  auto issuer = mixed.cert.issuer();
  ASSERT_EQ(issuer.size(), 4u);
  EXPECT_EQ(issuer[3].rdn, issuer[2].rdn);  // multi-valued RDN

  Tree t(SignBytes({'x'}, mixed));
  const BerNode& si = t.root.children[1].children[0].children[4].children[0];
  EXPECT_EQ(t.element(si.children[1].children[0]), mixed.cert.issuer_der());
  EXPECT_EQ(asn1::ReadIntegerBytes(t.src, si.children[1].children[1]), (Bytes{0x00, 0x80, 0x01}));
  auto m = test::OpenBytes(t.bytes);
  EXPECT_TRUE(VerifySignedMessage(*m).ok());
}

TEST(CmsStructure, SigningTimeFormatFollowsTheOptionAndTheYear) {
  auto time_tag = [](DateTime when, std::uint16_t options) {
    test::SignOptions o;
    o.options = options;
    o.time = when;
    Tree t(SignBytes({'t'}, signer(), o));
    const BerNode& attrs = t.root.children[1].children[0].children[4].children[0].children[3];
    for (const auto& a : attrs.children)
      if (asn1::ReadOid(t.src, a.children[0]) == "1.2.840.113549.1.9.5")
        return a.children[1].children[0].tag_number;
    return 0u;
  };
  const std::uint16_t no_generalized = 0x00BF & ~0x0008;
  EXPECT_EQ(time_tag(44258.5, 0x00BF), asn1::kGeneralizedTime);
  EXPECT_EQ(time_tag(44258.5, no_generalized), asn1::kUtcTime);
  EXPECT_EQ(time_tag(18263.9, no_generalized), asn1::kGeneralizedTime);  // 1949
  EXPECT_EQ(time_tag(54789.0, no_generalized), asn1::kGeneralizedTime);  // 2050
  EXPECT_EQ(time_tag(54788.9, no_generalized), asn1::kUtcTime);          // 2049
}

TEST(CmsStructure, CadesBesNeedsContentTypeDigestAndSigningCertificate) {
  auto m = test::OpenBytes(SignBytes({'b'}, signer()));
  TElCAdESSignatureProcessor p(m->GetSignature(0));
  EXPECT_TRUE(p.IsBES());
  EXPECT_EQ(p.CompatibilityErrors(), 0);

  test::SignOptions without_ess;
  without_ess.options = 0x00BF & ~0x0020;  // no signing-certificate attribute
  auto m2 = test::OpenBytes(SignBytes({'b'}, signer(), without_ess));
  TElCAdESSignatureProcessor p2(m2->GetSignature(0));
  EXPECT_FALSE(p2.IsBES());
  EXPECT_EQ(p2.CompatibilityErrors(), 1 << cerrNoSigningCertificate);

  // A content-type attribute whose value is not an OBJECT IDENTIFIER.
  test::SignOptions bad_type;
  bad_type.options = 0x00BF & ~0x0004;
  bad_type.custom = {{cms_oid::kContentType, {asn1::tlv(asn1::kInteger, Bytes{1})}}};
  auto m3 = test::OpenBytes(SignBytes({'b'}, signer(), bad_type));
  TElCAdESSignatureProcessor p3(m3->GetSignature(0));
  EXPECT_FALSE(p3.IsBES());
  EXPECT_EQ(p3.CompatibilityErrors(), 1 << cerrNoContentType);

  EXPECT_THROW(TElCAdESSignatureProcessor(nullptr).IsBES(), EElCAdESSignatureProcessorError);
}

TEST(CmsStructure, UtcTimeYearsFortyNineAndFiftyReadAsTwoThousandFortyNineAndNineteenFifty) {
  for (auto [text, year] : {std::pair{"490101120000Z", 2049}, std::pair{"500101120000Z", 1950}}) {
    test::SignOptions o;
    o.options = 0x00BF & ~0x0002;  // the signing time comes from the custom attribute
    std::string s = text;
    o.custom = {{cms_oid::kSigningTime, {asn1::tlv(asn1::kUtcTime, Bytes(s.begin(), s.end()))}}};
    auto m = test::OpenBytes(SignBytes({'y'}, signer(), o));
    CivilTime c = DecodeDateTime(m->GetSignature(0)->FSigningTime);
    EXPECT_EQ(c.year, year) << text;
    EXPECT_EQ(c.hour, 12);
  }
}

}  // namespace
}  // namespace tessarel
