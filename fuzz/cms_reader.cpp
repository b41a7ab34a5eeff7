// Fuzzes the envelope reader and everything that reads a parsed envelope: properties,
// the CAdES-BES check and the cryptographic verification.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "cms/cades.h"
#include "cms/cms.h"
#include "cms/cms_verify.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tessarel;
  auto source = std::make_shared<asn1::MemorySource>(data, size);
  TElSignedCMSMessage message;
  try {
    message.Open(source);
  } catch (const Exception&) {
    return 0;
  }
  for (int i = 0; i < message.SignatureCount(); ++i)
    TElCAdESSignatureProcessor(message.GetSignature(i)).IsBES();
  try {
    VerifySignedMessage(message);
  } catch (const Exception&) {
  }
  return 0;
}
