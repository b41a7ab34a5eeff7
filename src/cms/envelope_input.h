// The forms envelopes arrive in: binary (DER or BER), Base64 of it (again and again, up
// to a bound), PEM armour. The form is found from the bytes, never from the file's name,
// and large inputs stay streamed: text is decoded as it is read.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/asn1/ber.h"

namespace tessarel {

// How many text layers (Base64, PEM) are taken off at most.
inline constexpr int kMaxTextLayers = 4;

struct EnvelopeForm {
  std::vector<std::string> wrappings;  // text layers, outermost first: "Base64", "PEM CMS"
  bool ber = false;                    // the binary encoding uses what DER does not allow
  // For people: "DER", "BER", "Base64 (DER)", "Base64, twice (BER)", "PEM CMS (DER)".
  std::string Text() const;
};

struct EnvelopeInput {
  std::shared_ptr<const asn1::ByteSource> binary;
  std::vector<std::string> wrappings;
};

// Input that is no envelope in any form. sentence names what it is ("this is a PDF file,
// not a CMS envelope"); detail says where reading failed, when that is known.
class NotAnEnvelope : public Exception {
 public:
  NotAnEnvelope(const std::string& sentence, const std::string& detail = "")
      : Exception(sentence), sentence_(sentence), detail_(detail) {}
  const std::string& sentence() const { return sentence_; }
  const std::string& detail() const { return detail_; }

 private:
  std::string sentence_, detail_;
};

// Takes off the text layers until binary data remains. Binary data is handed on even when
// it is not a valid envelope (the BER reader says what is wrong with it); anything else
// that cannot be an envelope raises NotAnEnvelope.
EnvelopeInput UnwrapEnvelopeInput(std::shared_ptr<const asn1::ByteSource> source);

// A cheap look at the first bytes: a signed-data ContentInfo in one of the forms. Used to
// tell whether an envelope's content is itself an envelope.
bool LooksLikeEnvelope(const asn1::ByteSource& source);

// What bytes that are not an envelope are, as the first line of an error
// ("this is a PDF file, not a CMS envelope").
std::string DescribeNonEnvelope(const std::uint8_t* head, std::size_t n);

}  // namespace tessarel
