#include "cms/envelope_input.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string_view>

#include "platform/asn1/base64_source.h"

namespace tessarel {

namespace {

constexpr std::size_t kHead = 4096;
constexpr std::size_t kPrefixBytes = 3072;
// A mail's header block can be long (every relay adds a line); this much is read to find
// its end when the first bytes look like one.
constexpr std::size_t kMailHead = 64 * 1024;
// Text layers looked through beyond the bound, to tell "encoded too many times" from
// "not an envelope".
constexpr int kLookLayers = kMaxTextLayers + 8;

Bytes head_of(const asn1::ByteSource& s, std::size_t max = kHead) {
  Bytes h(static_cast<std::size_t>(std::min<std::uint64_t>(max, s.size())));
  if (!h.empty()) s.read(0, h.data(), h.size());
  return h;
}

std::string_view view(const std::uint8_t* p, std::size_t n) {
  return {reinterpret_cast<const char*>(p), n};
}

bool is_space(std::uint8_t b) {
  return b == ' ' || b == '\t' || b == '\r' || b == '\n' || b == '\f' || b == '\v';
}

// White space and a byte-order mark before the first character.
std::size_t leading_space(const std::uint8_t* p, std::size_t n) {
  std::size_t i = view(p, n).substr(0, 3) == "\xEF\xBB\xBF" ? 3 : 0;
  while (i < n && is_space(p[i]))
    ++i;
  return i;
}

// ContentInfo { contentType id-signedData, ... }: 30 <length> 06 09 2A 86 48 86 F7 0D 01 07 02.
bool signed_data_prefix(const std::uint8_t* p, std::size_t n) {
  if (n < 2 || p[0] != 0x30) return false;
  std::size_t i = 2;
  if (p[1] > 0x80) i += p[1] & 0x7F;
  static const std::uint8_t kOid[] = {0x06, 0x09, 0x2A, 0x86, 0x48, 0x86,
                                      0xF7, 0x0D, 0x01, 0x07, 0x02};
  return (p[1] & 0x7F) <= 8 && n >= i + sizeof kOid && std::memcmp(p + i, kOid, sizeof kOid) == 0;
}

// Text as people write it: no control characters but white space (UTF-8 passes).
bool printable_text(const std::uint8_t* p, std::size_t n) {
  if (n == 0) return false;
  for (std::size_t i = 0; i < n; ++i)
    if ((p[i] < 0x20 && !is_space(p[i])) || p[i] == 0x7F) return false;
  return true;
}

// Base64 as encoders write it: alphabet and padding in lines, white space only around a
// line, never inside it (so that ordinary words are not taken for it).
bool base64_text(const std::uint8_t* p, std::size_t n) {
  std::size_t i = leading_space(p, n);
  std::size_t data = 0;
  while (i < n) {
    std::size_t end = i;
    while (end < n && p[end] != '\n')
      ++end;
    std::size_t a = i, b = end;
    while (a < b && is_space(p[a]))
      ++a;
    while (b > a && is_space(p[b - 1]))
      --b;
    for (std::size_t k = a; k < b; ++k)
      if (!asn1::IsBase64TextByte(p[k]) || is_space(p[k])) return false;
    data += b - a;
    i = end + 1;
  }
  return data >= 4;
}

// "-----BEGIN label-----" at the start: the label and where the body starts.
bool pem_start(const std::uint8_t* p, std::size_t n, std::string& label, std::size_t& body) {
  std::string_view v = view(p, n);
  std::size_t i = leading_space(p, n);
  constexpr std::string_view kBegin = "-----BEGIN ";
  if (v.substr(i, kBegin.size()) != kBegin) return false;
  std::size_t at = i + kBegin.size();
  std::size_t dashes = v.find("-----", at);
  std::size_t eol = v.find('\n', at);
  if (dashes == std::string_view::npos || (eol != std::string_view::npos && eol < dashes))
    return false;
  label = std::string(v.substr(at, dashes - at));
  body = eol == std::string_view::npos ? n : eol + 1;
  return true;
}

bool cms_label(const std::string& label) {
  return label == "CMS" || label == "PKCS7" || label == "PKCS #7 SIGNED DATA";
}

// How many text layers (Base64, PEM) a prefix holds before what can be (the start of) an
// envelope, looking a few layers past the bound; -1 when it cannot be one. strict asks for
// the signed-data ContentInfo itself; otherwise binary ASN.1 that is not text is enough, so
// that a damaged envelope reaches the BER reader, which says what is wrong with it.
int text_layers(const std::uint8_t* p, std::size_t n, int depth, bool strict) {
  if (strict ? signed_data_prefix(p, n) : (n > 0 && p[0] == 0x30 && !printable_text(p, n)))
    return depth;
  if (depth >= kLookLayers) return -1;
  std::string label;
  std::size_t body = 0;
  if (pem_start(p, n, label, body)) {
    if (!cms_label(label)) return -1;
  } else if (base64_text(p, n)) {
    body = leading_space(p, n);
  } else {
    return -1;
  }
  Bytes d = asn1::DecodeBase64Prefix(p + body, n - body, kPrefixBytes);
  return text_layers(d.data(), d.size(), depth + 1, strict);
}

bool could_be_envelope(const std::uint8_t* p, std::size_t n, int depth, bool strict) {
  int layers = text_layers(p, n, depth, strict);
  return layers >= 0 && layers <= kMaxTextLayers;
}

bool icontains(std::string_view hay, std::string_view needle) {
  auto it = std::search(hay.begin(), hay.end(), needle.begin(), needle.end(), [](char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) ==
           std::tolower(static_cast<unsigned char>(b));
  });
  return it != hay.end();
}

// The header block of a mail: up to the first empty line (all of v when none is seen).
std::string_view header_block(std::string_view v) {
  for (std::size_t at = v.find('\n'); at != std::string_view::npos; at = v.find('\n', at + 1)) {
    std::size_t next = at + 1;
    if (next < v.size() && v[next] == '\r') ++next;
    if (next < v.size() && v[next] == '\n') return v.substr(0, at + 1);
  }
  return v;
}

// A mail message: a header line first, and MIME headers in the header block.
bool mail_message(const std::uint8_t* p, std::size_t n) {
  std::string_view v = view(p, n);
  std::size_t i = 0;
  while (i < v.size() && (std::isalnum(static_cast<unsigned char>(v[i])) || v[i] == '-'))
    ++i;
  if (i == 0 || i >= v.size() || v[i] != ':') return false;
  std::string_view headers = header_block(v);
  return icontains(headers, "\nmime-version:") || icontains(headers, "\ncontent-type:") ||
         icontains(v.substr(0, i + 1), "mime-version:") ||
         icontains(v.substr(0, i + 1), "content-type:");
}

// What a source that is no envelope is, from its first bytes, or from more of them when
// they start like a mail whose headers may not fit in the first few kilobytes.
std::string describe(const asn1::ByteSource& source, const Bytes& head) {
  if (head.size() < source.size() && head.size() < kMailHead) {
    std::size_t q = leading_space(head.data(), head.size());
    std::string_view v = view(head.data() + q, head.size() - q);
    std::size_t i = 0;
    while (i < v.size() && (std::isalnum(static_cast<unsigned char>(v[i])) || v[i] == '-'))
      ++i;
    if (i > 0 && i < v.size() && v[i] == ':' && header_block(v).size() == v.size()) {
      Bytes more = head_of(source, kMailHead);
      return DescribeNonEnvelope(more.data(), more.size());
    }
  }
  return DescribeNonEnvelope(head.data(), head.size());
}

}  // namespace

