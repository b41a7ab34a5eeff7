#include "platform/pdf/pdf_document.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <qpdf/QPDFExc.hh>
#include <qpdf/QPDFXRefEntry.hh>
#include "platform/pdf/qpdf_document.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

#include "platform/pdf/qpdf_document.h"

namespace tessarel::pdf {

// ---- RangeInputSource ----

RangeInputSource::RangeInputSource(std::string name, int fd, std::uint64_t size)
    : name_(std::move(name)), fd_(fd), size_(size) {}

RangeInputSource::RangeInputSource(std::string name, const std::uint8_t* data, std::uint64_t size)
    : name_(std::move(name)), data_(data), size_(size) {}

RangeInputSource::~RangeInputSource() {
  if (fd_ >= 0) ::close(fd_);
}

void RangeInputSource::fill_window(std::uint64_t offset) {
  std::size_t len = static_cast<std::size_t>(std::min<std::uint64_t>(kWindowSize, size_ - offset));
  window_.resize(len);
  read_direct(window_.data(), len, offset);
  window_offset_ = offset;
}

void RangeInputSource::read_direct(void* to, std::size_t len, std::uint64_t at) {
  auto* p = static_cast<char*>(to);
  while (len) {
    ssize_t r = ::pread(fd_, p, len, static_cast<off_t>(at));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0)
      throw std::runtime_error(
          name_ + ": cannot read: " + (r < 0 ? std::strerror(errno) : "unexpected end of file"));
    p += r;
    at += static_cast<std::uint64_t>(r);
    len -= static_cast<std::size_t>(r);
  }
}

std::pair<const char*, std::size_t> RangeInputSource::view(std::uint64_t offset) {
  if (data_)
    return {reinterpret_cast<const char*>(data_) + offset,
            static_cast<std::size_t>(size_ - offset)};
  if (window_.empty() || offset < window_offset_ || offset >= window_offset_ + window_.size())
    fill_window(offset);
  std::size_t at = static_cast<std::size_t>(offset - window_offset_);
  return {window_.data() + at, window_.size() - at};
}

void RangeInputSource::read_at(std::uint64_t offset, void* out, std::size_t n) {
  if (offset > size_ || n > size_ - offset)
    throw std::runtime_error(name_ + ": read past the end of the file");
  if (data_) {
    if (n) std::memcpy(out, data_ + offset, n);
    return;
  }
  if (n > kWindowSize / 2) {
    read_direct(out, n, offset);
    return;
  }
  if (window_.empty() || offset < window_offset_ || offset + n > window_offset_ + window_.size())
    fill_window(offset);
  std::memcpy(out, window_.data() + (offset - window_offset_), n);
}

void RangeInputSource::seek(qpdf_offset_t offset, int whence) {
  qpdf_offset_t base = 0;
  if (whence == SEEK_END)
    base = static_cast<qpdf_offset_t>(size_);
  else if (whence == SEEK_CUR)
    base = pos_;
  else if (whence != SEEK_SET)
    throw std::logic_error("RangeInputSource::seek: bad whence");
  qpdf_offset_t to = 0;
  // Offsets come from the file itself, so they may be anything.
  if (__builtin_add_overflow(base, offset, &to) || to < 0)
    throw std::runtime_error(name_ + ": offset out of range");
  pos_ = to;
}

size_t RangeInputSource::read(char* out, size_t length) {
  auto pos = static_cast<std::uint64_t>(pos_);
  if (pos >= size_) {
    last_offset = static_cast<qpdf_offset_t>(size_);
    return 0;
  }
  last_offset = pos_;
  std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(length, size_ - pos));
  read_at(pos, out, n);
  pos_ += static_cast<qpdf_offset_t>(n);
  return n;
}

void RangeInputSource::unreadCh(char) {
  if (pos_ > 0) --pos_;
}

