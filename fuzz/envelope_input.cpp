// Fuzzes the input-form detector and the Base64 and PEM readers: whatever the bytes, the
// detector names a form or refuses with an exception, and text that the Base64 reader
// accepts reads back the same bytes whole, in small pieces and as a plain decoder sees it.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "cms/envelope_input.h"
#include "platform/asn1/base64_source.h"

namespace {

using tessarel::Bytes;

// The plain decoder: drop a leading byte-order mark, white space and padding, then six
// bits per character.
bool reference_decode(const std::uint8_t* p, std::size_t n, Bytes& out) {
  static const std::string alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::uint32_t acc = 0;
  int bits = 0;
  bool pad = false;
  std::size_t first = n >= 3 && std::memcmp(p, "\xEF\xBB\xBF", 3) == 0 ? 3 : 0;
  for (std::size_t i = first; i < n; ++i) {
    char c = static_cast<char>(p[i]);
    if (std::strchr(" \t\r\n\f\v", c) && c) continue;
    if (c == '=') {
      pad = true;
      continue;
    }
    auto v = alphabet.find(c);
    if (v == std::string::npos || pad) return false;
    acc = acc << 6 | static_cast<std::uint32_t>(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<std::uint8_t>(acc >> bits));
    }
  }
  return true;
}

// Reads a source whole and in pieces of changing size; both must give the same bytes.
Bytes read_back(const tessarel::asn1::ByteSource& s) {
  Bytes whole(static_cast<std::size_t>(s.size()));
  s.read(0, whole.data(), whole.size());
  Bytes pieces(whole.size());
  for (std::size_t at = 0, n = 1; at < pieces.size(); at += n, n = n * 3 % 4099 + 1) {
    n = std::min(n, pieces.size() - at);
    s.read(at, pieces.data() + at, n);
  }
  if (pieces != whole) std::abort();
  return whole;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tessarel;
  if (size > (1u << 20)) return 0;
  auto source = std::make_shared<asn1::MemorySource>(data, size);
  LooksLikeEnvelope(*source);
  if (DescribeNonEnvelope(data, size).empty()) std::abort();
  try {
    EnvelopeInput in = UnwrapEnvelopeInput(source);
    if (in.binary->size() <= (4u << 20)) read_back(*in.binary);
  } catch (const Exception&) {
  }
  try {
    asn1::Base64Source text(source, 0, size);
    Bytes ours = read_back(text);
    Bytes plain;
    if (!reference_decode(data, size, plain) || plain != ours) std::abort();
  } catch (const asn1::Base64Error&) {
  }
  try {
    asn1::PemBody body;
    if (asn1::FindPemBody(*source, body) && (body.begin > body.end || body.end > size))
      std::abort();
  } catch (const asn1::Base64Error&) {
  }
  return 0;
}
