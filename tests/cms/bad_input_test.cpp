// Damaged and hostile envelopes: every failure is an EElCMSError that says what is wrong,
// never a crash or a hang.
#include <gtest/gtest.h>

#include <algorithm>

#include "cms/cms_verify.h"
#include "cms_support.h"
#include "platform/asn1/der.h"

namespace tessarel {
namespace {

const test::TestCert& signer() {
  static test::TestCert tc = [] {
    test::CertParams s;
    s.kind = KeyKind::Ec;
    s.bits = 256;
    return test::make_cert(s);
  }();
  return tc;
}

std::string open_error(const Bytes& b) {
  try {
    test::OpenBytes(b);
  } catch (const EElCMSError& e) {
    return e.what();
  }
  return "";
}

TEST(CmsBadInput, EveryTruncationIsALoadError) {
  Bytes env = test::SignBytes({'t', 'r', 'u', 'n', 'c'}, signer());
  // Nothing at all is named first, like other input that is no envelope.
  EXPECT_EQ(open_error({}),
            "the file is empty, not a CMS envelope\nFailed to load CMS message, error 1: the "
            "data is empty");
  for (std::size_t n = 1; n < env.size(); ++n) {
    std::string e = open_error(Bytes(env.begin(), env.begin() + static_cast<long>(n)));
    EXPECT_EQ(e.rfind("Failed to load CMS message, error ", 0), 0u) << n << ": " << e;
  }
}

TEST(CmsBadInput, WrongTagsLengthsAndNestingAreNamed) {
  Bytes env = test::SignBytes({'w'}, signer());
  Bytes wrong = env;
  wrong[0] = 0x31;  // a SET where the ContentInfo SEQUENCE should be
  EXPECT_NE(open_error(wrong).find("ContentInfo"), std::string::npos);
  Bytes longer = env;
  longer[2] = static_cast<std::uint8_t>(longer[2] + 1);  // outer length one too long
  EXPECT_NE(open_error(longer).find("beyond the end"), std::string::npos) << open_error(longer);
  Bytes deep;
  for (int i = 0; i < 10000; ++i)
    deep.insert(deep.end(), {0x30, 0x80});
  for (int i = 0; i < 10000; ++i)
    deep.insert(deep.end(), {0x00, 0x00});
  EXPECT_NE(open_error(deep).find("nesting deeper"), std::string::npos);
  EXPECT_NE(open_error({}).find("empty"), std::string::npos);
  // Another content type.
  Bytes enveloped = asn1::tlv(0x30, asn1::tlv(0x06, asn1::encode_oid("1.2.840.113549.1.7.3")));
  EXPECT_EQ(open_error(enveloped), "No signed data found");
}

// Each SignedData field with another tag than its definition gives is named, at the offset
// of the element at fault; a field missing at the end is named at the element that ends.
TEST(CmsBadInput, EachDamagedSignedDataFieldIsNamedWhereItIs) {
  const Bytes env = test::SignBytes({'f'}, signer());
  asn1::MemorySource src(env);
  const asn1::BerNode root = asn1::ParseBer(src);
  const asn1::BerNode& sd = root.children.at(1).children.at(0);
  const asn1::BerNode& encap = sd.children.at(2);
  const asn1::BerNode& si = sd.children.at(4).children.at(0);
  auto load_error = [](const std::string& what, std::uint64_t offset) {
    return "Failed to load CMS message, error 8: " + what + " (at offset " +
           std::to_string(offset) + ")";
  };
  struct Damage {
    const asn1::BerNode& at;
    std::uint8_t tag;
    const char* message;
  };
  const Damage damages[] = {
      {root.children[1], 0xA1, "[0] content expected"},
      {sd, 0x31, "a SignedData SEQUENCE expected"},
      {sd.children[1], 0x30, "digestAlgorithms SET expected"},
      {encap, 0x31, "encapContentInfo SEQUENCE expected"},
      {encap.children.at(1), 0xA1, "[0] eContent expected"},
      {encap.children[1].children.at(0), 0x0C, "eContent is not an OCTET STRING"},
      {sd.children[4], 0x30, "signerInfos SET expected"},
      {si, 0x31, "a SignerInfo SEQUENCE expected"},
      {si.children.at(1), 0x31, "signer identifier expected"},
      {si.children.at(3).children.at(0), 0x31, "an Attribute SEQUENCE expected"},
      {si.children.at(5), 0x0C, "signature value expected"},
  };
  for (const Damage& d : damages) {
    Bytes damaged = env;
    damaged[d.at.offset] = d.tag;
    EXPECT_EQ(open_error(damaged), load_error(d.message, d.at.offset));
  }

  Bytes signed_data_oid = asn1::tlv(0x06, asn1::encode_oid("1.2.840.113549.1.7.2"));
  EXPECT_EQ(open_error(asn1::tlv(0x30, signed_data_oid)), load_error("missing content", 0));
  Bytes no_signers = asn1::tlv(0x02, Bytes{1});
  for (const Bytes& field :
       {asn1::tlv(0x31, Bytes{}),
        asn1::tlv(0x30, asn1::tlv(0x06, asn1::encode_oid("1.2.840.113549.1.7.1")))})
    no_signers.insert(no_signers.end(), field.begin(), field.end());
  Bytes content = asn1::tlv(0xA0, asn1::tlv(0x30, no_signers));
  Bytes truncated = signed_data_oid;
  truncated.insert(truncated.end(), content.begin(), content.end());
  truncated = asn1::tlv(0x30, truncated);
  asn1::MemorySource truncated_src(truncated);
  EXPECT_EQ(open_error(truncated),
            load_error("missing signerInfos",
                       asn1::ParseBer(truncated_src).children.at(1).children.at(0).offset));

  // certificates [0] turned into crls [1]: skipped as CRLs are; the signer is still read.
  Bytes as_crls = env;
  as_crls[sd.children.at(3).offset] = 0xA1;
  auto m = test::OpenBytes(as_crls);
  EXPECT_TRUE(m->FCertificates.empty());
  ASSERT_EQ(m->SignatureCount(), 1);
  EXPECT_EQ(m->GetSignature(0)->FPKCS7Signer.SerialNumber, signer().cert.serial());
}

TEST(CmsBadInput, NoSignerNoCertificateAndUnknownDigestAreReported) {
  TElSignedCMSMessage empty;
  Bytes data{'e'};
  empty.CreateNew(data.data(), data.size());
  auto m = test::OpenBytes(empty.SaveToBytes());
  EXPECT_EQ(m->SignatureCount(), 0);
  EXPECT_TRUE(m->Certificates().empty());
  CmsVerification v = VerifySignedMessage(*m);
  EXPECT_FALSE(v.ok());
  EXPECT_EQ(v.problems, std::vector<std::string>{"the envelope has no signer"});

  test::SignOptions no_cert;
  no_cert.options = 0x00BF & ~0x0010;
  auto nc = test::OpenBytes(test::SignBytes({'c'}, signer(), no_cert));
  v = VerifySignedMessage(*nc);
  ASSERT_EQ(v.signers.size(), 1u);
  EXPECT_FALSE(v.signers[0].ok());
  EXPECT_EQ(v.signers[0].problems.front(), "the signer's certificate is not in the envelope");

  // The digest algorithm OID replaced by one no one knows (same length).
  Bytes env = test::SignBytes({'d'}, signer());
  Bytes sha256 = asn1::encode_oid("2.16.840.1.101.3.4.2.1");
  Bytes unknown = sha256;
  unknown.back() = 0x7F;
  auto it = std::search(env.begin(), env.end(), sha256.begin(), sha256.end());
  it = std::search(it + 1, env.end(), sha256.begin(), sha256.end());  // the signer's own
  ASSERT_NE(it, env.end());
  std::copy(unknown.begin(), unknown.end(), it);
  auto ud = test::OpenBytes(env);
  v = VerifySignedMessage(*ud);
  ASSERT_EQ(v.signers.size(), 1u);
  EXPECT_EQ(v.signers[0].problems.front(), "unsupported algorithm 2.16.840.1.101.3.4.2.127");
  EXPECT_EQ(v.signers[0].unsupported_algorithm, "2.16.840.1.101.3.4.2.127");
}

TEST(CmsBadInput, SigningWithoutAKeyOrWithAnUnsupportedKey) {
  TElSignedCMSMessage m;
  Bytes data{'k'};
  m.CreateNew(data.data(), data.size());
  TElCMSSignature* s = m.GetSignature(m.AddSignature());
  s->SetDigestAlgorithm(DigestAlgorithm::SHA256);
  try {
    s->Sign(signer().cert, nullptr);
    FAIL();
  } catch (const EElCMSError& e) {
    EXPECT_STREQ(e.what(), "Private key not found");
  }
  test::CertParams ed;
  ed.kind = KeyKind::Ed25519;
  test::TestCert edc = test::make_cert(ed);
  test::KeyOf key(edc.key);
  try {
    s->Sign(edc.cert, &key);
    FAIL();
  } catch (const EElCMSError& e) {
    EXPECT_EQ(std::string(e.what()).rfind("Unsupported algorithm: ", 0), 0u);
  }
}

}  // namespace
}  // namespace tessarel
