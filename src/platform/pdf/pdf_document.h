// PDF documents read with qpdf: opening (repair switched off, so a damaged file is refused
// rather than guessed at), the signatures a document holds, and what a later revision changed.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tessarel/errors.h"
#include "tessarel/types.h"

namespace tessarel::pdf {

// A file that is not a readable PDF document; the message says what is wrong.
class PdfError : public Exception {
 public:
  using Exception::Exception;
};

// The document is encrypted.
class PdfEncryptedError : public PdfError {
 public:
  PdfEncryptedError() : PdfError("Cannot sign the encrypted document") {}
};

// How the last cross-reference section of the file is written.
enum class XrefKind {
  Table,   // a classic "xref" table with a trailer dictionary
  Hybrid,  // a classic table whose trailer names a cross-reference stream (/XRefStm)
  Stream,  // a cross-reference stream
};

struct ObjectId {
  int number = 0;
  int generation = 0;
  bool operator==(const ObjectId& o) const {
    return number == o.number && generation == o.generation;
  }
};

// A signature field that holds a signature value.
struct SignatureInfo {
  std::string field;  // fully qualified field name
  ObjectId field_id;  // the field dictionary (zero when it is direct)
  ObjectId value_id;  // the signature dictionary (zero when it is direct)
  std::string filter;
  std::string sub_filter;
  std::vector<std::int64_t> byte_range;  // as written (empty when absent or not integers)
  Bytes contents;                        // the bytes of the /Contents string
  std::string name;                      // /Name, UTF-8
  std::string reason;                    // /Reason, UTF-8
  std::string signing_time;              // /M as written
};

class Document {
 public:
  // Opens a file, or only its first `length` bytes (an earlier revision). Throws
  // PdfEncryptedError for an encrypted document and PdfError for anything unreadable.
  // display_name names the file in messages (default: the path).
  static std::unique_ptr<Document> open(const std::string& path,
                                        std::optional<std::uint64_t> length = {},
                                        const std::string& display_name = {});
  // The same, over bytes in memory (kept alive by the caller).
  static std::unique_ptr<Document> open_memory(const std::uint8_t* data, std::size_t size,
                                               const std::string& display_name);
  ~Document();
  Document(const Document&) = delete;
  Document& operator=(const Document&) = delete;

  std::uint64_t size() const;
  XrefKind xref_kind() const;
  // Offset of the last cross-reference section (the file's startxref value).
  std::uint64_t last_xref_offset() const;
  // True when the bytes end with a line break (an update can follow directly).
  bool ends_with_eol() const;
  const std::string& display_name() const;

  // Every signature field with a value, in the order of the form's field tree.
  std::vector<SignatureInfo> signatures();
  // The changes this document makes to `older` (an earlier revision of the same file) that
  // adding signatures or filling form fields does not explain, one sentence each.
  std::vector<std::string> changes_beyond_signing(Document& older);

  struct Impl;
  Impl& impl() { return *impl_; }

 private:
  explicit Document(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

// Where the document's bytes end up when a revision ends: true when the bytes before `end`
// close a revision ("%%EOF", optionally followed by a line break).
bool ends_revision(const std::string& tail);

}  // namespace tessarel::pdf
