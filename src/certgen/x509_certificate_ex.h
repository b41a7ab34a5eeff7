// A certificate that generates its own key pair and signs itself, or is signed by an
// issuing certificate. The encoding is the project's own DER; OpenSSL generates keys and
// computes signatures.
#pragma once

#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "certgen/algorithm_identifier.h"
#include "platform/crypto/pkey.h"
#include "tessarel/certificate.h"
#include "tessarel/store.h"

namespace tessarel {

// Error codes of certificate generation (tessarel::EElCertificateError::code()).
enum CertGenerationError : int {
  kCertErrorUnsupported = 20481,      // no implementation for the algorithm here
  kCertErrorCannotPair = 20482,       // key and signature algorithms do not go together
  kCertErrorNoIssuerKey = 20483,      // the issuing certificate has no private key
  kCertErrorNoKeyToPreserve = 20484,  // the key to keep is missing or not private
  kCertErrorTooLarge = 20485,         // the encoding does not fit its buffer
};

struct RdnAttribute {
  std::string oid;
  // ASN.1 string tag of the value; 0 lets the certificate choose (IA5String for
  // emailAddress, else UTF8String or PrintableString by UseUTF8Strings).
  int tag = 0;
  std::string value;  // bytes as they are to be written
};

// A distinguished name written one attribute per RDN, in order.
class TElRelativeDistinguishedName {
 public:
  void Add(const std::string& oid, const std::string& value, int tag = 0) {
    attributes.push_back({oid, tag, value});
  }
  // Adds a value typed by a person (UTF-8) in the string type every X.509 reader takes:
  // PrintableString when each character is in its alphabet, else UTF8String; an e-mail
  // address as IA5String (UTF8String if it is not ASCII). An empty value is left out.
  void AddText(const std::string& oid, const std::string& utf8_value);
  int Count() const { return static_cast<int>(attributes.size()); }
  Bytes Encode(bool utf8_strings) const;
  std::vector<RdnAttribute> attributes;
};

struct CertExtension {
  std::string oid;
  bool critical = false;
  // The extension's value (contents of extnValue). Left empty for a subject or authority
  // key identifier, generation fills it in.
  Bytes value;
};

class TElX509CertificateEx {
 public:
  static constexpr std::size_t kBufferSize = 16384;

  TElRelativeDistinguishedName SubjectRDN;
  TElRelativeDistinguishedName IssuerRDN;
  std::chrono::sys_seconds ValidFrom{};
  std::chrono::sys_seconds ValidTo{};
  // Serial INTEGER content octets; empty: a random positive 16-byte serial is given.
  Bytes SerialNumber;
  // Version number (1-4); 0 means unset (1).
  int Version = 0;
  std::vector<CertExtension> Extensions;
  // String format of attribute values whose tag is 0.
  bool UseUTF8Strings = true;
  // Key identifier to give the new key when not empty.
  Bytes FAltKeyID;
  // Sign with the key already held instead of generating one.
  bool FPreserveKeyMaterial = false;

  TElX509CertificateEx() = default;
  // An existing certificate (and its key, if any), for use as an issuer.
  TElX509CertificateEx(const Certificate& cert, std::optional<crypto::PrivateKey> key);

  // Self-signed generation. cancel, when given, stops a key generation in progress.
  void Generate(const TElAlgorithmIdentifier& public_key_algorithm,
                const TElAlgorithmIdentifier& signature_algorithm, int bits,
                const std::atomic<bool>* cancel = nullptr);
  // Generation signed by an issuing certificate, which must hold a private key (error 20483).
  void Generate(const TElX509CertificateEx& issuer,
                const TElAlgorithmIdentifier& public_key_algorithm,
                const TElAlgorithmIdentifier& signature_algorithm, int bits,
                const std::atomic<bool>* cancel = nullptr);

  bool HasPrivateKey() const { return key_.has_value(); }
  bool Generating() const { return FGenerate; }
  // The generated (or loaded) certificate; throws when there is none.
  const Certificate& certificate() const;
  const crypto::PrivateKey& private_key() const;
  // SHA-1 of the public key (its BIT STRING contents): the certificate's own key identifier.
  const Bytes& KeyIdentifier() const { return key_identifier_; }
  // The public-key algorithm identifier of the certificate's key.
  TElAlgorithmIdentifier PublicKeyAlgorithm() const;

 private:
  void DoGenerate(const TElX509CertificateEx* issuer, TElAlgorithmIdentifier public_key_algorithm,
                  const TElAlgorithmIdentifier& signature_algorithm, int bits,
                  const std::atomic<bool>* cancel);
  // The TBSCertificate: this certificate's fields, the issuer's name when IssuerRDN is empty.
  Bytes encode_tbs(const TElX509CertificateEx* issuer, const Bytes& sig_alg,
                   const TElAlgorithmIdentifier& public_key_algorithm, const Bytes& key_bits,
                   const std::vector<CertExtension>& extensions) const;

  std::optional<Certificate> cert_;
  std::optional<crypto::PrivateKey> key_;
  std::optional<TElAlgorithmIdentifier> public_key_algorithm_;
  Bytes key_identifier_;
  bool FGenerate = false;
};

// A serial for a new certificate: 16 random bytes, the high bit clear (a positive INTEGER),
// not already used by a certificate of the store.
Bytes NewSerialNumber(CertStore& store);

}  // namespace tessarel
