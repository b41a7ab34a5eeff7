// Reports of the public API made from the CMS engine's verification results.
#include "archive/envelope_report.h"

#include <cstdio>

#include "platform/crypto/digest.h"
#include "platform/runtime/datetime.h"

namespace tessarel {

std::string IsoTimeOf(DateTime t) {
  if (t == 0) return "";
  CivilTime c = DecodeDateTime(t);
  char buf[40];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02dZ", c.year, c.month, c.day, c.hour,
                c.minute, c.second);
  return buf;
}

EnvelopeSignerReport SignerReport(const SignerVerification& s) {
  EnvelopeSignerReport e;
  e.index = s.index;
  if (s.certificate) {
    e.certificate_id = s.certificate->id();
    e.subject = s.certificate->subject_text();
    e.issuer = s.certificate->issuer_text();
  }
  e.digest_algorithm =
      s.digest == DigestAlgorithm::Unknown ? "unknown" : crypto::digest_name(s.digest);
  e.signature_algorithm = AlgorithmLabel(s.signature_algorithm);
  e.signing_time = IsoTimeOf(s.signing_time);
  e.signature_valid = s.signature_valid;
  e.digest_checked = s.digest_checked;
  e.digest_matches = s.digest_matches;
  e.content_type_matches = s.content_type_matches;
  e.signing_certificate_present = s.signing_certificate_present;
  e.signing_certificate_matches = s.signing_certificate_matches;
  e.cades_bes = s.cades_bes;
  e.weak_algorithm = s.weak_algorithm;
  e.unsupported_algorithm = s.unsupported_algorithm;
  e.valid = s.ok();
  e.notes = s.notes;
  e.problems = s.problems;
  e.trust = s.trust;
  for (const auto& c : s.countersignatures)
    e.countersignatures.push_back(SignerReport(c));
  for (const auto& t : s.timestamps) {
    EnvelopeTimestampReport tr;
    tr.time = t.time;
    tr.authority = t.authority;
    tr.imprint_matches = t.imprint_matches;
    tr.signature_valid = t.signature_valid;
    tr.trust = t.trust;
    tr.problems = t.problems;
    e.timestamps.push_back(std::move(tr));
  }
  return e;
}

EnvelopeReport ReportOf(const CmsVerification& v, bool trust_checked) {
  EnvelopeReport r;
  r.valid = v.ok();
  r.detached = v.detached;
  r.content_size = v.content_size;
  r.problems = v.problems;
  r.trust_checked = trust_checked;
  r.trusted = trust_checked && r.valid;
  for (const auto& s : v.signers) {
    if (!s.trusted()) r.trusted = false;
    r.signers.push_back(SignerReport(s));
  }
  return r;
}

}  // namespace tessarel
