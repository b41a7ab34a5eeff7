// The incremental update writer. qpdf only reads here: the objects that change are written
// again from their parsed values, the new ones from our own text, and the cross-reference
// section follows the form of the document's last one.
#include "platform/pdf/pdf_update.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <qpdf/QPDFXRefEntry.hh>
#include "platform/pdf/qpdf_document.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <map>
#include <set>

#include "platform/crypto/digest.h"
#include "platform/pdf/pdf_text.h"
#include "platform/pdf/qpdf_document.h"

namespace tessarel::pdf {

namespace {

constexpr int kMaxTreeDepth = 64;
constexpr double kFontSize = 10;
constexpr double kPadding = 4;
constexpr double kWidgetHeight = 20;
constexpr double kBaseline = 6.5;
constexpr double kMargin = 36;
// "[0 " + three numbers of up to 20 digits + "]", padded with spaces.
constexpr std::size_t kByteRangeWidth = 66;
// /F: print (4) and locked (128): the signature's widget is printed and cannot be moved.
constexpr int kWidgetFlags = 132;

std::string number(double v) {
  char buf[64];
  auto r = std::to_chars(buf, buf + sizeof buf, v, std::chars_format::fixed, 2);
  std::string s(buf, r.ptr);
  while (s.find('.') != std::string::npos && (s.back() == '0' || s.back() == '.')) {
    bool dot = s.back() == '.';
    s.pop_back();
    if (dot) break;
  }
  return s == "-0" ? "0" : s;
}

std::string ref(int num, int gen = 0) {
  return std::to_string(num) + " " + std::to_string(gen) + " R";
}

// A dictionary written again with some values replaced or added (raw PDF text).
std::string dict_text(QPDFObjectHandle d, const std::map<std::string, std::string>& replace) {
  std::string out = "<<";
  for (const auto& key : d.getKeys()) {
    if (replace.count(key)) continue;
    out += QPDFObjectHandle::newName(key).unparse() + " " + d.getKey(key).unparse();
  }
  for (const auto& [key, value] : replace)
    out += QPDFObjectHandle::newName(key).unparse() + " " + value;
  return out + ">>";
}

// An array written again with one more item.
std::string array_text(QPDFObjectHandle a, const std::string& extra) {
  std::string out = "[";
  if (a.isArray())
    for (int i = 0; i < a.getArrayNItems(); ++i)
      out += a.getArrayItem(i).unparse() + " ";
  return out + extra + "]";
}

struct Box {
  double x0 = 0, y0 = 0, x1 = 612, y1 = 792;
};

// A box attribute of the page, inherited through the page tree.
std::optional<Box> page_box(QPDFObjectHandle page, const char* key) {
  QPDFObjectHandle node = page;
  for (int depth = 0; depth < kMaxTreeDepth && node.isDictionary(); ++depth) {
    QPDFObjectHandle b = node.getKey(key);
    if (b.isArray() && b.getArrayNItems() == 4) {
      double v[4];
      for (int i = 0; i < 4; ++i) {
        QPDFObjectHandle n = b.getArrayItem(i);
        if (!n.isNumber()) return std::nullopt;
        v[i] = n.getNumericValue();
      }
      if (!std::isfinite(v[0] + v[1] + v[2] + v[3])) return std::nullopt;
      return Box{std::min(v[0], v[2]), std::min(v[1], v[3]), std::max(v[0], v[2]),
                 std::max(v[1], v[3])};
    }
    node = node.getKey("/Parent");
  }
  return std::nullopt;
}

QPDFObjectHandle first_page(QPDFObjectHandle root, const std::string& name) {
  QPDFObjectHandle node = root.getKey("/Pages");
  std::set<QPDFObjGen> seen;
  for (int depth = 0; depth < kMaxTreeDepth; ++depth) {
    if (!node.isDictionary()) break;
    if (node.isIndirect() && !seen.insert(node.getObjGen()).second)
      throw PdfError("the PDF document " + name + " is damaged: its page tree has a loop");
    QPDFObjectHandle kids = node.getKey("/Kids");
    if (type_of(node) == "Page" || !kids.isArray()) {
      if (!node.isIndirect()) break;
      return node;
    }
    if (kids.getArrayNItems() == 0) break;
    node = kids.getArrayItem(0);
  }
  throw PdfError("the PDF document " + name + " has no pages to put a signature on");
}

struct Writer {
  std::string out;
  std::uint64_t base;
  std::map<int, std::pair<int, std::uint64_t>> offsets;  // number -> generation, offset

