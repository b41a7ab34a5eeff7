// Fuzzes the certificate parser and every accessor that reads a parsed certificate: names
// in every string type, validity, extensions, key and fingerprints.
#include <cstddef>
#include <cstdint>

#include "tessarel/certificate.h"
#include "tessarel/errors.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tessarel;
  Bytes der(data, data + size);
  try {
    Certificate c = Certificate::from_der(der);
    c.id();
    c.display_serial();
    c.serial_decimal();
    c.version();
    for (const auto& a : c.subject())
      (void)a.text.size();
    for (const auto& a : c.issuer())
      (void)a.text.size();
    c.subject_text();
    c.issuer_text();
    c.subject_cn();
    c.not_before();
    c.not_after();
    c.key_usage();
    c.is_ca();
    c.self_signed();
    c.key_kind();
    c.key_bits();
    c.public_key_der();
    c.signature_algorithm_oid();
    c.fingerprint(DigestAlgorithm::SHA256);
    c.subject_key_identifier();
    Certificate::same_name(c.subject_der(), c.issuer_der());
    // A certificate read back from its own encoding is the same certificate.
    if (!(Certificate::from_der(c.der()) == c)) __builtin_trap();
  } catch (const Exception&) {
  }
  return 0;
}