qpdf_offset_t RangeInputSource::findAndSkipNextEOL() {
  auto end = static_cast<std::uint64_t>(size_);
  if (pos_ >= static_cast<qpdf_offset_t>(end)) {
    last_offset = static_cast<qpdf_offset_t>(end);
    pos_ = static_cast<qpdf_offset_t>(end);
    return pos_;
  }
  auto at = static_cast<std::uint64_t>(pos_);
  auto eol_char = [](char c) { return c == '\r' || c == '\n'; };
  // Scanned where the bytes already are: cross-reference tables are read line by line, and
  // a copy per line would cost more than the table itself.
  while (at < end) {
    auto [p, n] = view(at);
    const char* hit = std::find_if(p, p + n, eol_char);
    if (hit == p + n) {
      at += n;
      continue;
    }
    std::uint64_t eol = at + static_cast<std::uint64_t>(hit - p);
    std::uint64_t next = eol + 1;
    while (next < end) {
      auto [q, k] = view(next);
      std::size_t skip = static_cast<std::size_t>(std::find_if_not(q, q + k, eol_char) - q);
      next += skip;
      if (skip < k) break;
    }
    pos_ = static_cast<qpdf_offset_t>(next);
    return static_cast<qpdf_offset_t>(eol);
  }
  pos_ = static_cast<qpdf_offset_t>(end);
  return pos_;
}

// ---- helpers ----

std::string type_of(QPDFObjectHandle h) {
  QPDFObjectHandle d = h.isStream() ? h.getDict() : h;
  if (!d.isDictionary()) return {};
  QPDFObjectHandle t = d.getKey("/Type");
  return t.isName() ? t.getName().substr(1) : std::string();
}

std::string describe(QPDFObjectHandle h) {
  std::string s =
      "object " + std::to_string(h.getObjectID()) + " " + std::to_string(h.getGeneration());
  std::string t = type_of(h);
  if (!t.empty())
    s += " (" + t + ")";
  else if (h.isStream())
    s += " (a stream)";
  return s;
}

bool ends_revision(const std::string& tail) {
  std::string t = tail;
  while (!t.empty() && (t.back() == '\n' || t.back() == '\r'))
    t.pop_back();
  // At most one line break after the marker: "\n", "\r" or "\r\n".
  std::size_t eol = tail.size() - t.size();
  if (eol > 2 || (eol == 2 && tail.substr(tail.size() - 2) != "\r\n")) return false;
  return t.size() >= 5 && t.compare(t.size() - 5, 5, "%%EOF") == 0;
}

void Document::Impl::guarded(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const PdfError&) {
    throw;
  } catch (const QPDFExc& e) {
    std::string detail = e.getMessageDetail();
    std::string where;
    if (!e.getObject().empty()) where += " in " + e.getObject();
    if (e.getFilePosition() > 0) where += " at offset " + std::to_string(e.getFilePosition());
    throw PdfError("the PDF document " + name + " is damaged: " + detail + where);
  } catch (const std::exception& e) {
    throw PdfError("the PDF document " + name + " is damaged: " + e.what());
  }
}

std::string Document::Impl::bytes(std::uint64_t offset, std::size_t n) {
  std::string s(n, '\0');
  source->read_at(offset, s.data(), n);
  return s;
}

