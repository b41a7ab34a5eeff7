#include "cms_support.h"

#include "platform/asn1/der.h"

namespace tessarel::test {

Bytes SignBytes(const Bytes& content, const TestCert& tc, const SignOptions& o) {
  TElSignedCMSMessage m;
  m.FDetached = o.detached;
  m.CreateNew(content.data(), content.size());
  TElCMSSignature* s = m.GetSignature(m.AddSignature());
  s->FFingerprintAlgorithm = DigestAlgorithm::SHA256;
  s->SetDigestAlgorithm(DigestAlgorithm::SHA256);
  s->FSigningOptions = o.options;
  s->FSigningTime = o.time;
  s->FContentType = asn1::encode_oid(cms_oid::kData);
  s->FCustomSignedAttributes = o.custom;
  KeyOf key(tc.key);
  s->Sign(tc.cert, &key);
  return m.SaveToBytes();
}

std::unique_ptr<TElSignedCMSMessage> OpenBytes(const Bytes& envelope) {
  auto copy = std::make_shared<Bytes>(envelope);
  struct Owned : asn1::MemorySource {
    std::shared_ptr<Bytes> keep;
    explicit Owned(std::shared_ptr<Bytes> b) : asn1::MemorySource(*b), keep(std::move(b)) {}
  };
  auto m = std::make_unique<TElSignedCMSMessage>();
  m->Open(std::make_shared<Owned>(copy));
  return m;
}

}  // namespace tessarel::test
