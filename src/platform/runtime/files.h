// File helpers: read-only inputs, created outputs, atomic replacement, temporary files,
// and the path functions the archive uses. Errors carry the path and the system's reason.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tessarel/types.h"

namespace tessarel {

// True when a file (not a directory) exists at path; symbolic links are followed, so a
// link counts when its target exists.
bool FileExists(const std::string& path);
bool DirectoryExists(const std::string& path);
// Creates the folder and every missing parent; false when that is not possible.
bool ForceDirectories(const std::string& path);

// Path pieces, '/' separated.
std::string ExtractFileName(const std::string& path);  // "a/b.txt" -> "b.txt"
std::string ExtractFileDir(const std::string& path);   // "a/b.txt" -> "a"
std::string ExtractFileExt(const std::string& path);   // "a/b.txt" -> ".txt"
// The path without its last extension: "x.xml.p7m" -> "x.xml".
std::string RemoveLastExt(const std::string& path);
std::string ExecutableDir();

// Same file (device and inode), symbolic links followed; false when either is missing.
bool SameFile(const std::string& a, const std::string& b);

// What a file is on disk right now: a replacement by rename or any write changes it.
struct FileStamp {
  bool exists = false;
  std::uint64_t device = 0, inode = 0, size = 0;
  std::int64_t mtime_ns = 0, ctime_ns = 0;
  bool operator==(const FileStamp&) const = default;
};
FileStamp StampOf(const std::string& path);
// The same for an open file.
FileStamp StampOfFd(int fd);

// An exclusive advisory lock (flock) on a lock file, created when missing. The kernel
// releases it when the process ends, however it ends. The holder may remove the lock file:
// a waiter that then gets the lock of the removed file notices and takes the lock file
// that is there now, so two holders never exist.
class FileLock {
 public:
  // Waits at most timeout for the lock; on_wait is called once when it must wait. Returns
  // null when the timeout passes. EFCreateError when the lock file cannot be opened.
  static std::unique_ptr<FileLock> Acquire(const std::string& path,
                                           std::chrono::milliseconds timeout,
                                           const std::function<void()>& on_wait = {});
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  // Removes the lock file (while the lock is still held); false when it is not there.
  bool remove_file();

 private:
  FileLock(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}
  int fd_;
  std::string path_;
};

// Writes the dirty data of one file system to disk (syncfs) in a background thread while
// work goes on, so that the flush that must finish before an index is written finds little
// left. Writeback errors are kept and raised by finish().
class FileSystemFlush {
 public:
  FileSystemFlush() = default;
  ~FileSystemFlush();
  FileSystemFlush(const FileSystemFlush&) = delete;
  FileSystemFlush& operator=(const FileSystemFlush&) = delete;

  // Starts a flush of the file system holding folder unless one is running. The first
  // call opens the folder; errors of writeback from then on are reported by finish().
  void start(const std::string& folder);
  // Waits for a running flush, flushes once more and raises EInOutError naming folder when
  // writing back failed at any time since the first start (or since the last finish).
  void finish(const std::string& folder);

 private:
  void wait() noexcept;
  int fd_ = -1;
  std::thread thread_;
  std::atomic<bool> running_{false};
  std::atomic<int> error_{0};
};

// A file opened read-only: what is only read must be readable from read-only media.
class InputFile {
 public:
  // What to do with an input that is not a regular file (a pipe, a terminal, a socket).
  enum class Streams {
    AsIs,   // read it as it comes; size() is 0
    Spool,  // read it to its end into an anonymous temporary file first, so that the
            // size and random access that readers of envelopes need work as for a file
  };
  // EFOpenError naming the path and the reason when the file cannot be opened.
  explicit InputFile(const std::string& path, Streams streams = Streams::AsIs);
  ~InputFile();
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  std::uint64_t size() const;
  // Reads up to n bytes; 0 at the end. EInOutError on a read error.
  std::size_t read(void* buffer, std::size_t n);
  // Reads exactly n bytes at offset; EInOutError when the file is shorter.
  void pread_exact(void* buffer, std::size_t n, std::uint64_t offset);
  const std::string& path() const { return path_; }
  int fd() const { return fd_; }

 private:
  std::string path_;
  int fd_ = -1;
};

// A file created (or truncated) for writing through its descriptor.
class OutputFile {
 public:
  // EFCreateError naming the path and the reason when the file cannot be created.
  explicit OutputFile(const std::string& path, mode_t mode = 0666);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  void close();
  const std::string& path() const { return path_; }
  int fd() const { return fd_; }

