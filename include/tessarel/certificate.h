// An X.509 certificate, immutable and cheap to copy.
#ifndef TESSAREL_CERTIFICATE_H
#define TESSAREL_CERTIFICATE_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tessarel/export.h"
#include "tessarel/types.h"

namespace tessarel {

// One attribute of a distinguished name, as encoded: the OID in dotted form, the ASN.1
// string tag of the value (19 PrintableString, 12 UTF8String, 22 IA5String, ...), the raw
// value bytes, the value as UTF-8 text (whatever the string type), and the index of the
// RDN (SET) it belongs to.
struct NameAttribute {
  std::string oid;
  int tag = 0;
  std::string value;
  int rdn = 0;
  std::string text;
};

// X.509 key-usage bits, numbered as in the standard (bit 0 = digitalSignature).
enum KeyUsageBit : unsigned {
  kDigitalSignature = 0,
  kNonRepudiation = 1,
  kKeyEncipherment = 2,
  kDataEncipherment = 3,
  kKeyAgreement = 4,
  kKeyCertSign = 5,
  kCrlSign = 6,
  kEncipherOnly = 7,
  kDecipherOnly = 8,
};

class TESSAREL_API Certificate {
 public:
  // Parses a DER certificate; throws tessarel::Exception when it is not one.
  static Certificate from_der(const Bytes& der);
  // Parses the first certificate of a PEM text.
  static Certificate from_pem(const std::string& pem);

  Certificate(const Certificate&);
  Certificate& operator=(const Certificate&);
  Certificate(Certificate&&) noexcept;
  Certificate& operator=(Certificate&&) noexcept;
  ~Certificate();

  const Bytes& der() const;
  std::string pem() const;

  // Content octets of the serial INTEGER exactly as encoded (a leading 00 kept).
  const Bytes& serial() const;
  // The certificate identifier: serial() as upper-case hexadecimal, no separators.
  std::string id() const;
  // Serial as shown to people: byte pairs separated by single spaces ("1A 2B 3C").
  std::string display_serial() const;
  // Serial as an unsigned decimal integer (a minus sign for a negative INTEGER).
  std::string serial_decimal() const;

  int version() const;  // 1, 2 or 3
  std::vector<NameAttribute> subject() const;
  std::vector<NameAttribute> issuer() const;
  // DER of the subject and issuer Name, byte for byte as in the certificate.
  Bytes subject_der() const;
  Bytes issuer_der() const;
  // Values of one attribute type ("2.5.4.3" for commonName ...), in encoded order, as
  // UTF-8 text.
  std::vector<std::string> subject_values(const std::string& oid) const;
  std::vector<std::string> issuer_values(const std::string& oid) const;
  // First commonName of the subject / issuer, empty when there is none.
  std::string subject_cn() const;
  std::string issuer_cn() const;
  // One-line readable form, most significant attribute first ("CN=x, O=y, C=IT").
  std::string subject_text() const;
  std::string issuer_text() const;

  std::chrono::sys_seconds not_before() const;
  std::chrono::sys_seconds not_after() const;

  // Key usage bits when the extension is present.
  std::optional<std::uint16_t> key_usage() const;
  bool has_key_usage(KeyUsageBit bit) const;
  bool is_ca() const;
  bool self_signed() const;

  KeyKind key_kind() const;
  int key_bits() const;
  // DER SubjectPublicKeyInfo.
  Bytes public_key_der() const;
  // OID (dotted) of the certificate's signature algorithm.
  std::string signature_algorithm_oid() const;

  Bytes fingerprint(DigestAlgorithm alg) const;
  // The subject key identifier extension's value, empty when absent.
  Bytes subject_key_identifier() const;
  // True when the two Name encodings denote the same name (compared as X.509 does).
  static bool same_name(const Bytes& name_der_a, const Bytes& name_der_b);

  bool operator==(const Certificate& other) const;

 private:
  // The parsed form is the library's own business; its crypto layer reaches it through
  // CertificateAccess.
  friend struct CertificateAccess;
  struct Impl;
  explicit Certificate(std::shared_ptr<const Impl> impl);
  std::shared_ptr<const Impl> impl_;
};

// Common attribute OIDs.
namespace oid {
inline constexpr const char* kCommonName = "2.5.4.3";
inline constexpr const char* kCountryName = "2.5.4.6";
inline constexpr const char* kLocalityName = "2.5.4.7";
inline constexpr const char* kStateOrProvinceName = "2.5.4.8";
inline constexpr const char* kOrganizationName = "2.5.4.10";
inline constexpr const char* kOrganizationalUnitName = "2.5.4.11";
inline constexpr const char* kEmailAddress = "1.2.840.113549.1.9.1";
}  // namespace oid

}  // namespace tessarel

#endif