std::string EnvelopeForm::Text() const {
  std::string out;
  for (std::size_t i = 0; i < wrappings.size();) {
    std::size_t same = 1;
    while (i + same < wrappings.size() && wrappings[i + same] == wrappings[i])
      ++same;
    if (!out.empty()) out += ", then ";
    out += wrappings[i];
    if (same == 2) out += ", twice";
    if (same > 2) out += ", " + std::to_string(same) + " times";
    i += same;
  }
  const char* binary = ber ? "BER" : "DER";
  return out.empty() ? binary : out + " (" + binary + ")";
}

std::string DescribeNonEnvelope(const std::uint8_t* p, std::size_t n) {
  if (n == 0) return "the file is empty, not a CMS envelope";
  std::string_view v = view(p, n);
  std::size_t q = leading_space(p, n);
  if (v.substr(0, std::min<std::size_t>(v.size(), 1024)).find("%PDF-") != std::string_view::npos)
    return "this is a PDF file, not a CMS envelope";
  if (v.substr(0, 4) == std::string_view("PK\x03\x04", 4))
    return "this is a ZIP archive (or an office document), not a CMS envelope";
  if (mail_message(p + q, n - q))
    return icontains(v, "pkcs7") ? "S/MIME mail message: save the attachment first"
                                 : "this is a mail message, not a CMS envelope";
  if (q < n && p[q] == '<') return "this is an XML or HTML document, not a CMS envelope";
  std::string label;
  std::size_t body = 0;
  if (pem_start(p, n, label, body))
    return cms_label(label) ? "PEM text that does not decode to an envelope"
                            : "this is PEM text holding a " + label + ", not a CMS envelope";
  if (base64_text(p, n)) return "Base64 text that does not decode to an envelope";
  if (printable_text(p, n)) return "this is text, not a CMS envelope";
  return "this is not a CMS envelope";
}