namespace {

// The startxref value from the last kilobyte of the file, or nullopt when there is none.
std::optional<std::uint64_t> find_startxref(const std::string& tail) {
  std::size_t at = tail.rfind("startxref");
  if (at == std::string::npos) return std::nullopt;
  std::size_t i = at + 9;
  while (i < tail.size() && std::strchr(" \t\r\n\f", tail[i]) && tail[i] != '\0')
    ++i;
  std::uint64_t v = 0;
  std::size_t digits = 0;
  while (i < tail.size() && tail[i] >= '0' && tail[i] <= '9' && digits < 19) {
    v = v * 10 + static_cast<std::uint64_t>(tail[i] - '0');
    ++i;
    ++digits;
  }
  if (digits == 0) return std::nullopt;
  return v;
}

std::unique_ptr<Document::Impl> open_source(std::shared_ptr<RangeInputSource> source,
                                            const std::string& name) {
  auto impl = std::make_unique<Document::Impl>();
  impl->source = source;
  impl->name = name;
  std::uint64_t size = source->size();
  if (size == 0) throw PdfError(name + " is empty: it is not a PDF document");
  std::string head = impl->bytes(0, static_cast<std::size_t>(std::min<std::uint64_t>(size, 1024)));
  if (head.find("%PDF-") == std::string::npos)
    throw PdfError(name + " is not a PDF document (it has no %PDF- header)");
  std::size_t tail_len = static_cast<std::size_t>(std::min<std::uint64_t>(size, 1024));
  std::string tail = impl->bytes(size - tail_len, tail_len);
  auto startxref = find_startxref(tail);
  if (!startxref)
    throw PdfError("the PDF document " + name +
                   " is truncated or damaged: it does not end with a startxref line");
  if (*startxref >= size)
    throw PdfError("the PDF document " + name + " is damaged: its cross-reference offset (" +
                   std::to_string(*startxref) + ") points past the end of the file (" +
                   std::to_string(size) + " bytes)");
  impl->startxref = *startxref;
  char last = tail.empty() ? '\n' : tail.back();
  impl->eol = last == '\n' || last == '\r';

  QPDF& q = impl->qpdf;
  q.setSuppressWarnings(true);
  q.setAttemptRecovery(false);
  try {
    q.processInputSource(source);
  } catch (const QPDFExc& e) {
    // An encrypted document whose user password is not empty cannot even be opened.
    if (e.getErrorCode() == qpdf_e_password || tail.find("/Encrypt") != std::string::npos)
      throw PdfEncryptedError();
    impl->guarded([&] { throw; });
  } catch (const std::exception& e) {
    throw PdfError("the PDF document " + name + " is damaged: " + e.what());
  }
  if (q.isEncrypted()) throw PdfEncryptedError();
  impl->guarded([&] {
    if (q.getTrailer().hasKey("/Encrypt")) throw PdfEncryptedError();
    for (const auto& [og, entry] : q.getXRefTable()) {
      if (entry.getType() == 1 && static_cast<std::uint64_t>(entry.getOffset()) >= size)
        throw PdfError("the PDF document " + name + " is damaged: the cross-reference table " +
                       "puts object " + std::to_string(og.getObj()) + " at offset " +
                       std::to_string(entry.getOffset()) + ", past the end of the file (" +
                       std::to_string(size) + " bytes)");
    }
    if (!q.getRoot().isDictionary())
      throw PdfError("the PDF document " + name + " is damaged: it has no document catalog");
    std::string at =
        impl->bytes(impl->startxref,
                    static_cast<std::size_t>(std::min<std::uint64_t>(4, size - impl->startxref)));
    if (at == "xref")
      impl->kind = q.getTrailer().hasKey("/XRefStm") ? XrefKind::Hybrid : XrefKind::Table;
    else
      impl->kind = XrefKind::Stream;
  });
  return impl;
}

}  // namespace

Document::Document(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Document::~Document() = default;

std::unique_ptr<Document> Document::open(const std::string& path,
                                         std::optional<std::uint64_t> length,
                                         const std::string& display_name) {
  std::string name = display_name.empty() ? path : display_name;
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw EFOpenError("Cannot open file \"" + path + "\". " + std::strerror(errno));
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    int err = errno;
    ::close(fd);
    throw EFOpenError("Cannot open file \"" + path + "\". " +
                      (S_ISDIR(st.st_mode) ? "Is a directory" : std::strerror(err)));
  }
  auto size = static_cast<std::uint64_t>(st.st_size);
  if (length) size = std::min(size, *length);
  auto source = std::make_shared<RangeInputSource>(name, fd, size);
  return std::unique_ptr<Document>(new Document(open_source(source, name)));
}

std::unique_ptr<Document> Document::open_memory(const std::uint8_t* data, std::size_t size,
                                                const std::string& display_name) {
  auto source = std::make_shared<RangeInputSource>(display_name, data, size);
  return std::unique_ptr<Document>(new Document(open_source(source, display_name)));
}

