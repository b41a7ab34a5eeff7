#include "pdf_fixtures.h"

#include <cstdio>
#include <map>
#include <regex>
#include <stdexcept>

#include "test_support.h"

namespace tessarel::test {

std::string hand_pdf(const HandPdf& o) {
  std::map<int, std::string> objects;
  std::string content = "BT /F1 24 Tf 72 720 Td (Documento di prova) Tj ET";
  int pages = std::max(1, o.pages);
  const int first_page = 20;
  std::string kids;
  for (int i = 0; i < pages; ++i)
    kids += std::to_string(first_page + i) + " 0 R ";
  objects[1] =
      std::string("<</Type/Catalog/Pages 2 0 R") + (o.form ? "/AcroForm 7 0 R" : "") + ">>";
  objects[2] = "<</Type/Pages/Kids[" + kids + "]/Count " + std::to_string(pages) + ">>";
  objects[4] =
      "<</Length " + std::to_string(content.size()) + ">>\nstream\n" + content + "\nendstream";
  objects[5] = "<</Type/Font/Subtype/Type1/BaseFont/Helvetica>>";
  objects[6] = "<</Title(Prova)/Producer(hand)>>";
  std::string widgets;
  if (o.form) {
    std::string fields = "9 0 R";
    objects[9] = "<</Type/Annot/Subtype/Widget/FT/Tx/T(Nome)/V(Mario)/Rect[100 100 200 120]/P " +
                 std::to_string(first_page) + " 0 R>>";
    widgets = "9 0 R";
    if (o.field_named_signature1) {
      objects[10] = "<</Type/Annot/Subtype/Widget/FT/Tx/T(Signature1)/Rect[100 130 200 150]/P " +
                    std::to_string(first_page) + " 0 R>>";
      fields += " 10 0 R";
      widgets += " 10 0 R";
    }
    objects[7] = "<</Fields[" + fields + "]/DA(/Helv 0 Tf 0 g)>>";
  }
  std::string annots;
  if (o.indirect_annots) {
    objects[11] = "<</Type/Annot/Subtype/Link/Rect[10 10 50 50]/Border[0 0 0]>>";
    objects[8] = "[11 0 R " + widgets + "]";
    annots = "/Annots 8 0 R";
  } else if (!widgets.empty()) {
    annots = "/Annots[" + widgets + "]";
  }
  for (int i = 0; i < pages; ++i)
    objects[first_page + i] =
        "<</Type/Page/Parent 2 0 R/MediaBox[0 0 595 842]/Resources<</Font<</F1 5 0 R>>>>"
        "/Contents 4 0 R" +
        (i == 0 ? annots : std::string()) + ">>";

  std::string pdf = "%PDF-1.7\n%\xE2\xE3\xCF\xD3\n";
  std::map<int, std::size_t> offsets;
  for (const auto& [n, body] : objects) {
    offsets[n] = pdf.size();
    pdf += std::to_string(n) + " 0 obj\n" + body + "\nendobj\n";
  }
  int size = objects.rbegin()->first + 1;
  std::size_t xref = pdf.size();
  pdf += "xref\n0 " + std::to_string(size) + "\n";
  for (int n = 0; n < size; ++n) {
    char e[32];
    if (offsets.count(n))
      std::snprintf(e, sizeof e, "%010zu 00000 n \n", offsets[n]);
    else
      std::snprintf(e, sizeof e, "0000000000 65535 f \n");
    pdf += e;
  }
  pdf += "trailer\n<</Size " + std::to_string(size) +
         "/Root 1 0 R/Info 6 0 R/ID[<00112233445566778899AABBCCDDEEFF><00112233445566778899AABBCC"
         "DDEEFF>]>>\nstartxref\n" +
         std::to_string(xref) + "\n%%EOF" + (o.trailing_eol ? "\n" : "");
  return pdf;
}

std::string hybrid_pdf() {
  std::string objstm_objects = "<</Type/Catalog/Pages 2 0 R>>\n<</Type/Pages/Kids[3 0 R]/Count 1>>";
  std::string header = "1 0 2 " + std::to_string(objstm_objects.find("\n") + 1) + " ";
  std::string objstm_data = header + objstm_objects;
  std::string content = "BT /F1 24 Tf 72 720 Td (Documento ibrido) Tj ET";
  std::string pdf = "%PDF-1.5\n%\xE2\xE3\xCF\xD3\n";
  std::map<int, std::size_t> at;
  auto object = [&](int n, const std::string& body) {
    at[n] = pdf.size();
    pdf += std::to_string(n) + " 0 obj\n" + body + "\nendobj\n";
  };
  object(3,
         "<</Type/Page/Parent 2 0 R/MediaBox[0 0 595 842]/Resources<</Font<</F1 5 0 R>>>>"
         "/Contents 4 0 R>>");
  object(4,
         "<</Length " + std::to_string(content.size()) + ">>\nstream\n" + content + "\nendstream");
  object(5, "<</Type/Font/Subtype/Type1/BaseFont/Helvetica>>");
  object(7, "<</Type/ObjStm/N 2/First " + std::to_string(header.size()) + "/Length " +
                std::to_string(objstm_data.size()) + ">>\nstream\n" + objstm_data + "\nendstream");
  // The stream lists the two compressed objects: type 2, in object stream 7, at index 0 and 1.
  std::string entries = std::string("\x02\x00\x07\x00", 4) + std::string("\x02\x00\x07\x01", 4);
  object(8,
         "<</Type/XRef/Size 9/Index[1 2]/W[1 2 1]/Length 8>>\nstream\n" + entries + "\nendstream");
  std::size_t xref = pdf.size();
  pdf += "xref\n0 9\n";
  for (int n = 0; n < 9; ++n) {
    char e[32];
    if (at.count(n))
      std::snprintf(e, sizeof e, "%010zu 00000 n \n", at[n]);
    else
      std::snprintf(e, sizeof e, "0000000000 65535 f \n");
    pdf += e;
  }
  pdf += "trailer\n<</Size 9/Root 1 0 R/XRefStm " + std::to_string(at[8]) + ">>\nstartxref\n" +
         std::to_string(xref) + "\n%%EOF\n";
  return pdf;
}

std::vector<std::string> producer_kinds() {
  return {"gs", "gs-updated", "qpdf", "qpdf-stream", "linearized", "cairo", "pdfunite", "hybrid"};
}

std::string produce_pdf(const std::string& kind, const std::string& dir) {
  std::string out = dir + "/" + kind + ".pdf";
  std::string ps = dir + "/source.ps";
  auto ghostscript = [&]() -> std::string {
    if (!have_program("ps2pdf")) return "";
    write_file(ps,
               "%!PS\n/Helvetica findfont 24 scalefont setfont\n"
               "72 700 moveto (Pagina uno) show showpage\n"
               "72 700 moveto (Pagina due) show showpage\n");
    std::string gs = dir + "/gs-source.pdf";
    if (run({"ps2pdf", ps, gs}).exit_code != 0) return "";
    return gs;
  };
  if (kind == "gs") {
    std::string gs = ghostscript();
    if (gs.empty() || run({"cp", gs, out}).exit_code != 0) return "";
    return out;
  }
  if (kind == "gs-updated") {
    // Another program's incremental update already in the file: new document information,
    // appended after ghostscript's table by a small writer of our own.
    std::string gs = ghostscript();
    if (gs.empty() || !have_program("qpdf") || run({"cp", gs, out}).exit_code != 0) return "";
    std::smatch info;
    std::string trailer = show_object(out, "trailer");
    if (!std::regex_search(trailer, info, std::regex(R"(/Info (\d+) 0 R)"))) return "";
    append_update(out, {{std::stoi(info[1]),
                         "<</Title(Documento aggiornato)/Producer(script di prova)"
                         "/ModDate(D:20240101120000Z)>>"}});
    return out;
  }
  if (kind == "qpdf" || kind == "qpdf-stream" || kind == "linearized") {
    if (!have_program("qpdf")) return "";
    std::string hand = dir + "/hand-source.pdf";
    HandPdf h;
    h.pages = 3;
    write_file(hand, hand_pdf(h));
    std::vector<std::string> args = {"qpdf"};
    if (kind == "qpdf-stream") args.push_back("--object-streams=generate");
    if (kind == "linearized") args.push_back("--linearize");
    args.push_back(hand);
    args.push_back(out);
    return run(args).exit_code == 0 ? out : "";
  }
  if (kind == "cairo") {
    std::string script = dir + "/cairo-doc.py";
    write_file(script,
               "import cairo, sys\n"
               "s = cairo.PDFSurface(sys.argv[1], 595, 842)\n"
               "c = cairo.Context(s)\n"
               "c.select_font_face('Sans')\n"
               "c.set_font_size(20)\n"
               "for page in range(3):\n"
               "    c.move_to(72, 100)\n"
               "    c.show_text('Documento cairo, pagina %d: àèìòù' % (page + 1))\n"
               "    c.show_page()\n"
               "s.finish()\n");
    return run({"/usr/bin/python3", script, out}).exit_code == 0 ? out : "";
  }
  if (kind == "pdfunite") {
    if (!have_program("pdfunite")) return "";
    std::string gs = ghostscript();
    std::string hand = dir + "/unite-hand.pdf";
    write_file(hand, hand_pdf());
    if (gs.empty()) return "";
    return run({"pdfunite", gs, hand, out}).exit_code == 0 ? out : "";
  }
  if (kind == "hybrid") {
    write_file(out, hybrid_pdf());
    return out;
  }
  throw std::invalid_argument("no producer " + kind);
}

void append_update(const std::string& path, const std::map<int, std::string>& bodies) {
  std::string pdf = read_file(path);
  std::smatch m;
  std::regex startxref(R"(startxref\s+(\d+)\s*%%EOF\s*$)");
  if (!std::regex_search(pdf, m, startxref)) throw std::runtime_error("no startxref in " + path);
  std::string prev = m[1];
  std::string trailer = show_object(path, "trailer");
  std::smatch root, size, info, id;
  if (!std::regex_search(trailer, root, std::regex(R"(/Root (\d+ \d+ R))")) ||
      !std::regex_search(trailer, size, std::regex(R"(/Size (\d+))")))
    throw std::runtime_error("no trailer in " + path + ": " + trailer);
  // The document information and identifier carry over, as writers of updates keep them.
  std::string kept;
  if (std::regex_search(trailer, info, std::regex(R"(/Info \d+ \d+ R)"))) kept += info[0];
  if (std::regex_search(trailer, id, std::regex(R"(/ID \[[^\]]*\])"))) kept += id[0];
  std::string update, xref = "xref\n";
  int highest = std::stoi(size[1]) - 1;
  for (const auto& [number, body] : bodies) {
    char entry[32];
    std::snprintf(entry, sizeof entry, "%010zu 00000 n \n", pdf.size() + update.size());
    xref += std::to_string(number) + " 1\n" + entry;
    update += std::to_string(number) + " 0 obj\n" + body + "\nendobj\n";
    highest = std::max(highest, number);
  }
  std::size_t at = pdf.size() + update.size();
  update += xref + "trailer\n<</Size " + std::to_string(highest + 1) + "/Root " +
            std::string(root[1]) + kept + "/Prev " + prev + ">>\nstartxref\n" + std::to_string(at) +
            "\n%%EOF\n";
  write_file(path, pdf + update);
}

void append_stream_update(const std::string& path, int number, const std::string& content) {
  append_update(path, {{number, "<</Length " + std::to_string(content.size()) + ">>\nstream\n" +
                                    content + "\nendstream"}});
}

std::string show_object(const std::string& path, const std::string& object) {
  auto r = run({"qpdf", "--show-object=" + object, path});
  if (r.exit_code != 0) throw std::runtime_error("qpdf cannot show " + object + ": " + r.err);
  return r.out.substr(0, r.out.find_last_not_of("\n") + 1);
}

int first_page_content_object(const std::string& path) {
  auto r = run({"qpdf", "--show-pages", path});
  std::smatch m;
  if (!std::regex_search(r.out, m, std::regex(R"(content:\s+(\d+) 0 R)")))
    throw std::runtime_error("no page content in " + path + ": " + r.out + r.err);
  return std::stoi(m[1]);
}

std::size_t find_last(const std::string& path, const std::string& needle) {
  return read_file(path).rfind(needle);
}

}  // namespace tessarel::test
