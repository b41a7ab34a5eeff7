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