std::uint64_t Document::size() const {
  return impl_->source->size();
}
XrefKind Document::xref_kind() const {
  return impl_->kind;
}
std::uint64_t Document::last_xref_offset() const {
  return impl_->startxref;
}
bool Document::ends_with_eol() const {
  return impl_->eol;
}
const std::string& Document::display_name() const {
  return impl_->name;
}

// ---- signatures ----

namespace {

constexpr int kMaxFieldDepth = 32;

std::string text_of(QPDFObjectHandle h) {
  return h.isString() ? h.getUTF8Value() : std::string();
}

void collect_signatures(QPDFObjectHandle fields, const std::string& parent,
                        const std::string& inherited_type, int depth, std::set<QPDFObjGen>& seen,
                        std::vector<SignatureInfo>& out) {
  if (!fields.isArray() || depth > kMaxFieldDepth) return;
  for (int i = 0; i < fields.getArrayNItems(); ++i) {
    QPDFObjectHandle f = fields.getArrayItem(i);
    if (!f.isDictionary()) continue;
    if (f.isIndirect() && !seen.insert(f.getObjGen()).second) continue;
    std::string partial = text_of(f.getKey("/T"));
    std::string name = parent.empty() ? partial : partial.empty() ? parent : parent + "." + partial;
    QPDFObjectHandle ft = f.getKey("/FT");
    std::string type = ft.isName() ? ft.getName() : inherited_type;
    QPDFObjectHandle kids = f.getKey("/Kids");
    bool has_field_kids = false;
    if (kids.isArray())
      for (int k = 0; k < kids.getArrayNItems(); ++k)
        if (kids.getArrayItem(k).isDictionary() && kids.getArrayItem(k).hasKey("/T"))
          has_field_kids = true;
    if (has_field_kids) {
      collect_signatures(kids, name, type, depth + 1, seen, out);
      continue;
    }
    QPDFObjectHandle v = f.getKey("/V");
    if (type != "/Sig" || !v.isDictionary()) continue;
    SignatureInfo s;
    s.field = name;
    if (f.isIndirect()) s.field_id = {f.getObjectID(), f.getGeneration()};
    if (v.isIndirect()) s.value_id = {v.getObjectID(), v.getGeneration()};
    QPDFObjectHandle filter = v.getKey("/Filter");
    QPDFObjectHandle sub = v.getKey("/SubFilter");
    if (filter.isName()) s.filter = filter.getName().substr(1);
    if (sub.isName()) s.sub_filter = sub.getName().substr(1);
    QPDFObjectHandle br = v.getKey("/ByteRange");
    if (br.isArray()) {
      for (int k = 0; k < br.getArrayNItems(); ++k) {
        QPDFObjectHandle n = br.getArrayItem(k);
        if (!n.isInteger()) {
          s.byte_range.clear();
          break;
        }
        s.byte_range.push_back(n.getIntValue());
      }
    }
    QPDFObjectHandle contents = v.getKey("/Contents");
    if (contents.isString()) {
      std::string c = contents.getStringValue();
      s.contents.assign(c.begin(), c.end());
    }
    s.name = text_of(v.getKey("/Name"));
    s.reason = text_of(v.getKey("/Reason"));
    QPDFObjectHandle m = v.getKey("/M");
    if (m.isString()) s.signing_time = m.getStringValue();
    out.push_back(std::move(s));
  }
}

}  // namespace

std::vector<SignatureInfo> Document::signatures() {
  std::vector<SignatureInfo> out;
  impl_->guarded([&] {
    QPDFObjectHandle acro = impl_->qpdf.getRoot().getKey("/AcroForm");
    if (!acro.isDictionary()) return;
    std::set<QPDFObjGen> seen;
    collect_signatures(acro.getKey("/Fields"), "", "", 0, seen, out);
  });
  return out;
}

}  // namespace tessarel::pdf
