// The PDF layer on its own: reading (and refusing), the update it appends, the appearance
// metrics, and what it finds changed between revisions.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>

#include "pdf_fixtures.h"
#include "platform/pdf/pdf_document.h"
#include "platform/pdf/pdf_text.h"
#include "platform/pdf/pdf_update.h"
#include "test_support.h"

namespace tessarel {
namespace {

using pdf::Document;

// Appends an update with an empty signature value, as the signer does before it signs.
pdf::PreparedSignature sign_placeholder(const std::string& path, const std::string& text = "",
                                        std::size_t contents = 64) {
  auto doc = Document::open(path);
  pdf::SignatureRequest r;
  r.name = "Prova";
  r.appearance_text = text;
  r.contents_size = contents;
  r.date = pdf::pdf_date(1700000000);
  auto p = pdf::prepare_signature(*doc, r);
  pdf::append_update(path, p);
  return p;
}

std::string update_text(const std::string& path, std::uint64_t from) {
  return test::read_file(path).substr(static_cast<std::size_t>(from));
}

TEST(PdfText, HelveticaWidthsAreTheFontMetrics) {
  // The standard font's metrics, compared with the AFM of a metric-compatible font.
  const char* afm_path = "/usr/share/fonts/type1/urw-base35/NimbusSans-Regular.afm";
  if (!std::filesystem::exists(afm_path)) GTEST_SKIP() << "no AFM to compare with";
  std::map<std::string, int> afm;
  std::ifstream in(afm_path);
  std::regex metric(R"(C -?\d+ ; WX (\d+) ; N (\S+))");
  for (std::string line; std::getline(in, line);) {
    std::smatch m;
    if (std::regex_search(line, m, metric)) afm[m[2]] = std::stoi(m[1]);
  }
  // Glyph names of WinAnsi 32-255; "-" where WinAnsi defines nothing.
  std::istringstream names(
      "space exclam quotedbl numbersign dollar percent ampersand quotesingle parenleft "
      "parenright asterisk plus comma hyphen period slash zero one two three four five six seven "
      "eight nine colon semicolon less equal greater question at A B C D E F G H I J K L M N O P "
      "Q R S T U V W X Y Z bracketleft backslash bracketright asciicircum underscore grave a b c "
      "d e f g h i j k l m n o p q r s t u v w x y z braceleft bar braceright asciitilde - Euro - "
      "quotesinglbase florin quotedblbase ellipsis dagger daggerdbl circumflex perthousand "
      "Scaron guilsinglleft OE - Zcaron - - quoteleft quoteright quotedblleft quotedblright "
      "bullet endash emdash tilde trademark scaron guilsinglright oe - zcaron Ydieresis space "
      "exclamdown cent sterling currency yen brokenbar section dieresis copyright ordfeminine "
      "guillemotleft logicalnot hyphen registered macron degree plusminus twosuperior "
      "threesuperior acute mu paragraph periodcentered cedilla onesuperior ordmasculine "
      "guillemotright onequarter onehalf threequarters questiondown Agrave Aacute Acircumflex "
      "Atilde Adieresis Aring AE Ccedilla Egrave Eacute Ecircumflex Edieresis Igrave Iacute "
      "Icircumflex Idieresis Eth Ntilde Ograve Oacute Ocircumflex Otilde Odieresis multiply "
      "Oslash Ugrave Uacute Ucircumflex Udieresis Yacute Thorn germandbls agrave aacute "
      "acircumflex atilde adieresis aring ae ccedilla egrave eacute ecircumflex edieresis igrave "
      "iacute icircumflex idieresis eth ntilde ograve oacute ocircumflex otilde odieresis divide "
      "oslash ugrave uacute ucircumflex udieresis yacute thorn ydieresis");
  int code = 32;
  for (std::string name; names >> name; ++code) {
    int expected = name == "-" ? 0 : afm.at(name);
    EXPECT_EQ(pdf::helvetica_width(static_cast<unsigned char>(code)), expected)
        << "code " << code << " " << name;
  }
  EXPECT_EQ(code, 256);
}

TEST(PdfText, WinAnsiAndStringSyntax) {
  EXPECT_EQ(pdf::to_win_ansi("Müller €10 – “ok”"),
            "M\xFCller \x80"
            "10 \x96 \x93ok\x94");
  // Outside WinAnsi, broken UTF-8 and control characters all become '?'.
  EXPECT_EQ(pdf::to_win_ansi("Żaneta 日本 \xC3 x\ty"), "?aneta ?? ? x?y");
  EXPECT_EQ(pdf::helvetica_width(pdf::to_win_ansi("Firmato: Mario")),
            611 + 222 + 333 + 833 + 556 + 278 + 556 + 278 + 278 + 833 + 556 + 333 + 222 + 556);

  EXPECT_EQ(pdf::literal_string("a(b)c\\d\n\xE9"), "(a\\(b\\)c\\\\d\\012\\351)");
  EXPECT_EQ(pdf::text_string("Rossi (CEO)"), "(Rossi \\(CEO\\))");
  // Text outside printable ASCII goes as UTF-16BE with a byte-order mark, astral
  // characters as surrogate pairs.
  EXPECT_EQ(pdf::text_string("è"), "<FEFF00E8>");
  EXPECT_EQ(pdf::text_string("a\xF0\x9F\x98\x80"), "<FEFF0061D83DDE00>");
}

// A document written with the given line end, its cross-reference table placed so that it
// crosses the reader's 64 KiB window at `cross` bytes into the table.
std::string document_with_line_ends(const std::string& eol, std::size_t cross) {
  std::string header = "%PDF-1.4" + eol;
  std::vector<std::string> bodies = {"<</Type/Catalog/Pages 2 0 R>>",
                                     "<</Type/Pages/Kids[3 0 R]/Count 1>>",
                                     "<</Type/Page/Parent 2 0 R/MediaBox[0 0 595 842]>>", ""};
  auto layout = [&](std::size_t filler) {
    bodies[3] = "<</Length " + std::to_string(filler) + ">>" + eol + "stream" + eol +
                std::string(filler, 'x') + eol + "endstream";
    std::string pdf = header;
    std::vector<std::size_t> offsets;
    for (std::size_t i = 0; i < bodies.size(); ++i) {
      offsets.push_back(pdf.size());
      pdf += std::to_string(i + 1) + " 0 obj" + eol + bodies[i] + eol + "endobj" + eol;
    }
    std::size_t xref = pdf.size();
    // Table entries are 20 bytes: a one-byte line end takes a space before it.
    std::string entry_end = eol.size() == 2 ? eol : " " + eol;
    pdf += "xref" + eol + "0 5" + eol + "0000000000 65535 f" + entry_end;
    for (std::size_t o : offsets) {
      char e[16];
      std::snprintf(e, sizeof e, "%010zu", o);
      pdf += std::string(e) + " 00000 n" + entry_end;
    }
    pdf += "trailer" + eol + "<</Size 5/Root 1 0 R>>" + eol + "startxref" + eol +
           std::to_string(xref) + eol + "%%EOF" + eol;
    return std::make_pair(pdf, xref);
  };
  std::size_t xref = layout(0).second;
  return layout(65536 - cross - xref).first;
}

TEST(PdfReader, LineEndsOfEveryKindAlsoAcrossTheReadingWindow) {
  test::TempDir d;
  for (const std::string eol : {"\n", "\r\n", "\r"}) {
    for (std::size_t cross : {1, 4, 5, 6, 20, 31, 47}) {
      std::string pdf = document_with_line_ends(eol, cross);
      test::write_file(d / "lines.pdf", pdf);
      std::string what = "line end " + std::to_string(eol.size()) + (eol == "\r" ? " CR" : "") +
                         ", window crossed " + std::to_string(cross) + " bytes into the table";
      try {
        auto from_file = Document::open(d / "lines.pdf");
        EXPECT_EQ(from_file->xref_kind(), pdf::XrefKind::Table) << what;
        auto from_memory = Document::open_memory(reinterpret_cast<const std::uint8_t*>(pdf.data()),
                                                 pdf.size(), "lines.pdf");
        // A signature goes on the page both readings find, in updates of one shape (they
        // differ only in the renewed identifier).
        pdf::SignatureRequest r;
        r.contents_size = 64;
        auto a = pdf::prepare_signature(*from_file, r);
        auto b = pdf::prepare_signature(*from_memory, r);
        EXPECT_EQ(a.byte_range, b.byte_range) << what;
        std::string update(a.update.begin(), a.update.end());
        EXPECT_NE(update.find("/P 3 0 R"), std::string::npos) << what << "\n" << update;
      } catch (const std::exception& e) {
        ADD_FAILURE() << what << ": " << e.what();
      }
    }
  }
}

TEST(PdfReader, RefusesDocumentsItCannotReadAndSaysWhy) {
  test::TempDir d;
  std::string good = test::hand_pdf();
  auto refuse = [&](const std::string& name, const std::string& bytes, const std::string& why) {
    test::write_file(d / name, bytes);
    try {
      Document::open(d / name);
      ADD_FAILURE() << name << " was opened";
    } catch (const pdf::PdfEncryptedError&) {
      ADD_FAILURE() << name << " called encrypted";
    } catch (const pdf::PdfError& e) {
      EXPECT_NE(std::string(e.what()).find(why), std::string::npos) << name << ": " << e.what();
    }
  };
  refuse("text.pdf", "just some text\n", "not a PDF document");
  refuse("empty.pdf", "", "not a PDF document");
  refuse("truncated.pdf", good.substr(0, good.size() - 40), "truncated");
  std::string past = std::regex_replace(good, std::regex(R"(startxref\n\d+)"),
                                        "startxref\n" + std::to_string(good.size() + 100));
  refuse("startxref-past.pdf", past, "past the end of the file");
  // An object entry whose offset lies beyond the file.
  std::string entry = good;
  std::size_t last_entry = entry.find(" 00000 n \ntrailer") - 10;
  entry.replace(last_entry, 10, "0000999999");
  refuse("entry-past.pdf", entry, "past the end of the file");
  // A cross-reference offset that points at the wrong place.
  std::string wrong = std::regex_replace(good, std::regex(R"(startxref\n\d+)"), "startxref\n20");
  refuse("wrong-xref.pdf", wrong, "damaged");

  if (!test::have_program("qpdf")) GTEST_SKIP() << "qpdf not installed";
  test::write_file(d / "plain.pdf", good);
  for (const char* user : {"", "secret"}) {
    std::string out = d / (std::string("enc-") + user + ".pdf");
    ASSERT_EQ(test::run({"qpdf", "--encrypt", user, "owner", "256", "--", d / "plain.pdf", out})
                  .exit_code,
              0);
    EXPECT_THROW(Document::open(out), pdf::PdfEncryptedError) << "user password: " << user;
  }
}

TEST(PdfWriter, TheUpdateFollowsTheOriginalAndItsByteRangeIsExact) {
  test::TempDir d;
  std::string original = test::hand_pdf();
  test::write_file(d / "a.pdf", original);
  auto doc = Document::open(d / "a.pdf");
  EXPECT_EQ(doc->xref_kind(), pdf::XrefKind::Table);
  std::uint64_t prev = doc->last_xref_offset();
  doc.reset();
  auto p = sign_placeholder(d / "a.pdf", "Firmato: Prova", 100);
  std::string all = test::read_file(d / "a.pdf");
  ASSERT_EQ(all.substr(0, original.size()), original);
  EXPECT_EQ(p.base, original.size());
  EXPECT_EQ(all.size(), p.total());
  // The byte range leaves out exactly the hexadecimal /Contents string.
  EXPECT_EQ(p.byte_range[0], 0u);
  EXPECT_EQ(all[p.byte_range[1]], '<');
  EXPECT_EQ(all[p.byte_range[2] - 1], '>');
  EXPECT_EQ(p.byte_range[2] - p.byte_range[1], 202u);
  EXPECT_EQ(p.byte_range[2] + p.byte_range[3], all.size());
  std::string written = "/ByteRange [0 " + std::to_string(p.byte_range[1]) + " " +
                        std::to_string(p.byte_range[2]) + " " + std::to_string(p.byte_range[3]) +
                        "]";
  EXPECT_NE(all.find(written), std::string::npos);
  std::string update = update_text(d / "a.pdf", original.size());
  EXPECT_NE(update.find("/Prev " + std::to_string(prev) + ">>"), std::string::npos);
  EXPECT_NE(update.find("/Filter/Adobe.PPKMS/SubFilter/adbe.pkcs7.detached"), std::string::npos);
  EXPECT_NE(update.find("/M(D:20231114221320+00'00')"), std::string::npos);
  // The first identifier stays, the second is renewed.
  std::smatch id;
  ASSERT_TRUE(std::regex_search(update, id, std::regex(R"(/ID\[<([0-9A-F]+)><([0-9A-F]+)>\])")));
  EXPECT_EQ(id[1], "00112233445566778899AABBCCDDEEFF");
  EXPECT_NE(id[2], "00112233445566778899AABBCCDDEEFF");
  // Every table entry points at its object.
  std::regex entry(R"((\d{10}) 00000 n )");
  std::smatch m;
  std::string xref = update.substr(update.rfind("\nxref\n"));
  int entries = 0;
  for (auto it = std::sregex_iterator(xref.begin(), xref.end(), entry);
       it != std::sregex_iterator(); ++it, ++entries) {
    std::size_t off = std::stoul((*it)[1]);
    EXPECT_TRUE(std::regex_search(all.substr(off, 12), std::regex(R"(^\d+ \d+ obj\n)")))
        << "entry " << off;
  }
  // Signature, widget, appearance, font and the page; the catalog gets the new form.
  EXPECT_EQ(entries, 7);
  if (test::have_program("qpdf")) {
    auto check = test::run({"qpdf", "--check", d / "a.pdf"});
    EXPECT_EQ(check.exit_code, 0) << check.out << check.err;
  }
}

TEST(PdfWriter, CrossReferenceStreamsGetAStreamAndMissingLineBreaksAreAdded) {
  test::TempDir d;
  test::HandPdf h;
  h.trailing_eol = false;
  std::string original = test::hand_pdf(h);
  test::write_file(d / "noeol.pdf", original);
  auto p = sign_placeholder(d / "noeol.pdf");
  std::string added = update_text(d / "noeol.pdf", original.size());
  EXPECT_TRUE(std::regex_search(added, std::regex("^\n21 0 obj\n"))) << added.substr(0, 20);

  if (!test::have_program("qpdf")) GTEST_SKIP() << "qpdf not installed";
  std::string stream = test::produce_pdf("qpdf-stream", d.path());
  ASSERT_FALSE(stream.empty());
  std::string before = test::read_file(stream);
  EXPECT_EQ(Document::open(stream)->xref_kind(), pdf::XrefKind::Stream);
  sign_placeholder(stream);
  std::string update = update_text(stream, before.size());
  EXPECT_EQ(update.find("\nxref\n"), std::string::npos);
  ASSERT_NE(update.find("/Type/XRef"), std::string::npos);
  // The stream's binary entries point at the objects: type 1, 4-byte offset, 2-byte generation.
  std::smatch m;
  ASSERT_TRUE(std::regex_search(update, m, std::regex(R"(/Index\[([\d ]+)\]/W\[1 4 2\])")));
  std::istringstream index(m[1].str());
  std::size_t data = update.find("stream\n", update.find("/Type/XRef")) + 7;
  std::string all = test::read_file(stream);
  int entries = 0;
  for (int first, count; index >> first >> count;) {
    for (int i = 0; i < count; ++i, ++entries) {
      const auto* e = reinterpret_cast<const unsigned char*>(update.data() + data + 7 * entries);
      EXPECT_EQ(e[0], 1);
      std::size_t off = (std::size_t{e[1]} << 24) | (e[2] << 16) | (e[3] << 8) | e[4];
      std::string head = std::to_string(first + i) + " 0 obj";
      EXPECT_EQ(all.substr(off, head.size()), head);
    }
  }
  EXPECT_EQ(entries, 6);  // signature, widget, page, new form, catalog, the stream itself
  auto check = test::run({"qpdf", "--check", stream});
  EXPECT_EQ(check.exit_code, 0) << check.out << check.err;
  auto xref = test::run({"qpdf", "--show-xref", stream});
  // qpdf finds the objects of the appended section at their offsets past the original end.
  std::smatch sig;
  ASSERT_TRUE(std::regex_search(update, sig, std::regex(R"(^(\d+) 0 obj\n<</Type/Sig)")));
  EXPECT_NE(
      xref.out.find(sig[1].str() + "/0: uncompressed; offset = " + std::to_string(before.size())),
      std::string::npos)
      << xref.out;
}

TEST(PdfWriter, HybridFilesGetATableAndCompressedObjectsAreWrittenPlainly) {
  test::TempDir d;
  std::string original = test::hybrid_pdf();
  test::write_file(d / "hybrid.pdf", original);
  EXPECT_EQ(Document::open(d / "hybrid.pdf")->xref_kind(), pdf::XrefKind::Hybrid);
  sign_placeholder(d / "hybrid.pdf", "Firmato: Prova");
  std::string update = update_text(d / "hybrid.pdf", original.size());
  EXPECT_NE(update.find("\nxref\n"), std::string::npos);
  EXPECT_EQ(update.find("/Type/XRef"), std::string::npos);
  // The catalog lived in the object stream; its new version is a plain object of the update.
  std::smatch m;
  ASSERT_TRUE(std::regex_search(update, m, std::regex(R"(\n1 0 obj\n(<<.*>>)\nendobj)")));
  EXPECT_NE(m[1].str().find("/Pages 2 0 R"), std::string::npos) << m[1];
  EXPECT_NE(m[1].str().find("/AcroForm "), std::string::npos) << m[1];
  EXPECT_EQ(Document::open(d / "hybrid.pdf")->signatures().size(), 1u);
  if (test::have_program("qpdf")) {
    auto check = test::run({"qpdf", "--check", d / "hybrid.pdf"});
    EXPECT_EQ(check.exit_code, 0) << check.out << check.err;
  }
}

TEST(PdfWriter, AnExistingFormKeepsItsFieldsAndOnlyChangedObjectsAreWritten) {
  test::TempDir d;
  test::HandPdf h;
  h.form = true;
  h.field_named_signature1 = true;
  h.indirect_annots = true;
  std::string original = test::hand_pdf(h);
  test::write_file(d / "form.pdf", original);
  auto p = sign_placeholder(d / "form.pdf", "Firmato: Prova");
  EXPECT_EQ(p.field, "Signature2");  // a text field already has the name Signature1
  std::string update = update_text(d / "form.pdf", original.size());
  // The form (7) and the page's annotation list (8) change; page 20 and the catalog do not.
  EXPECT_NE(update.find("\n7 0 obj\n"), std::string::npos);
  EXPECT_NE(update.find("\n8 0 obj\n"), std::string::npos);
  EXPECT_EQ(update.find("\n20 0 obj\n"), std::string::npos);
  EXPECT_EQ(update.find("\n1 0 obj\n"), std::string::npos);
  std::smatch m;
  ASSERT_TRUE(std::regex_search(update, m, std::regex(R"(\n7 0 obj\n(<<.*>>)\nendobj)")));
  EXPECT_NE(m[1].str().find("/Fields [9 0 R 10 0 R 22 0 R]"), std::string::npos) << m[1];
  EXPECT_NE(m[1].str().find("/SigFlags 3"), std::string::npos) << m[1];
  EXPECT_NE(m[1].str().find("/DA (/Helv 0 Tf 0 g)"), std::string::npos) << m[1];
  ASSERT_TRUE(std::regex_search(update, m, std::regex(R"(\n8 0 obj\n(\[.*\])\nendobj)")));
  EXPECT_EQ(m[1].str(), "[11 0 R 9 0 R 10 0 R 22 0 R]");
  // The new signature is the only one the reader finds; the text fields are not signatures.
  auto sigs = Document::open(d / "form.pdf")->signatures();
  ASSERT_EQ(sigs.size(), 1u);
  EXPECT_EQ(sigs[0].field, "Signature2");
  EXPECT_EQ(sigs[0].name, "Prova");
  EXPECT_EQ(sigs[0].contents, Bytes(64, 0));
}

TEST(PdfChanges, ASecondSignatureIsAllowedNewContentIsNot) {
  if (!test::have_program("qpdf")) GTEST_SKIP() << "qpdf not installed";
  test::TempDir d;
  test::write_file(d / "a.pdf", test::hand_pdf());
  auto first = sign_placeholder(d / "a.pdf", "Firmato: Uno");
  std::string signed_once = test::read_file(d / "a.pdf");
  sign_placeholder(d / "a.pdf", "Firmato: Due");
  auto older = Document::open(d / "a.pdf", first.total());
  EXPECT_TRUE(Document::open(d / "a.pdf")->changes_beyond_signing(*older).empty());

  // New page content after the first signature.
  test::write_file(d / "b.pdf", signed_once);
  test::append_stream_update(d / "b.pdf", test::first_page_content_object(d / "b.pdf"),
                             "BT /F1 40 Tf 72 400 Td (ANNULLATO) Tj ET");
  auto changes = Document::open(d / "b.pdf")->changes_beyond_signing(*older);
  ASSERT_EQ(changes.size(), 1u);
  EXPECT_EQ(changes[0], "the content of page 1 was changed");

  // A page that gains an annotation that is no form widget (a stamp over the text).
  std::string text = signed_once;
  std::size_t page = text.find("\n20 0 obj\n");
  ASSERT_NE(page, std::string::npos);
  std::string update = "99 0 obj\n<</Type/Annot/Subtype/FreeText/Rect[0 0 595 842]>>\nendobj\n";
  std::size_t annot_at = text.size();
  std::string page_body =
      "20 0 obj\n<</Type/Page/Parent 2 0 R/MediaBox[0 0 595 842]/Resources<</Font<</F1 5 0 R>>>>"
      "/Contents 4 0 R/Annots[99 0 R]>>\nendobj\n";
  std::size_t page_at = annot_at + update.size();
  update += page_body;
  std::smatch m;
  std::regex_search(text, m, std::regex(R"(startxref\n(\d+)\n%%EOF\n$)"));
  char e1[32], e2[32];
  std::snprintf(e1, sizeof e1, "%010zu 00000 n \n", page_at);
  std::snprintf(e2, sizeof e2, "%010zu 00000 n \n", annot_at);
  std::string xref_at = std::to_string(annot_at + update.size());
  update += std::string("xref\n20 1\n") + e1 + "99 1\n" + e2 +
            "trailer\n<</Size 100/Root 1 0 R/Prev " + m[1].str() + ">>\nstartxref\n" + xref_at +
            "\n%%EOF\n";
  test::write_file(d / "c.pdf", text + update);
  changes = Document::open(d / "c.pdf")->changes_beyond_signing(*older);
  ASSERT_EQ(changes.size(), 2u);  // the page lost its widget and gained a stamp
  EXPECT_NE(changes[0].find("page 1's annotations"), std::string::npos) << changes[0];
}

}  // namespace
}  // namespace tessarel