EnvelopeInput UnwrapEnvelopeInput(std::shared_ptr<const asn1::ByteSource> source) {
  EnvelopeInput in;
  in.binary = std::move(source);
  if (in.binary->size() == 0) throw NotAnEnvelope(DescribeNonEnvelope(nullptr, 0));
  for (int depth = 0;; ++depth) {
    Bytes head = head_of(*in.binary);
    // Binary ASN.1 goes to the BER reader, which says what is wrong with a damaged envelope
    // (a few bytes cannot tell text from a truncated envelope).
    if (head.empty() ||
        (head[0] == 0x30 && (head.size() < 16 || !printable_text(head.data(), head.size()))))
      return in;
    std::string label;
    std::size_t body = 0;
    bool pem = pem_start(head.data(), head.size(), label, body);
    bool base64 = !pem && base64_text(head.data(), head.size());
    if ((!pem && !base64) || (pem && !cms_label(label)))
      throw NotAnEnvelope(describe(*in.binary, head));
    std::string form = pem ? "PEM text" : "Base64 text";
    std::string what = form + " that does not decode to an envelope";
    if (base64) body = leading_space(head.data(), head.size());
    Bytes prefix = asn1::DecodeBase64Prefix(head.data() + body, head.size() - body, kPrefixBytes);
    int layers = text_layers(prefix.data(), prefix.size(), depth + 1, false);
    if (layers < 0) throw NotAnEnvelope(what);
    // The prefix promised an envelope within the bound, but the layer read says otherwise.
    if (depth >= kMaxTextLayers) layers = std::max(layers, depth + 1);
    if (layers > kMaxTextLayers)
      throw NotAnEnvelope(form + " encoded " + std::to_string(layers) +
                              " times over: no more than " + std::to_string(kMaxTextLayers) +
                              " layers of text encoding are read",
                          "after " + std::to_string(kMaxTextLayers) +
                              " layers of text encoding, the data is still text");
    try {
      if (pem) {
        asn1::PemBody armour;
        asn1::FindPemBody(*in.binary, armour);
        in.binary = std::make_shared<asn1::Base64Source>(in.binary, armour.begin, armour.end);
        in.wrappings.push_back("PEM " + label);
      } else {
        in.binary = std::make_shared<asn1::Base64Source>(in.binary, 0, in.binary->size());
        in.wrappings.push_back("Base64");
      }
    } catch (const asn1::Base64Error& e) {
      throw NotAnEnvelope(what, e.what());
    }
  }
}

bool LooksLikeEnvelope(const asn1::ByteSource& source) {
  Bytes head = head_of(source);
  return could_be_envelope(head.data(), head.size(), 0, true);
}

}  // namespace tessarel