 private:
  std::string path_;
  int fd_ = -1;
};

// Writes a file that takes the target's place on commit, so readers and crashes see the old
// file or the new one, never a part. Where the file system allows it the file has no name
// until then (nothing is left behind by a crash, and a new target costs one directory
// entry instead of a temporary one and a rename); elsewhere it is written under a random
// temporary name in the target's folder and renamed over the target. Without commit the
// file is gone.
class AtomicFileWriter {
 public:
  AtomicFileWriter(const std::string& target, mode_t mode = 0666);
  ~AtomicFileWriter();
  AtomicFileWriter(const AtomicFileWriter&) = delete;
  AtomicFileWriter& operator=(const AtomicFileWriter&) = delete;

  void write(const void* data, std::size_t n);
  void write(const Bytes& data) { write(data.data(), data.size()); }
  void write(const std::string& data) { write(data.data(), data.size()); }
  // fsync, put in place of the target, fsync the folder. With durable false the data is
  // not forced to disk first (the replacement is still atomic for every reader and for
  // errors).
  void commit(bool durable = true);
  // A path that opens the file being written (until commit).
  const std::string& temp_path() const { return temp_; }
  // The file's descriptor, for writers that copy inside the kernel.
  int fd() const { return fd_; }

 private:
  void create_named(mode_t mode);
  bool link_into_place();
  void copy_to_named();
  std::string target_;
  std::string temp_;
  int fd_ = -1;
  bool unnamed_ = false;
  bool committed_ = false;
};

// Refuses (EFCreateError naming the output and the input) an output that is one of the
// inputs. Only a regular file is refused: writing to a terminal or device that is also read
// destroys nothing.
void RefuseOutputOntoInputs(const std::string& output, const std::vector<GuardedInput>& inputs);
// The same for an open output descriptor (standard output); name is how messages call it.
void RefuseOutputOntoInputs(int fd, const std::string& name,
                            const std::vector<GuardedInput>& inputs);

// Writes an output the way a user expects a named file to be written: a new path, or a
// regular file with a single link, is replaced atomically on commit (keeping the existing
// file's mode and owner); a symbolic link is followed to the file it names; anything else
// (a device, a FIFO, a file with several hard links) is written into as it is, a regular
// file being cut to the new length only on commit. An output that is one of the inputs is
// refused before anything is opened. A new file gets new_mode (less the umask).
class OutputReplacement {
 public:
  explicit OutputReplacement(const std::string& target,
                             const std::vector<GuardedInput>& inputs = {}, mode_t new_mode = 0666);
  ~OutputReplacement();
  OutputReplacement(const OutputReplacement&) = delete;
  OutputReplacement& operator=(const OutputReplacement&) = delete;

  void write(const void* data, std::size_t n);
  int fd() const;
  // True when the content goes to a new regular file that is renamed into place on commit;
  // temp_path() is then that file, which the caller may also read and rewrite.
  bool replaces() const { return atomic_ != nullptr; }
  const std::string& temp_path() const;
  // Puts the new content in place. With durable, the data and the rename are forced to disk.
  void commit(bool durable = false);

 private:
  std::string target_;
  std::unique_ptr<AtomicFileWriter> atomic_;
  int in_place_fd_ = -1;
  bool in_place_regular_ = false;
};

Bytes ReadFileBytes(const std::string& path);
// Everything left in a stream.
Bytes ReadStream(std::istream& in);
std::string ReadFileText(const std::string& path);
void WriteFileAtomic(const std::string& path, const void* data, std::size_t n, mode_t mode = 0666);
// Copies every byte of source onto dest (created or truncated). Times and modes are not
// carried over.
void CopyFileStream(const std::string& source, const std::string& dest);
// Appends every byte of an open input to an open output descriptor (inside the kernel
// where the file systems allow it).
void CopyAll(InputFile& in, int out_fd, const std::string& out_name);
// Appends length bytes of in_fd from offset to out_fd inside the kernel. False, with nothing
// written, when the kernel cannot copy between these two files (the caller copies itself).
bool CopyRange(int in_fd, std::uint64_t offset, std::uint64_t length, int out_fd,
               const std::string& out_name);
// A new, empty, uniquely named file in the system temporary folder; returns its path.
std::string MakeTempFile(const std::string& prefix = "tessarel");
// fsync of a folder, so a rename in it is durable.
void SyncDirectory(const std::string& dir);

}  // namespace tessarel
