// Fuzzes the safe XML parser and what runs on a parsed index: signature removal and
// signature checking.
#include <cstddef>
#include <cstdint>

#include "boundary/xml_signature_removal.h"
#include "platform/xml/dom.h"
#include "xmlsig/xml_signature.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tessarel;
  std::unique_ptr<xml::Document> doc;
  try {
    doc = xml::Document::Parse(data, size);
  } catch (const Exception&) {
    return 0;
  }
  try {
    TElXMLVerifier v;
    v.Load(doc->root());
    v.Verify(*doc);
  } catch (const Exception&) {
  }
  RimuoviFirmaXml(doc->root());
  doc->Serialize();
  return 0;
}
