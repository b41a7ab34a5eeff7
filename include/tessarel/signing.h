// Signing files into CMS envelopes, checking envelopes, and taking their content out.
#ifndef TESSAREL_SIGNING_H
#define TESSAREL_SIGNING_H

#include <cstdint>
#include <string>
#include <vector>

#include "tessarel/export.h"
#include "tessarel/trust.h"

namespace tessarel {

// Signs each file into FILE.p7m (attached) or FILE.p7s (detached) beside it, with the
// certificate whose idCert is given (empty: the first of the store). Missing files are
// skipped and come back without an extension. With progress, the installed Ui receives the
// progress texts. Throws tessarel::Exception when the certificate or its key is not usable.
TESSAREL_API std::vector<std::string> SignFiles(const std::vector<std::string>& files,
                                                const std::string& idCert, bool detached,
                                                bool progress);

struct EnvelopeTimestampReport {
  std::string time;              // the authority's time, "YYYY-MM-DDThh:mm:ssZ"
  std::string authority;         // subject of the time-stamping authority's certificate
  bool imprint_matches = false;  // the token was made for this signature value
  bool signature_valid = false;  // the token's own signature verifies
  TrustReport trust;             // the authority's certificate (when trust was asked for)
  std::vector<std::string> problems;
};

struct EnvelopeSignerReport {
  int index = 0;
  std::string certificate_id;  // idCert of the signer's certificate ("" when not found)
  std::string subject;
  std::string issuer;
  std::string digest_algorithm;
  std::string signature_algorithm;  // "RSASSA-PSS (1.2.840.113549.1.1.10)", or the OID
  std::string signing_time;         // "YYYY-MM-DDThh:mm:ssZ", empty when absent
  bool signature_valid = false;
  bool digest_checked = false;  // false when there was no content to compare with
  bool digest_matches = false;
  bool content_type_matches = false;
  bool signing_certificate_present = false;
  bool signing_certificate_matches = false;
  bool cades_bes = false;
  // "MD5" or "SHA-1" when the signer used a digest that no longer resists collisions.
  std::string weak_algorithm;
  // The OID of an algorithm this system does not have: the signature was not checked
  // (which is not a signature that fails).
  std::string unsupported_algorithm;
  bool valid = false;              // this signature and all it carries verify
  std::vector<std::string> notes;  // "signed attributes were not in DER order"
  std::vector<std::string> problems;
  TrustReport trust;  // trust.checked is false when no trust option was given
  std::vector<EnvelopeSignerReport> countersignatures;
  std::vector<EnvelopeTimestampReport> timestamps;
};

// One envelope of a nest (an envelope whose content is another envelope), outermost first.
struct EnvelopeLayerReport {
  int index = 1;           // 1 for the outermost
  std::string input_form;  // "DER", "BER", "Base64, twice (DER)", "PEM CMS (DER)"
  bool valid = false;      // every signer of this layer verifies
  bool trusted = false;    // and is trusted (when trust was checked)
  bool detached = false;
  std::uint64_t content_size = 0;
  bool content_is_envelope = false;  // the next layer is this one's content
  std::vector<EnvelopeSignerReport> signers;
  std::vector<std::string> problems;
  std::vector<std::string> notes;
};

struct EnvelopeReport {
  bool valid = false;  // every signer of every layer verifies and nothing else is wrong
  // The outermost layer, as for an envelope without nesting.
  bool detached = false;
  std::uint64_t content_size = 0;
  std::vector<EnvelopeSignerReport> signers;
  std::vector<std::string> problems;
  std::string input_form;
  std::vector<EnvelopeLayerReport> layers;
  bool trust_checked = false;  // trust options were given
  bool trusted = false;        // valid, and every signer's certificate is trusted
};

struct VerifyOptions {
  // The signed data when the envelope (or its innermost layer) is detached; with an
  // attached one, checked to hold the same bytes as the innermost content.
  std::string content_file;
  // Without a content file, a detached envelope's data is looked for beside it: its name
  // without the last extension (x.pdf for x.pdf.p7s), and for a detached envelope inside
  // attached ones, without one .p7m or .p7s per layer around it too (x.pdf for
  // x.pdf.p7s.p7m).
  bool content_beside = false;
  TrustOptions trust;
};

// Checks an envelope cryptographically: each signature value against the signer's
// certificate, the message digest against the content (its own, or content_file for a
// detached one), the content type, and the signing-certificate attribute. A content_file
// given with an attached envelope must hold the same bytes as the attached content. A file
// that is not an envelope raises EElCMSError. Pipes and other streams are read as such.
// Envelopes in Base64 or PEM text and envelopes inside envelopes are read too (layers).
TESSAREL_API EnvelopeReport VerifyEnvelope(const std::string& envelope,
                                           const std::string& content_file = "");
// The same with trust: every signer's certificate chain is checked against the trust
// options at the signing time (the time of a verified timestamp when there is one).
TESSAREL_API EnvelopeReport VerifyEnvelopeWithOptions(const std::string& envelope,
                                                      const VerifyOptions& options);

// Writes the content of an attached envelope to output; returns its size. A new or regular
// output file is replaced whole (its mode and owner kept), a device or FIFO is written
// into. Refuses to write onto the envelope itself. One layer: the content may itself be an
// envelope.
TESSAREL_API std::uint64_t ExtractEnvelopeContent(const std::string& envelope,
                                                  const std::string& output);
// The same into an open descriptor (standard output, say), which stays open.
TESSAREL_API std::uint64_t ExtractEnvelopeContentToFd(const std::string& envelope, int fd);

struct ExtractedContent {
  std::string output;  // the file written ("" when written to a descriptor)
  std::uint64_t size = 0;
  int layer = 0;   // the layer whose content was written (1 = outermost)
  int layers = 0;  // how many layers the envelope has
};
// Writes the content of one layer of a nest of envelopes: layer 0 is the innermost (the
// document itself), 1 the outermost, 2 the envelope inside it, and so on. An empty output
// names the file after the envelope without one ".p7m" per layer taken off (a.pdf.p7m.p7m
// gives a.pdf), as EnvelopeContentName says.
TESSAREL_API ExtractedContent ExtractEnvelopeLayer(const std::string& envelope,
                                                   const std::string& output, int layer = 0);
TESSAREL_API ExtractedContent ExtractEnvelopeLayerToFd(const std::string& envelope, int fd,
                                                       int layer = 0);
// The name of the content of an envelope file once layers envelopes are taken off: one
// trailing ".p7m" (any letter case) removed per layer, or else the last extension. Raises
// tessarel::Exception when no name can be derived.
TESSAREL_API std::string EnvelopeContentName(const std::string& envelope, int layers);

class ISignEArchivia;
// Asks an engine made by GetSignEArchivia to add trust lines to the report of
// VerificaFirma (nothing is added while the options are empty, the default).
TESSAREL_API void SetEngineTrustOptions(ISignEArchivia& engine, const TrustOptions& options);

}  // namespace tessarel

#endif
