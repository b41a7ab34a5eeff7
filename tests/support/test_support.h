// Helpers shared by the tests: private certificate stores, test certificates made directly
// with OpenSSL (independently of the library's own generator), the installed Ui, and the
// command-line program; temporary folders and processes come from system_support.h.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/crypto/pkey.h"
#include "system_support.h"
#include "tessarel/certificate.h"
#include "tessarel/types.h"
#include "tessarel/ui.h"

namespace tessarel::test {

// An envelope made with an RSA-2048 key with the digits of its generalized signing time and
// its signature value (the last 256 bytes) blanked: what two signings of the same file at
// different times still have in common. Fails the test when there is no signing time.
Bytes without_signing_time(Bytes envelope);

struct CertParams {
  std::string cn = "Test Signer";
  std::string org;
  std::string country;
  std::string email;
  KeyKind kind = KeyKind::Rsa;
  int bits = 2048;                         // RSA/DSA bits; EC: 256 or 384
  std::string curve;                       // EC: a curve by name ("brainpoolP256r1")
  Bytes serial;                            // INTEGER content octets; empty: 16 random bytes
  std::optional<std::uint16_t> key_usage;  // bits as in Certificate::key_usage()
  bool ca = false;
  int days = 365;
  int not_before_offset_days = -1;
  // Further subject attributes written exactly: short name ("L", "O"...), ASN.1 string
  // type (V_ASN1_T61STRING...) and the value's bytes.
  struct RawEntry {
    std::string field;
    int type;
    std::string bytes;
  };
  std::vector<RawEntry> raw_subject;
};

struct TestCert {
  Certificate cert;
  crypto::PrivateKey key;
  Bytes pkcs8() const { return key.to_pkcs8_der(); }
};

// A self-signed certificate (or one issued by issuer) made with OpenSSL's X509 API.
TestCert make_cert(const CertParams& params, const TestCert* issuer = nullptr);
// Writes the certificate as PEM into a file and returns the path.
std::string write_pem(const Certificate& cert, const std::string& path);
// Writes the key as unencrypted PKCS#8 PEM.
std::string write_key_pem(const crypto::PrivateKey& key, const std::string& path);

// Points the library at a private store in a temporary folder for the test's lifetime and
// forgets the shared store snapshot before and after.
class ScopedStore {
 public:
  ScopedStore();
  ~ScopedStore();
  const std::string& path() const { return path_; }
  // Adds a certificate (with its key unless with_key is false) to the store.
  void add(const TestCert& tc, bool with_key = true);

 private:
  TempDir dir_;
  std::string path_;
};

// Installs a Ui for the test's lifetime.
class ScopedUi {
 public:
  explicit ScopedUi(std::shared_ptr<Ui> ui);
  ~ScopedUi();
};

// The built command-line program.
std::string cli_path();

}  // namespace tessarel::test
