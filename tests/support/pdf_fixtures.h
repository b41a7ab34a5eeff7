// PDF documents for the tests, made at test time: by hand (exact control of the structure)
// and by outside producers (ghostscript, qpdf, cairo, poppler).
#pragma once

#include <map>
#include <string>
#include <vector>

namespace tessarel::test {

struct HandPdf {
  bool form = false;                    // an AcroForm (indirect) with a text field "Nome"
  bool field_named_signature1 = false;  // ... and a text field named "Signature1"
  bool indirect_annots = false;         // the page's /Annots is an indirect array with a link
  bool trailing_eol = true;             // the file ends with a line break after %%EOF
  int pages = 1;
};
// A small document with a classic cross-reference table, written byte by byte.
std::string hand_pdf(const HandPdf& options = {});

// A hybrid document: a classic table whose trailer names a cross-reference stream (/XRefStm)
// for the catalog and page tree, which sit in an object stream.
std::string hybrid_pdf();

// A document from a producer; the path of the file made, or "" when the producer is missing.
// kind: "gs" (ps2pdf), "gs-updated" (ps2pdf, then an incremental update of the document
// information by a small writer of our own), "qpdf" (classic table), "qpdf-stream" (cross-reference
// stream), "linearized" (qpdf --linearize), "cairo" (a pycairo script), "pdfunite", and "hybrid"
// (hybrid_pdf, made here: no producer at hand writes one).
std::string produce_pdf(const std::string& kind, const std::string& dir);
std::vector<std::string> producer_kinds();

// Appends an incremental update that gives object `number` new stream content (a classic
// table update; the document must end with one).
void append_stream_update(const std::string& path, int number, const std::string& content);

// Appends an incremental update (a classic table) that gives each object number the body
// given for it ("<</A 1>>", a stream with its dictionary...); the trailer keeps /Root,
// /Info and /ID, and /Size grows past the highest number.
void append_update(const std::string& path, const std::map<int, std::string>& bodies);

// An object (or "trailer") as qpdf shows it: PDF syntax, streams without their data.
std::string show_object(const std::string& path, const std::string& object);

// The object number of the first page's content stream, read with qpdf.
int first_page_content_object(const std::string& path);

// Offset of the last occurrence of needle in the file (npos when absent).
std::size_t find_last(const std::string& path, const std::string& needle);

}  // namespace tessarel::test
