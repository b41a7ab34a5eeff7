// Fuzzes the PDF reading path: opening (header, startxref, trailer, cross-reference
// sections), the signatures the form holds, the objects the update writer reads and rewrites
// (catalog, page tree, form, annotations), and the comparison of a revision with a later one.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "platform/pdf/pdf_document.h"
#include "platform/pdf/pdf_update.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tessarel;
  std::unique_ptr<pdf::Document> doc;
  try {
    doc = pdf::Document::open_memory(data, size, "fuzz.pdf");
  } catch (const Exception&) {
    return 0;
  }
  try {
    doc->signatures();
  } catch (const Exception&) {
  }
  try {
    pdf::SignatureRequest r;
    r.name = "Fuzz";
    r.reason = "Prova è";
    r.appearance_text = "Firmato: Fuzz";
    r.date = "D:20240101000000+00'00'";
    r.contents_size = 16;
    pdf::PreparedSignature p = pdf::prepare_signature(*doc, r);
    pdf::put_contents(p, Bytes(16, 0x30));
  } catch (const Exception&) {
  }
  // An earlier revision: the document up to its first end-of-file marker.
  const char* eof = "%%EOF";
  for (std::size_t i = 0; i + 5 <= size; ++i) {
    if (std::memcmp(data + i, eof, 5) != 0) continue;
    if (i + 5 >= size) break;
    try {
      auto older = pdf::Document::open_memory(data, i + 5, "fuzz-older.pdf");
      doc->changes_beyond_signing(*older);
    } catch (const Exception&) {
    }
    break;
  }
  return 0;
}
