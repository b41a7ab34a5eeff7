// Checking the signatures of a PDF document.
#include <cstdio>

#include "archive/envelope_report.h"
#include "archive/pdf_signing.h"
#include "cms/cms.h"
#include "platform/crypto/digest.h"
#include "platform/crypto/trust.h"
#include "platform/runtime/datetime.h"
#include "tessarel/pdf.h"

namespace tessarel {

namespace {

// Bytes in memory that a message can be opened from and that live as long as the source.
class OwnedSource : public asn1::ByteSource {
 public:
  explicit OwnedSource(Bytes b) : bytes_(std::move(b)), view_(bytes_) {}
  std::uint64_t size() const override { return view_.size(); }
  void read(std::uint64_t offset, void* buffer, std::size_t n) const override {
    view_.read(offset, buffer, n);
  }
  const std::uint8_t* data() const override { return view_.data(); }

 private:
  Bytes bytes_;
  asn1::MemorySource view_;
};

// "D:YYYYMMDDHHmmSS+hh'mm'" (fields after the year optional) as UTC, else as written.
std::string pdf_time(const std::string& m) {
  std::string s = m.rfind("D:", 0) == 0 ? m.substr(2) : m;
  int f[6] = {0, 1, 1, 0, 0, 0};
  static const int kWidth[6] = {4, 2, 2, 2, 2, 2};
  std::size_t at = 0;
  for (int i = 0; i < 6 && at + static_cast<std::size_t>(kWidth[i]) <= s.size(); ++i) {
    int v = 0;
    for (int k = 0; k < kWidth[i]; ++k) {
      char c = s[at + static_cast<std::size_t>(k)];
      if (c < '0' || c > '9') return m;
      v = v * 10 + (c - '0');
    }
    f[i] = v;
    at += static_cast<std::size_t>(kWidth[i]);
  }
  if (at < 4) return m;
  int offset_minutes = 0;
  if (at < s.size() && (s[at] == '+' || s[at] == '-')) {
    int sign = s[at] == '+' ? 1 : -1;
    int hh = 0, mm = 0;
    if (std::sscanf(s.c_str() + at + 1, "%2d'%2d", &hh, &mm) < 1) return m;
    offset_minutes = sign * (hh * 60 + mm);
  }
  CivilTime c{f[0], f[1], f[2], f[3], f[4], f[5], 0};
  DateTime t = EncodeDateTime(c) - offset_minutes / 1440.0;
  return IsoTimeOf(t);
}

bool hex_digit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

int hex_value(char c) {
  return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10;
}

// True when the file's bytes [from, to) are a hexadecimal string whose value is contents:
// the part the byte range leaves out is exactly the signature value.
bool gap_is_contents(const asn1::ByteSource& file, std::uint64_t from, std::uint64_t to,
                     const Bytes& contents) {
  if (to <= from + 1 || to > file.size() || to - from > (std::uint64_t{1} << 26)) return false;
  std::string gap(static_cast<std::size_t>(to - from), '\0');
  file.read(from, gap.data(), gap.size());
  if (gap.front() != '<' || gap.back() != '>') return false;
  Bytes value;
  int high = -1;
  for (std::size_t i = 1; i + 1 < gap.size(); ++i) {
    char c = gap[i];
    if (c == ' ' || c == '\n' || c == '\r' || c == '\t' || c == '\f') continue;
    if (!hex_digit(c)) return false;
    if (high < 0) {
      high = hex_value(c);
    } else {
      value.push_back(static_cast<std::uint8_t>(high << 4 | hex_value(c)));
      high = -1;
    }
  }
  if (high >= 0) value.push_back(static_cast<std::uint8_t>(high << 4));
  return value == contents;
}

// The CMS value without the zero padding that fills the rest of the reserved space.
Bytes trim_padding(const Bytes& contents) {
  try {
    asn1::MemorySource src(contents);
    asn1::BerNode root = asn1::ParseBer(src);
    if (root.end() <= contents.size())
      return Bytes(contents.begin(), contents.begin() + static_cast<long>(root.end()));
  } catch (const std::exception&) {
  }
  return contents;
}

PdfSignatureReport check(pdf::Document& doc, const std::string& path,
                         const std::shared_ptr<asn1::FileSource>& file, const pdf::SignatureInfo& s,
                         const crypto::TrustStore* trust) {
  PdfSignatureReport r;
  r.field = s.field;
  r.sub_filter = s.sub_filter;
  r.name = s.name;
  r.reason = s.reason;
  r.signing_time = s.signing_time.empty() ? std::string() : pdf_time(s.signing_time);
  r.byte_range = s.byte_range;
  std::uint64_t size = file->size();

  const auto& br = s.byte_range;
  bool shape = br.size() == 4 && br[0] == 0 && br[1] > 0 && br[2] > br[1] && br[3] >= 0 &&
               static_cast<std::uint64_t>(br[2]) <= size &&
               static_cast<std::uint64_t>(br[3]) <= size - static_cast<std::uint64_t>(br[2]);
  if (!shape) {
    r.problems.push_back("the byte range is not [0 a b c] within the file");
    return r;
  }
  auto a = static_cast<std::uint64_t>(br[1]);
  auto b = static_cast<std::uint64_t>(br[2]);
  auto c = static_cast<std::uint64_t>(br[3]);
  r.revision_end = b + c;
  if (s.sub_filter != "adbe.pkcs7.detached" && s.sub_filter != "ETSI.CAdES.detached")
    r.problems.push_back("the signature format " +
                         (s.sub_filter.empty() ? std::string("(none)") : s.sub_filter) +
                         " is not supported");

  // What the byte range leaves out must be this signature's value, and what it covers must
  // end where a revision of the document ends.
  bool gap = gap_is_contents(*file, a, b, s.contents);
  if (!gap) r.problems.push_back("the byte range leaves out more than the signature value");
  std::size_t tail_len = static_cast<std::size_t>(std::min<std::uint64_t>(r.revision_end, 8));
  std::string tail(tail_len, '\0');
  file->read(r.revision_end - tail_len, tail.data(), tail_len);
  bool revision = pdf::ends_revision(tail);
  std::unique_ptr<pdf::Document> older;
  if (revision && r.revision_end < size) {
    try {
      older = pdf::Document::open(path, r.revision_end);
      bool present = false;
      for (const auto& o : older->signatures())
        present = present || (o.value_id == s.value_id && o.byte_range == s.byte_range);
      revision = present;
    } catch (const std::exception&) {
      revision = false;
    }
  }
  if (!revision)
    r.problems.push_back("the byte range does not end where a revision of the document ends");
  r.covers_revision = gap && revision;
  r.whole_document = r.covers_revision && r.revision_end == size;

  if (older) {
    r.later_changes = doc.changes_beyond_signing(*older);
    for (const auto& change : r.later_changes)
      r.problems.push_back("changed after this signature: " + change);
  }
  r.later_changes_allowed = r.covers_revision && r.later_changes.empty();

  Bytes cms = trim_padding(s.contents);
  try {
    CmsVerification v = VerifyPdfSignatureCms(cms, file, {{0, a}, {b, c}}, trust);
    r.cms = ReportOf(v, trust != nullptr);
  } catch (const std::exception& e) {
    r.cms.valid = false;
    r.cms.problems.push_back(e.what());
  }
  if (!r.cms.valid) r.problems.push_back("the signature value does not verify");
  if (s.sub_filter == "ETSI.CAdES.detached")
    for (const auto& signer : r.cms.signers)
      if (!signer.signing_certificate_present)
        r.problems.push_back("a PAdES signature without the signing-certificate attribute");
  r.intact = r.problems.empty();
  return r;
}

}  // namespace

CmsVerification VerifyPdfSignatureCms(const Bytes& cms,
                                      std::shared_ptr<const asn1::ByteSource> file,
                                      const std::vector<PdfByteRange>& ranges,
                                      const crypto::TrustStore* trust) {
  TElSignedCMSMessage message;
  message.Open(std::make_shared<OwnedSource>(cms));
  TElCMSContent content;
  for (const auto& [offset, length] : ranges)
    content.Add(file, offset, length);
  CmsVerification v = VerifySignedMessage(message, &content, trust);
  if (!message.FDetached)
    v.problems.push_back(
        "the signature value carries content of its own instead of signing the "
        "document");
  return v;
}

PdfReport VerifyPdf(const std::string& path, const TrustOptions& trust_options) {
  std::unique_ptr<crypto::TrustStore> trust;
  if (trust_options.enabled()) trust = std::make_unique<crypto::TrustStore>(trust_options);
  std::unique_ptr<pdf::Document> doc;
  try {
    doc = pdf::Document::open(path);
  } catch (const pdf::PdfEncryptedError&) {
    throw pdf::PdfError("the PDF document " + path +
                        " is encrypted: its signatures cannot be checked");
  }
  auto file = std::make_shared<asn1::FileSource>(path);
  PdfReport report;
  report.size = file->size();
  for (const auto& s : doc->signatures())
    report.signatures.push_back(check(*doc, path, file, s, trust.get()));
  report.valid = !report.signatures.empty();
  report.trust_checked = trust != nullptr;
  report.trusted = report.trust_checked;
  for (const auto& s : report.signatures) {
    report.valid = report.valid && s.intact;
    report.trusted = report.trusted && s.intact && s.cms.trusted;
  }
  return report;
}

}  // namespace tessarel
