// Signing PDF documents and checking their signatures.
#ifndef TESSAREL_PDF_H
#define TESSAREL_PDF_H

#include <cstdint>
#include <string>
#include <vector>

#include "tessarel/export.h"
#include "tessarel/signing.h"
#include "tessarel/trust.h"
#include "tessarel/types.h"

namespace tessarel {

struct PdfSignOptions {
  std::string reason;   // /Reason (with the name: "reason di name")
  std::string name;     // the signer's name: /Name and the visible text "Firmato: name"
  std::string cert_id;  // certificate of the personal store (empty: the first one)
  Bytes pfx;            // a PKCS#12 file to sign with instead of the store (when not empty)
  std::string pfx_password;
  bool invisible = false;  // no visible appearance
  bool pades = false;      // PAdES baseline B-B (ETSI.CAdES.detached) instead of adbe.pkcs7
  bool progress = false;   // progress texts through the installed Ui while hashing
  // How messages name the input (empty: its path), for an input that is a temporary copy.
  std::string input_name;
  // Files the caller read for this signing (the PKCS#12 file, a password file): the output
  // is never written over any of them.
  std::vector<GuardedInput> inputs;
};

struct PdfSignResult {
  std::string output;      // the file written
  std::string field;       // the new signature field ("Signature1", ...)
  std::string signer;      // the certificate's subject
  std::uint64_t size = 0;  // the signed file's size
};

// Signs a PDF document into output (empty: the input itself is replaced, only once signing
// succeeded). The input is never edited in place: a copy made beside the output is signed and
// then renamed over it (a symbolic link output is followed, a device or FIFO written into).
// Throws tessarel::Exception with a clear message (encrypted or damaged document, wrong PFX
// password, certificate without key, output not writable, output naming the input, one of
// options.inputs or a file of the store); the input and an existing output are unchanged
// then, and no temporary file is left.
TESSAREL_API PdfSignResult SignPdf(const std::string& input, const std::string& output,
                                   const PdfSignOptions& options);

struct PdfSignatureReport {
  std::string field;         // fully qualified field name
  std::string sub_filter;    // "adbe.pkcs7.detached", "ETSI.CAdES.detached", ...
  std::string name;          // /Name
  std::string reason;        // /Reason
  std::string signing_time;  // /M as "YYYY-MM-DDThh:mm:ssZ" (as written when unreadable)
  std::vector<std::int64_t> byte_range;
  std::uint64_t revision_end = 0;          // where the revision this signature closes ends
  bool covers_revision = false;            // the byte range is the whole revision minus the value
  bool whole_document = false;             // ... and that revision is the whole file
  bool later_changes_allowed = false;      // later revisions only added signatures or filled fields
  std::vector<std::string> later_changes;  // what later revisions changed beyond that
  EnvelopeReport cms;                      // the CMS value checked over the byte range
  std::vector<std::string> problems;       // everything wrong with this signature
  bool intact = false;
};

struct PdfReport {
  std::uint64_t size = 0;
  std::vector<PdfSignatureReport> signatures;
  bool valid = false;          // at least one signature, and every one intact
  bool trust_checked = false;  // trust options were given
  bool trusted = false;        // valid, and every signer's certificate chains to an anchor
};

// Checks every signature of a PDF document; with trust options, each signer's certificate
// chain as well (at the signing time, as for envelopes). A file that is not a readable PDF
// raises tessarel::Exception saying what is wrong.
TESSAREL_API PdfReport VerifyPdf(const std::string& path, const TrustOptions& trust = {});

}  // namespace tessarel

#endif
