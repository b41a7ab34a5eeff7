// PDF signing and checking inside the engine: the pieces FirmaPdf, SignPdf and VerifyPdf share.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "cms/cms_verify.h"
#include "platform/asn1/ber.h"
#include "platform/crypto/trust.h"
#include "platform/pdf/pdf_document.h"
#include "tessarel/certificate.h"
#include "tessarel/store.h"

namespace tessarel {

// The certificate that signs, its key (null when it has none) and the chain that goes with it.
struct PdfSigner {
  Certificate cert;
  std::shared_ptr<SigningKey> key;
  std::vector<Certificate> chain;
};

struct PdfSignatureSettings {
  std::string reason;   // the reason field as it is to be written
  std::string name;     // /Name; empty: left out
  std::string display;  // the visible text; empty: an invisible signature
  bool pades = false;
  std::function<bool(std::uint64_t, std::uint64_t)> progress;
};

// The largest signature value the key can produce, in bytes.
std::size_t MaxSignatureSize(KeyKind kind, int bits);

// Signs the document opened from path (a private copy) and appends the signature to that file
// as an incremental update. Returns the new field's name.
std::string SignPdfDocument(pdf::Document& doc, const std::string& path, const PdfSigner& signer,
                            const PdfSignatureSettings& settings);

// A byte range of a file: offset and length.
using PdfByteRange = std::pair<std::uint64_t, std::uint64_t>;

// The verdict on one signature value: the CMS value checked over the byte ranges of the file
// it signs, with the same checks as an envelope.
// With a trust store, each signer's chain is checked too.
CmsVerification VerifyPdfSignatureCms(const Bytes& cms,
                                      std::shared_ptr<const asn1::ByteSource> file,
                                      const std::vector<PdfByteRange>& ranges,
                                      const crypto::TrustStore* trust = nullptr);

}  // namespace tessarel
