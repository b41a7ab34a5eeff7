// Whether a signer's certificate chains to a certificate the user trusts.
#ifndef TESSAREL_TRUST_H
#define TESSAREL_TRUST_H

#include <chrono>
#include <string>
#include <vector>

#include "tessarel/certificate.h"
#include "tessarel/export.h"

namespace tessarel {

// Where trust comes from. Without any, trust is not checked at all.
struct TrustOptions {
  // Files (PEM with one or more certificates, or one DER certificate) and folders of such
  // files. Self-signed certificates among them are trust anchors; the others serve as
  // intermediates when a chain is built.
  std::vector<std::string> anchors;
  // The system's CA certificates (OpenSSL's default locations; SSL_CERT_FILE and
  // SSL_CERT_DIR are honoured).
  bool system = false;
  bool enabled() const { return system || !anchors.empty(); }
};

// What the certificate is trusted for: signing documents, or time-stamping.
enum class TrustPurpose { Signing, Timestamping };

struct TrustReport {
  bool checked = false;  // false when no trust option was given: "trust not checked"
  bool trusted = false;
  std::string reason;              // why not, for people; empty when trusted
  std::string checked_at;          // the moment of the check, "YYYY-MM-DDThh:mm:ssZ"
  std::vector<std::string> chain;  // subjects from the signer up to the anchor
};

// Builds the chain from signer through certificates (the envelope's, say) and the
// intermediates among the trust files up to a trust anchor, and checks every certificate
// of it at the moment at (validity period, signatures, basic constraints of the CAs, key
// usage). The signer's key usage must allow digitalSignature or nonRepudiation; for
// time-stamping its extended key usage must name time-stamping. Raises tessarel::Exception
// when a trust file or folder cannot be read or holds no certificate.
TESSAREL_API TrustReport CheckCertificateTrust(const Certificate& signer,
                                               const std::vector<Certificate>& certificates,
                                               std::chrono::sys_seconds at,
                                               const TrustOptions& options,
                                               TrustPurpose purpose = TrustPurpose::Signing);

}  // namespace tessarel

#endif
