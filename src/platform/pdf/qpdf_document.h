// The qpdf side of Document, shared by the files of this folder only: nothing outside
// platform/pdf includes this header.
#pragma once

#include <qpdf/InputSource.hh>
#include <qpdf/QPDF.hh>
#include <qpdf/QPDFObjectHandle.hh>

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "platform/pdf/pdf_document.h"

namespace tessarel::pdf {

// A file (read with pread through a small window, never held whole) or bytes in memory,
// optionally cut short at a length, as qpdf's input.
class RangeInputSource : public InputSource {
 public:
  // Reads `size` bytes of an open descriptor (owned: closed with the source).
  RangeInputSource(std::string name, int fd, std::uint64_t size);
  // Reads `size` bytes at data (not owned).
  RangeInputSource(std::string name, const std::uint8_t* data, std::uint64_t size);
  ~RangeInputSource() override;
  RangeInputSource(const RangeInputSource&) = delete;
  RangeInputSource& operator=(const RangeInputSource&) = delete;

  qpdf_offset_t findAndSkipNextEOL() override;
  std::string const& getName() const override { return name_; }
  qpdf_offset_t tell() override { return pos_; }
  void seek(qpdf_offset_t offset, int whence) override;
  void rewind() override { pos_ = 0; }
  size_t read(char* buffer, size_t length) override;
  void unreadCh(char ch) override;

  std::uint64_t size() const { return size_; }
  // Copies n bytes at offset (n bytes must be there).
  void read_at(std::uint64_t offset, void* buffer, std::size_t n);

 private:
  static constexpr std::size_t kWindowSize = 64 * 1024;
  // The bytes from offset (offset < size) to the end of what is at hand: the memory, or the
  // window, read there first when it does not hold offset. At least one byte.
  std::pair<const char*, std::size_t> view(std::uint64_t offset);
  void fill_window(std::uint64_t offset);
  void read_direct(void* to, std::size_t len, std::uint64_t at);

  std::string name_;
  int fd_ = -1;
  const std::uint8_t* data_ = nullptr;
  std::uint64_t size_ = 0;
  qpdf_offset_t pos_ = 0;
  std::string window_;
  std::uint64_t window_offset_ = 0;
};

struct Document::Impl {
  std::shared_ptr<RangeInputSource> source;
  QPDF qpdf;
  std::string name;
  XrefKind kind = XrefKind::Table;
  std::uint64_t startxref = 0;
  bool eol = true;

  // Runs fn; qpdf's exceptions become PdfError naming the file and saying what is wrong.
  void guarded(const std::function<void()>& fn);
  // The bytes [offset, offset + n) of the file.
  std::string bytes(std::uint64_t offset, std::size_t n);
};

// The object's /Type (or, for a stream, the /Type of its dictionary) without the slash; empty
// when there is none.
std::string type_of(QPDFObjectHandle h);
// Short description of an indirect object for messages: "object 12 0 (Page)".
std::string describe(QPDFObjectHandle h);

}  // namespace tessarel::pdf