  std::uint64_t here() const { return base + out.size(); }
  void object(int num, int gen, const std::string& body) {
    offsets[num] = {gen, here()};
    out += std::to_string(num) + " " + std::to_string(gen) + " obj\n" + body + "\nendobj\n";
  }
};

std::string appearance_stream(const std::string& text, double width, int font) {
  std::string content = "q 0.5 G 0.5 w 0.25 0.25 " + number(width - 0.5) + " " +
                        number(kWidgetHeight - 0.5) + " re S Q\nBT /F1 " + number(kFontSize) +
                        " Tf 0 g " + number(kPadding) + " " + number(kBaseline) + " Td " +
                        literal_string(text) + " Tj ET";
  return "<</Type/XObject/Subtype/Form/BBox[0 0 " + number(width) + " " + number(kWidgetHeight) +
         "]/Resources<</Font<</F1 " + ref(font) + ">>>>/Length " + std::to_string(content.size()) +
         ">>\nstream\n" + content + "\nendstream";
}

void write_table(Writer& w, const std::string& trailer_keys) {
  std::uint64_t xref_at = w.here();
  std::string x = "xref\n";
  auto it = w.offsets.begin();
  while (it != w.offsets.end()) {
    auto run_end = it;
    int count = 0;
    while (run_end != w.offsets.end() && run_end->first == it->first + count) {
      ++run_end;
      ++count;
    }
    x += std::to_string(it->first) + " " + std::to_string(count) + "\n";
    for (; it != run_end; ++it) {
      char e[32];
      std::snprintf(e, sizeof e, "%010llu %05d n \n",
                    static_cast<unsigned long long>(it->second.second), it->second.first);
      x += e;
    }
  }
  w.out +=
      x + "trailer\n<<" + trailer_keys + ">>\nstartxref\n" + std::to_string(xref_at) + "\n%%EOF\n";
}

void write_stream(Writer& w, int num, const std::string& trailer_keys) {
  std::uint64_t xref_at = w.here();
  w.offsets[num] = {0, xref_at};
  int width = xref_at > 0xFFFFFFFFull ? 8 : 4;
  std::string index, data;
  auto it = w.offsets.begin();
  while (it != w.offsets.end()) {
    auto run_end = it;
    int count = 0;
    while (run_end != w.offsets.end() && run_end->first == it->first + count) {
      ++run_end;
      ++count;
    }
    index += (index.empty() ? "" : " ") + std::to_string(it->first) + " " + std::to_string(count);
    for (; it != run_end; ++it) {
      data.push_back('\x01');
      for (int b = width - 1; b >= 0; --b)
        data.push_back(static_cast<char>((it->second.second >> (8 * b)) & 0xFF));
      data.push_back(static_cast<char>((it->second.first >> 8) & 0xFF));
      data.push_back(static_cast<char>(it->second.first & 0xFF));
    }
  }
  std::string body = "<</Type/XRef" + trailer_keys + "/Index[" + index + "]/W[1 " +
                     std::to_string(width) + " 2]/Length " + std::to_string(data.size()) +
                     ">>\nstream\n" + data + "\nendstream";
  w.out += std::to_string(num) + " 0 obj\n" + body + "\nendobj\n";
  w.out += "startxref\n" + std::to_string(xref_at) + "\n%%EOF\n";
}

// Numbers of the objects the update adds (0: not added).
struct NewObjects {
  int sig = 0, widget = 0, appearance = 0, font = 0, form = 0, xref_stream = 0;
  int size = 0;  // the trailer's /Size: one past the highest number
};

// New objects are numbered after every number in use.
NewObjects number_new_objects(QPDF& q, QPDFObjectHandle trailer, bool visible, bool has_form,
                              bool xref_stream) {
  int next = 1;
  QPDFObjectHandle size_key = trailer.getKey("/Size");
  if (size_key.isInteger() && size_key.getIntValue() > 0 && size_key.getIntValue() < 8388608)
    next = static_cast<int>(size_key.getIntValue());
  for (const auto& [og, entry] : q.getXRefTable())
    next = std::max(next, og.getObj() + 1);
  NewObjects n;
  n.sig = next++;
  n.widget = next++;
  n.appearance = visible ? next++ : 0;
  n.font = visible ? next++ : 0;
  n.form = has_form ? 0 : next++;
  n.xref_stream = xref_stream ? next++ : 0;
  n.size = next;
  return n;
}

// "SignatureN", the first N no field of the form has as its name.
std::string free_field_name(QPDFObjectHandle acro) {
  QPDFObjectHandle fields =
      acro.isDictionary() ? acro.getKey("/Fields") : QPDFObjectHandle::newNull();
  std::set<std::string> names;
  if (fields.isArray())
    for (int i = 0; i < fields.getArrayNItems(); ++i) {
      QPDFObjectHandle t = fields.getArrayItem(i).getKey("/T");
      if (t.isString()) names.insert(t.getUTF8Value());
    }
  int n = 1;
  while (names.count("Signature" + std::to_string(n)))
    ++n;
  return "Signature" + std::to_string(n);
}

// Where the blanks of the signature dictionary are, counted from the update's start.
struct Placeholders {
  std::size_t byte_range = 0;  // kByteRangeWidth spaces
  std::size_t contents = 0;    // the "<" of the zero-filled /Contents string
};

// The signature dictionary, with room for the CMS value and the byte range.
Placeholders write_signature_dictionary(Writer& w, int sig, const SignatureRequest& request) {
  std::string sigdict = "<</Type/Sig/Filter/" + request.filter + "/SubFilter/" + request.sub_filter;
  if (!request.name.empty()) sigdict += "/Name" + text_string(request.name);
  if (!request.reason.empty()) sigdict += "/Reason" + text_string(request.reason);
  sigdict += "/M" + literal_string(request.date) + "/ByteRange ";
  Placeholders at;
  std::size_t sig_start = w.out.size() + std::to_string(sig).size() + 7;
  at.byte_range = sig_start + sigdict.size();
  sigdict += std::string(kByteRangeWidth, ' ') + "/Contents ";
  at.contents = sig_start + sigdict.size();
  sigdict += "<" + std::string(2 * request.contents_size, '0') + ">>>";
  w.object(sig, 0, sigdict);
  if (w.out.compare(at.contents, 1, "<") != 0)
    throw std::logic_error("signature dictionary layout");
  return at;
}

// The visible widget: its text in WinAnsi, as wide as the text, at the page's lower left
// corner, inside the margin when the page leaves room.
struct WidgetPlace {
  std::string text;
  double width = 0;
  std::string rect;
};

WidgetPlace place_widget(QPDFObjectHandle page, const std::string& appearance_text) {
  Box box = page_box(page, "/CropBox").value_or(page_box(page, "/MediaBox").value_or(Box{}));
  WidgetPlace place;
  place.text = to_win_ansi(appearance_text);
  place.width = std::ceil(helvetica_width(place.text) * kFontSize / 1000.0 + 2 * kPadding);
  double x = box.x0 + std::max(0.0, std::min(kMargin, box.x1 - box.x0 - place.width));
  double y = box.y0 + std::max(0.0, std::min(kMargin, box.y1 - box.y0 - kWidgetHeight));
  place.rect = "[" + number(x) + " " + number(y) + " " + number(x + place.width) + " " +
               number(y + kWidgetHeight) + "]";
  return place;
}

// The field, merged with its widget on the first page; a visible one with its appearance.
void write_widget(Writer& w, const NewObjects& n, QPDFObjectHandle page,
                  const std::string& field_name, const std::string& appearance_text) {
  const bool visible = !appearance_text.empty();
  WidgetPlace place;
  place.rect = "[0 0 0 0]";
  if (visible) place = place_widget(page, appearance_text);
  std::string field = "<</Type/Annot/Subtype/Widget/FT/Sig/T" + literal_string(field_name) + "/V " +
                      ref(n.sig) + "/F " + std::to_string(kWidgetFlags) + "/P " +
                      ref(page.getObjectID(), page.getGeneration()) + "/Rect" + place.rect;
  if (visible) field += "/AP<</N " + ref(n.appearance) + ">>";
  w.object(n.widget, 0, field + ">>");
  if (visible) {
    w.object(n.appearance, 0, appearance_stream(place.text, place.width, n.font));
    w.object(n.font, 0, "<</Type/Font/Subtype/Type1/BaseFont/Helvetica/Encoding/WinAnsiEncoding>>");
  }
}

// The page lists the widget among its annotations.
void add_to_page(Writer& w, QPDFObjectHandle page, int widget) {
  QPDFObjectHandle annots = page.getKey("/Annots");
  if (annots.isIndirect() && annots.isArray())
    w.object(annots.getObjectID(), annots.getGeneration(), array_text(annots, ref(widget)));
  else
    w.object(page.getObjectID(), page.getGeneration(),
             dict_text(page, {{"/Annots", array_text(annots, ref(widget))}}));
}

// The form lists the field; /SigFlags 3: the document has signatures, append only. A new
// form (number `form`) or a direct one changes the catalog too.
void add_to_form(Writer& w, QPDFObjectHandle root, int form, int widget) {
  QPDFObjectHandle acro = root.getKey("/AcroForm");
  std::map<std::string, std::string> root_changes;
  if (!acro.isDictionary()) {
    w.object(form, 0, "<</Fields[" + ref(widget) + "]/SigFlags 3>>");
    root_changes["/AcroForm"] = ref(form);
  } else {
    QPDFObjectHandle fields = acro.getKey("/Fields");
    std::map<std::string, std::string> form_changes;
    if (fields.isIndirect() && fields.isArray())
      w.object(fields.getObjectID(), fields.getGeneration(), array_text(fields, ref(widget)));
    else
      form_changes["/Fields"] = array_text(fields, ref(widget));
    QPDFObjectHandle flags = acro.getKey("/SigFlags");
    long long old_flags = flags.isInteger() ? flags.getIntValue() : 0;
    if ((old_flags | 3) != old_flags || !flags.isInteger())
      form_changes["/SigFlags"] = std::to_string(old_flags | 3);
    if (!form_changes.empty()) {
      if (acro.isIndirect())
        w.object(acro.getObjectID(), acro.getGeneration(), dict_text(acro, form_changes));
      else
        root_changes["/AcroForm"] = dict_text(acro, form_changes);
    }
  }
  if (!root_changes.empty())
    w.object(root.getObjectID(), root.getGeneration(), dict_text(root, root_changes));
}

// The trailer keeps the catalog, the information dictionary and the first identifier.
std::string trailer_keys(QPDFObjectHandle trailer, QPDFObjectHandle root, int size,
                         std::uint64_t prev) {
  std::string keys =
      "/Size " + std::to_string(size) + "/Root " + ref(root.getObjectID(), root.getGeneration());
  QPDFObjectHandle info = trailer.getKey("/Info");
  if (info.isIndirect()) keys += "/Info " + info.unparse();
  Bytes fresh = crypto::random_bytes(16);
  std::string second(fresh.begin(), fresh.end());
  QPDFObjectHandle id = trailer.getKey("/ID");
  std::string first = id.isArray() && id.getArrayNItems() >= 1 && id.getArrayItem(0).isString()
                          ? id.getArrayItem(0).getStringValue()
                          : second;
  keys += "/ID[" + hex_string(first) + hex_string(second) + "]";
  keys += "/Prev " + std::to_string(prev);
  return keys;
}

// Writes the byte range, which leaves out the /Contents string, into its blank.
void fill_byte_range(PreparedSignature& prepared, std::size_t byte_range_at) {
  std::uint64_t total = prepared.total();
  prepared.byte_range = {0, prepared.contents, prepared.contents_end,
                         total - prepared.contents_end};
  std::string br = "[0 " + std::to_string(prepared.byte_range[1]) + " " +
                   std::to_string(prepared.byte_range[2]) + " " +
                   std::to_string(prepared.byte_range[3]) + "]";
  br.resize(kByteRangeWidth, ' ');
  std::copy(br.begin(), br.end(), prepared.update.begin() + static_cast<long>(byte_range_at));
}

}  // namespace

PreparedSignature prepare_signature(Document& doc, const SignatureRequest& request) {
  Document::Impl& d = doc.impl();
  PreparedSignature prepared;
  d.guarded([&] {
    QPDFObjectHandle trailer = d.qpdf.getTrailer();
    QPDFObjectHandle root = trailer.getKey("/Root");
    if (!root.isIndirect() || !root.isDictionary())
      throw PdfError("the PDF document " + d.name + " is damaged: it has no document catalog");
    QPDFObjectHandle acro = root.getKey("/AcroForm");
    const NewObjects n =
        number_new_objects(d.qpdf, trailer, !request.appearance_text.empty(), acro.isDictionary(),
                           doc.xref_kind() == XrefKind::Stream);
    QPDFObjectHandle page = first_page(root, d.name);
    prepared.field = free_field_name(acro);

    Writer w;
    w.base = doc.size();
    if (!doc.ends_with_eol()) w.out += "\n";
    const Placeholders at = write_signature_dictionary(w, n.sig, request);
    write_widget(w, n, page, prepared.field, request.appearance_text);
    add_to_page(w, page, n.widget);
    add_to_form(w, root, n.form, n.widget);
    std::string keys = trailer_keys(trailer, root, n.size, doc.last_xref_offset());
    if (n.xref_stream)
      write_stream(w, n.xref_stream, keys);
    else
      write_table(w, keys);

    prepared.base = w.base;
    prepared.contents = w.base + at.contents;
    prepared.contents_end = prepared.contents + 2 * request.contents_size + 2;
    prepared.update.assign(w.out.begin(), w.out.end());
    fill_byte_range(prepared, at.byte_range);
  });
  return prepared;
}

void put_contents(PreparedSignature& prepared, const Bytes& cms) {
  std::size_t room = static_cast<std::size_t>(prepared.contents_end - prepared.contents - 2);
  if (2 * cms.size() > room)
    throw Exception("the signature (" + std::to_string(cms.size()) +
                    " bytes) does not fit the space reserved for it (" + std::to_string(room / 2) +
                    " bytes)");
  static const char kHex[] = "0123456789ABCDEF";
  auto at = prepared.update.begin() + static_cast<long>(prepared.contents - prepared.base + 1);
  for (std::uint8_t b : cms) {
    *at++ = static_cast<std::uint8_t>(kHex[b >> 4]);
    *at++ = static_cast<std::uint8_t>(kHex[b & 15]);
  }
}

void append_update(const std::string& path, const PreparedSignature& prepared) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) throw EFOpenError("Cannot open file \"" + path + "\". " + std::strerror(errno));
  auto fail = [&](const std::string& why) {
    ::close(fd);
    throw EInOutError("I/O error writing \"" + path + "\": " + why);
  };
  struct stat st {};
  if (::fstat(fd, &st) != 0) fail(std::strerror(errno));
  if (static_cast<std::uint64_t>(st.st_size) != prepared.base)
    fail("the file changed while it was being signed");
  const std::uint8_t* p = prepared.update.data();
  std::size_t left = prepared.update.size();
  auto at = static_cast<off_t>(prepared.base);
  while (left) {
    ssize_t n = ::pwrite(fd, p, left, at);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) fail(n < 0 ? std::strerror(errno) : "nothing written");
    p += n;
    at += n;
    left -= static_cast<std::size_t>(n);
  }
  if (::close(fd) != 0)
    throw EInOutError("I/O error writing \"" + path + "\": " + std::strerror(errno));
}

}  // namespace tessarel::pdf
