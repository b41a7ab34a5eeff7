// Helpers for the CMS tests: signing through the message API with a test key, and
// reading envelopes back.
#pragma once

#include "cms/cms.h"
#include "platform/crypto/pkey.h"
#include "test_support.h"

namespace tessarel::test {

class KeyOf : public SigningKey {
 public:
  explicit KeyOf(const crypto::PrivateKey& k) : k_(k) {}
  KeyKind kind() const override { return k_.kind(); }
  int bits() const override { return k_.bits(); }
  Bytes sign_digest(DigestAlgorithm alg, const Bytes& d) const override {
    return k_.sign_digest(alg, d);
  }

 private:
  const crypto::PrivateKey& k_;
};

struct SignOptions {
  bool detached = false;
  std::uint16_t options = 0x00BF;
  DateTime time = 44258.5;  // 2021-03-03 12:00:00 UTC
  std::vector<TElPKCS7Attribute> custom;
};

// Signs content with the settings of the batch signer (overridable).
Bytes SignBytes(const Bytes& content, const TestCert& tc, const SignOptions& o = {});
// Opens envelope bytes.
std::unique_ptr<TElSignedCMSMessage> OpenBytes(const Bytes& envelope);

}  // namespace tessarel::test
