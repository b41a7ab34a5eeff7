// Fuzzes the PKCS#12 (PFX) reader, under the empty password and a fixed one, and the
// contents it hands back.
#include <cstddef>
#include <cstdint>

#include "platform/crypto/pkcs12.h"
#include "tessarel/errors.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tessarel;
  Bytes pfx(data, data + size);
  for (const char* password : {"", "password"}) {
    try {
      crypto::Pkcs12Contents c = crypto::read_pkcs12(pfx, password);
      c.certificate.subject_text();
      c.key.matches(c.certificate);
      for (const auto& extra : c.chain)
        extra.id();
    } catch (const Exception&) {
    }
  }
  return 0;
}
