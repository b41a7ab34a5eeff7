// Signing files into CMS envelopes, checking envelopes, and taking their content out.
#ifndef TESSAREL_SIGNING_H
#define TESSAREL_SIGNING_H

#include <cstdint>
#include <string>
#include <vector>

#include "tessarel/export.h"

namespace tessarel {

// Signs each file into FILE.p7m (attached) or FILE.p7s (detached) beside it, with the
// certificate whose idCert is given (empty: the first of the store). Missing files are
// skipped and come back without an extension. With progress, the installed Ui receives the
// progress texts. Throws tessarel::Exception when the certificate or its key is not usable.
TESSAREL_API std::vector<std::string> SignFiles(const std::vector<std::string>& files,
                                                const std::string& idCert, bool detached,
                                                bool progress);

struct EnvelopeSignerReport {
  int index = 0;
  std::string certificate_id;  // idCert of the signer's certificate ("" when not found)
  std::string subject;
  std::string issuer;
  std::string digest_algorithm;
  std::string signing_time;  // "YYYY-MM-DDThh:mm:ssZ", empty when absent
  bool signature_valid = false;
  bool digest_checked = false;  // false when there was no content to compare with
  bool digest_matches = false;
  bool content_type_matches = false;
  bool signing_certificate_present = false;
  bool signing_certificate_matches = false;
  bool cades_bes = false;
  // "MD5" or "SHA-1" when the signer used a digest that no longer resists collisions.
  std::string weak_algorithm;
  std::vector<std::string> problems;
};

struct EnvelopeReport {
  bool valid = false;  // every signer verifies and nothing else is wrong
  bool detached = false;
  std::uint64_t content_size = 0;
  std::vector<EnvelopeSignerReport> signers;
  std::vector<std::string> problems;
};

// Checks an envelope cryptographically: each signature value against the signer's
// certificate, the message digest against the content (its own, or content_file for a
// detached one), the content type, and the signing-certificate attribute. A content_file
// given with an attached envelope must hold the same bytes as the attached content. A file
// that is not an envelope raises EElCMSError. Pipes and other streams are read as such.
TESSAREL_API EnvelopeReport VerifyEnvelope(const std::string& envelope,
                                           const std::string& content_file = "");

// Writes the content of an attached envelope to output; returns its size. A new or regular
// output file is replaced whole (its mode and owner kept), a device or FIFO is written
// into. Refuses to write onto the envelope itself.
TESSAREL_API std::uint64_t ExtractEnvelopeContent(const std::string& envelope,
                                                  const std::string& output);
// The same into an open descriptor (standard output, say), which stays open.
TESSAREL_API std::uint64_t ExtractEnvelopeContentToFd(const std::string& envelope, int fd);

}  // namespace tessarel

#endif
