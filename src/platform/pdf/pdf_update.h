// The incremental update that adds a signature field to a document: the original bytes stay
// as they are, the update is appended after them. (C++17: under clang these files are
// compiled as C++17, see src/CMakeLists.txt.)
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "platform/pdf/pdf_document.h"
#include "tessarel/types.h"

namespace tessarel::pdf {

struct SignatureRequest {
  std::string filter = "Adobe.PPKMS";
  std::string sub_filter = "adbe.pkcs7.detached";
  std::string name;    // /Name (UTF-8); empty: left out
  std::string reason;  // /Reason (UTF-8); empty: left out
  std::string date;    // /M, as pdf_date writes it
  // A visible widget on the first page showing this text; empty: a zero-size widget
  // without an appearance.
  std::string appearance_text;
  // Bytes reserved for the CMS value (the /Contents string holds twice as many hex digits).
  std::size_t contents_size = 0;
};

struct PreparedSignature {
  Bytes update;                    // the bytes to append to the document
  std::uint64_t base = 0;          // the document's size: where the update goes
  std::uint64_t contents = 0;      // offset of the /Contents string's "<" in the signed file
  std::uint64_t contents_end = 0;  // offset just after its ">"
  std::array<std::uint64_t, 4> byte_range;  // as written into the update
  std::string field;                        // the new field's name
  std::uint64_t total() const { return base + update.size(); }
};

// Builds the update: a signature dictionary with a zero-filled /Contents of the requested
// size and its /ByteRange filled in, a signature field merged with its widget, the widget's
// appearance, the page, form and catalog objects that change, and a cross-reference section
// of the document's own kind. Throws PdfError when the document lacks what a signature needs.
PreparedSignature prepare_signature(Document& doc, const SignatureRequest& request);

// Writes the CMS value into the reserved /Contents space of the update. Throws
// tessarel::Exception when it does not fit; the update is then unchanged.
void put_contents(PreparedSignature& prepared, const Bytes& cms);

// Appends the update to the file, which must still be `prepared.base` bytes long.
void append_update(const std::string& path, const PreparedSignature& prepared);

}  // namespace tessarel::pdf
