#include "platform/runtime/files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <istream>
#include <memory>
#include <system_error>
#include <vector>

#include "platform/runtime/scope.h"
#include "tessarel/errors.h"

namespace tessarel {

namespace {
std::string reason(int err) {
  return std::strerror(err);
}

[[noreturn]] void throw_open(const std::string& path, int err) {
  throw EFOpenError("Cannot open file \"" + path + "\". " + reason(err));
}
[[noreturn]] void throw_create(const std::string& path, int err) {
  throw EFCreateError("Cannot create file \"" + path + "\". " + reason(err));
}
[[noreturn]] void throw_io(const std::string& op, const std::string& path, int err) {
  throw EInOutError("I/O error " + op + " \"" + path + "\": " + reason(err));
}

void write_all(int fd, const void* data, std::size_t n, const std::string& path) {
  auto p = static_cast<const char*>(data);
  while (n) {
    ssize_t w = ::write(fd, p, n);
    if (w < 0) {
      if (errno == EINTR) continue;
      throw_io("writing", path, errno);
    }
    p += w;
    n -= static_cast<std::size_t>(w);
  }
}
}  // namespace

bool FileExists(const std::string& path) {
  struct stat st {};
  return !path.empty() && ::stat(path.c_str(), &st) == 0 && !S_ISDIR(st.st_mode);
}

bool DirectoryExists(const std::string& path) {
  struct stat st {};
  return !path.empty() && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool ForceDirectories(const std::string& path) {
  if (path.empty()) return false;
  std::error_code ec;
  std::filesystem::create_directories(path, ec);
  return DirectoryExists(path);
}

std::string ExtractFileName(const std::string& path) {
  auto pos = path.find_last_of('/');
  return pos == std::string::npos ? path : path.substr(pos + 1);
}

std::string ExtractFileDir(const std::string& path) {
  auto pos = path.find_last_of('/');
  if (pos == std::string::npos) return "";
  if (pos == 0) return "/";
  return path.substr(0, pos);
}

std::string ExtractFileExt(const std::string& path) {
  std::string name = ExtractFileName(path);
  auto pos = name.find_last_of('.');
  return pos == std::string::npos ? "" : name.substr(pos);
}

std::string RemoveLastExt(const std::string& path) {
  std::string ext = ExtractFileExt(path);
  return path.substr(0, path.size() - ext.size());
}

std::string ExecutableDir() {
  std::error_code ec;
  auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec) return std::filesystem::current_path().string();
  return exe.parent_path().string();
}

namespace {
FileStamp stamp_of(const struct stat& st) {
  FileStamp out;
  out.exists = true;
  out.device = st.st_dev;
  out.inode = st.st_ino;
  out.size = static_cast<std::uint64_t>(st.st_size);
  out.mtime_ns = static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  out.ctime_ns = static_cast<std::int64_t>(st.st_ctim.tv_sec) * 1000000000 + st.st_ctim.tv_nsec;
  return out;
}
}  // namespace

FileStamp StampOf(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return {};
  return stamp_of(st);
}

FileStamp StampOfFd(int fd) {
  struct stat st {};
  if (::fstat(fd, &st) != 0) return {};
  return stamp_of(st);
}

std::unique_ptr<FileLock> FileLock::Acquire(const std::string& path,
                                            std::chrono::milliseconds timeout,
                                            const std::function<void()>& on_wait) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  bool waited = false;
  while (true) {
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    // Someone who may only read the folder can still take a lock on an existing file.
    if (fd < 0 && errno == EACCES) fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    // Where no lock file can be made, no writer can replace anything either (read-only
    // media, a folder without write permission): there is nobody to keep out.
    if (fd < 0 && (errno == EROFS || errno == EACCES))
      return std::unique_ptr<FileLock>(new FileLock(-1, path));
    if (fd < 0) throw_create(path, errno);
    while (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
      int err = errno;
      if (err == EINTR) continue;
      if (err != EWOULDBLOCK) {
        ::close(fd);
        throw_io("locking", path, err);
      }
      if (std::chrono::steady_clock::now() >= deadline) {
        ::close(fd);
        return nullptr;
      }
      if (!waited && on_wait) on_wait();
      waited = true;
      ::usleep(20000);
    }
    // The holder before may have removed the file while this one waited for it: its lock
    // keeps nobody out any more.
    struct stat held {
    }, named{};
    if (::fstat(fd, &held) == 0 && ::stat(path.c_str(), &named) == 0 &&
        held.st_dev == named.st_dev && held.st_ino == named.st_ino)
      return std::unique_ptr<FileLock>(new FileLock(fd, path));
    ::close(fd);
  }
}

FileLock::~FileLock() {
  if (fd_ >= 0) ::close(fd_);  // closing the descriptor releases the lock
}

bool FileLock::remove_file() {
  if (fd_ < 0) return false;
  return ::unlink(path_.c_str()) == 0;
}

bool SameFile(const std::string& a, const std::string& b) {
  struct stat sa {
  }, sb{};
  return ::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev &&
         sa.st_ino == sb.st_ino;
}

namespace {
// Reads a stream to its end into an anonymous file, which disappears with its descriptor.
int spool_stream(int in, const std::string& path) {
  const char* tmp = std::getenv("TMPDIR");
  std::string dir = (tmp && *tmp) ? tmp : "/tmp";
  int out = ::open(dir.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (out < 0) {
    std::string name = MakeTempFile("tessarel-input");
    out = ::open(name.c_str(), O_RDWR | O_CLOEXEC);
    ::unlink(name.c_str());
    if (out < 0) throw_create(name, errno);
  }
  constexpr std::size_t kChunk = 1 << 16;
  std::unique_ptr<char[]> buf(new char[kChunk]);
  try {
    while (true) {
      ssize_t n = ::read(in, buf.get(), kChunk);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) throw_io("reading", path, errno);
      if (n == 0) break;
      write_all(out, buf.get(), static_cast<std::size_t>(n), "a temporary copy of " + path);
    }
  } catch (...) {
    ::close(out);
    throw;
  }
  return out;
}
}  // namespace

InputFile::InputFile(const std::string& path, Streams streams) : path_(path) {
  fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd_ < 0) throw_open(path, errno);
  struct stat st {};
  if (::fstat(fd_, &st) == 0 && S_ISDIR(st.st_mode)) {
    ::close(fd_);
    fd_ = -1;
    throw_open(path, EISDIR);
  }
  if (streams == Streams::Spool && !S_ISREG(st.st_mode) && !S_ISBLK(st.st_mode)) {
    int spooled = -1;
    try {
      spooled = spool_stream(fd_, path);
    } catch (...) {
      ::close(fd_);
      fd_ = -1;
      throw;
    }
    ::close(fd_);
    fd_ = spooled;
  }
}

InputFile::~InputFile() {
  if (fd_ >= 0) ::close(fd_);
}

std::uint64_t InputFile::size() const {
  struct stat st {};
  if (::fstat(fd_, &st) != 0) throw_io("reading", path_, errno);
  return static_cast<std::uint64_t>(st.st_size);
}

std::size_t InputFile::read(void* buffer, std::size_t n) {
  while (true) {
    ssize_t r = ::read(fd_, buffer, n);
    if (r >= 0) return static_cast<std::size_t>(r);
    if (errno != EINTR) throw_io("reading", path_, errno);
  }
}

void InputFile::pread_exact(void* buffer, std::size_t n, std::uint64_t offset) {
  auto p = static_cast<char*>(buffer);
  while (n) {
    ssize_t r = ::pread(fd_, p, n, static_cast<off_t>(offset));
    if (r < 0) {
      if (errno == EINTR) continue;
      throw_io("reading", path_, errno);
    }
    if (r == 0) throw EInOutError("I/O error reading \"" + path_ + "\": unexpected end of file");
    p += r;
    n -= static_cast<std::size_t>(r);
    offset += static_cast<std::uint64_t>(r);
  }
}

OutputFile::OutputFile(const std::string& path, mode_t mode) : path_(path) {
  fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd_ < 0) throw_create(path, errno);
}

OutputFile::~OutputFile() {
  if (fd_ >= 0) ::close(fd_);
}

void OutputFile::close() {
  if (fd_ < 0) return;
  int fd = fd_;
  fd_ = -1;
  if (::close(fd) != 0) throw_io("writing", path_, errno);
}

namespace {
// A random temporary name beside target: its folder's path, a dot, the target's name.
std::string temp_name_base(const std::string& target) {
  std::string dir = ExtractFileDir(target);
  return (dir.empty() ? std::string() : dir + "/") + "." + ExtractFileName(target) + ".tmp-";
}

std::string random_suffix(const std::string& target) {
  static const char kChars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  unsigned char rnd[6];
  if (::getentropy(rnd, sizeof rnd) != 0) throw_create(target, errno);
  std::string s;
  for (unsigned char r : rnd)
    s.push_back(kChars[r % 62]);
  return s;
}

// Unnamed files are linked into place through /proc/self/fd; without it they cannot be.
bool proc_fd_available() {
  static const bool available = ::access("/proc/self/fd", X_OK) == 0;
  return available;
}
}  // namespace

AtomicFileWriter::AtomicFileWriter(const std::string& target, mode_t mode) : target_(target) {
  if (proc_fd_available()) {
    std::string dir = ExtractFileDir(target);
    // The file gets its final mode here (the umask applies), so it needs no chmod.
    fd_ = ::open(dir.empty() ? "." : dir.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, mode);
    if (fd_ >= 0) {
      unnamed_ = true;
      temp_ = "/proc/self/fd/" + std::to_string(fd_);
      return;
    }
    // Folders that do not exist or cannot be written fail alike with a name; file systems
    // without unnamed files say so in several ways and get a named temporary file.
    if (errno == ENOENT || errno == EACCES || errno == EROFS || errno == ENOSPC ||
        errno == EDQUOT || errno == ENOTDIR)
      throw_create(target, errno);
  }
  create_named(mode);
}

void AtomicFileWriter::create_named(mode_t mode) {
  std::string base = temp_name_base(target_);
  // The name is random, and O_EXCL makes sure it is new.
  for (int attempt = 0; attempt < 100 && fd_ < 0; ++attempt) {
    temp_ = base + random_suffix(target_);
    fd_ = ::open(temp_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd_ < 0 && errno != EEXIST) throw_create(target_, errno);
  }
  if (fd_ < 0) throw_create(target_, EEXIST);
}

AtomicFileWriter::~AtomicFileWriter() {
  if (fd_ >= 0) ::close(fd_);
  // An unnamed file disappears with its descriptor.
  if (!committed_ && !unnamed_) ::unlink(temp_.c_str());
}

void AtomicFileWriter::write(const void* data, std::size_t n) {
  write_all(fd_, data, n, target_);
}

// Gives the unnamed file the target's name: a new target is its first name, an existing one
// is replaced by a rename from a temporary name beside it. False, with nothing changed, when
// this system cannot link the file (a sandbox without /proc's links).
bool AtomicFileWriter::link_into_place() {
  if (::linkat(AT_FDCWD, temp_.c_str(), AT_FDCWD, target_.c_str(), AT_SYMLINK_FOLLOW) == 0)
    return true;
  if (errno != EEXIST) return false;
  std::string base = temp_name_base(target_);
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::string name = base + random_suffix(target_);
    if (::linkat(AT_FDCWD, temp_.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) != 0) {
      if (errno == EEXIST) continue;
      return false;
    }
    if (::rename(name.c_str(), target_.c_str()) != 0) {
      int err = errno;
      ::unlink(name.c_str());
      throw_create(target_, err);
    }
    return true;
  }
  throw_create(target_, EEXIST);
}

// The unnamed file's bytes, mode and owner go to a named temporary file beside the target,
// which the writer holds from then on.
void AtomicFileWriter::copy_to_named() {
  int unnamed = fd_;
  fd_ = -1;
  ScopeExit close_unnamed([unnamed] { ::close(unnamed); });
  struct stat st {};
  if (::fstat(unnamed, &st) != 0) throw_io("writing", target_, errno);
  unnamed_ = false;
  create_named(st.st_mode & 07777);
  if (::fchown(fd_, st.st_uid, st.st_gid) != 0 && errno != EPERM) throw_create(target_, errno);
  if (::fchmod(fd_, st.st_mode & 07777) != 0) throw_create(target_, errno);
  auto size = static_cast<std::uint64_t>(st.st_size);
  if (CopyRange(unnamed, 0, size, fd_, target_)) return;
  constexpr std::size_t kChunk = 1 << 20;
  std::unique_ptr<char[]> buf(new char[kChunk]);
  for (std::uint64_t at = 0; at < size;) {
    ssize_t n = ::pread(unnamed, buf.get(), kChunk, static_cast<off_t>(at));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw_io("writing", target_, n < 0 ? errno : EIO);
    write_all(fd_, buf.get(), static_cast<std::size_t>(n), target_);
    at += static_cast<std::uint64_t>(n);
  }
}

void AtomicFileWriter::commit(bool durable) {
  bool linked = false;
  if (unnamed_) {
    if (durable && ::fsync(fd_) != 0) throw_io("writing", target_, errno);
    linked = link_into_place();
    if (!linked) copy_to_named();
  }
  if (!linked && durable && ::fsync(fd_) != 0) throw_io("writing", target_, errno);
  int fd = fd_;
  fd_ = -1;
  if (::close(fd) != 0) throw_io("writing", target_, errno);
  if (!linked && ::rename(temp_.c_str(), target_.c_str()) != 0) throw_create(target_, errno);
  committed_ = true;
  if (!durable) return;
  std::string dir = ExtractFileDir(target_);
  SyncDirectory(dir.empty() ? "." : dir);
}

FileSystemFlush::~FileSystemFlush() {
  wait();
  if (fd_ >= 0) ::close(fd_);
}

void FileSystemFlush::wait() noexcept {
  if (thread_.joinable()) thread_.join();
}

void FileSystemFlush::start(const std::string& folder) {
  if (running_) return;
  wait();
  if (fd_ < 0) fd_ = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd_ < 0) return;  // finish() says why
  running_ = true;
  try {
    thread_ = std::thread([this] {
      if (::syncfs(fd_) != 0) error_ = errno;
      running_ = false;
    });
  } catch (const std::system_error&) {
    // No thread: finish() does all the work.
    running_ = false;
  }
}

void FileSystemFlush::finish(const std::string& folder) {
  wait();
  int fd = fd_;
  fd_ = -1;
  if (fd < 0) fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) throw_io("writing", folder, errno);
  int err = ::syncfs(fd) != 0 ? errno : error_.load();
  error_ = 0;
  ::close(fd);
  if (err != 0) throw_io("writing", folder, err);
}

namespace {
void refuse_identity(const struct stat& out, const std::string& message_start,
                     const std::vector<GuardedInput>& inputs) {
  if (!S_ISREG(out.st_mode)) return;
  for (const auto& input : inputs) {
    struct stat in {};
    if (input.path.empty() || ::stat(input.path.c_str(), &in) != 0) continue;
    if (in.st_dev == out.st_dev && in.st_ino == out.st_ino)
      throw EFCreateError(message_start + " It is " + input.what);
  }
}
}  // namespace

void RefuseOutputOntoInputs(const std::string& output, const std::vector<GuardedInput>& inputs) {
  struct stat out {};
  if (::stat(output.c_str(), &out) != 0) return;
  refuse_identity(out, "Cannot create file \"" + output + "\".", inputs);
}

void RefuseOutputOntoInputs(int fd, const std::string& name,
                            const std::vector<GuardedInput>& inputs) {
  struct stat out {};
  if (::fstat(fd, &out) != 0) return;
  refuse_identity(out, "Cannot write to " + name + ".", inputs);
}

OutputReplacement::OutputReplacement(const std::string& target,
                                     const std::vector<GuardedInput>& inputs, mode_t new_mode)
    : target_(target) {
  std::string path = target;
  struct stat st {};
  bool present = ::lstat(path.c_str(), &st) == 0;
  if (!present && errno == ENOENT) {
    // Nothing there yet (the usual case): nothing to refuse, keep or follow.
    atomic_ = std::make_unique<AtomicFileWriter>(path, new_mode);
    return;
  }
  RefuseOutputOntoInputs(target, inputs);
  if (present && S_ISLNK(st.st_mode)) {
    // The link stays; the file it names gets the content.
    std::error_code ec;
    auto resolved = std::filesystem::canonical(path, ec);
    if (!ec) path = resolved.string();
  }
  bool exists = ::stat(path.c_str(), &st) == 0;
  if (exists && S_ISDIR(st.st_mode)) throw_create(target, EISDIR);
  if (!exists && ::lstat(path.c_str(), &st) == 0) {
    // A link that names nothing yet: writing through it creates its target.
    in_place_fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, new_mode);
    if (in_place_fd_ < 0) throw_create(target, errno);
    return;
  }
  if (!exists || (S_ISREG(st.st_mode) && st.st_nlink == 1)) {
    atomic_ = std::make_unique<AtomicFileWriter>(path, new_mode);
    if (exists) {
      // The replacement keeps what the user set on the file it replaces.
      if (::fchown(atomic_->fd(), st.st_uid, st.st_gid) != 0 && errno != EPERM)
        throw_create(target, errno);
      if (::fchmod(atomic_->fd(), st.st_mode & 07777) != 0) throw_create(target, errno);
    }
    return;
  }
  // Devices, FIFOs and hard-linked files are written where they are. A regular file keeps
  // its old content until the new one is complete, so a refusal or a failure before the
  // first byte leaves it as it was.
  in_place_regular_ = S_ISREG(st.st_mode);
  in_place_fd_ = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (in_place_fd_ < 0) throw_create(target, errno);
}

OutputReplacement::~OutputReplacement() {
  if (in_place_fd_ >= 0) ::close(in_place_fd_);
}

void OutputReplacement::write(const void* data, std::size_t n) {
  if (atomic_)
    atomic_->write(data, n);
  else
    write_all(in_place_fd_, data, n, target_);
}

int OutputReplacement::fd() const {
  return atomic_ ? atomic_->fd() : in_place_fd_;
}

const std::string& OutputReplacement::temp_path() const {
  static const std::string none;
  return atomic_ ? atomic_->temp_path() : none;
}

void OutputReplacement::commit(bool durable) {
  if (atomic_) {
    atomic_->commit(durable);
    return;
  }
  int fd = in_place_fd_;
  in_place_fd_ = -1;
  if (fd < 0) return;
  if (in_place_regular_) {
    off_t end = ::lseek(fd, 0, SEEK_CUR);
    if (end < 0 || ::ftruncate(fd, end) != 0 || (durable && ::fsync(fd) != 0)) {
      int err = errno;
      ::close(fd);
      throw_io("writing", target_, err);
    }
  }
  if (::close(fd) != 0) throw_io("writing", target_, errno);
}

void SyncDirectory(const std::string& dir) {
  int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

Bytes ReadFileBytes(const std::string& path) {
  InputFile in(path);
  Bytes out;
  std::uint64_t size = in.size();
  out.resize(static_cast<std::size_t>(size));
  if (size) in.pread_exact(out.data(), out.size(), 0);
  return out;
}

Bytes ReadStream(std::istream& in) {
  Bytes out;
  char chunk[64 * 1024];
  while (in.read(chunk, sizeof chunk) || in.gcount() > 0)
    out.insert(out.end(), chunk, chunk + in.gcount());
  return out;
}

std::string ReadFileText(const std::string& path) {
  Bytes b = ReadFileBytes(path);
  return std::string(b.begin(), b.end());
}

void WriteFileAtomic(const std::string& path, const void* data, std::size_t n, mode_t mode) {
  AtomicFileWriter w(path, mode);
  w.write(data, n);
  w.commit();
}

void CopyAll(InputFile& in, int out_fd, const std::string& out_name) {
  // Inside the kernel first: no user-space buffer, and a reflink where the file system has one.
  bool first = true;
  while (true) {
    ssize_t n = ::copy_file_range(in.fd(), nullptr, out_fd, nullptr, std::size_t{1} << 30, 0);
    if (n > 0) {
      first = false;
      continue;
    }
    if (n == 0) return;
    if (errno == EINTR) continue;
    if (first && (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP))
      break;
    // The kernel does not say which side failed; space and size limits belong to the output.
    if (errno == ENOSPC || errno == EDQUOT || errno == EFBIG) throw_io("writing", out_name, errno);
    throw_io("copying " + in.path() + " to", out_name, errno);
  }
  // Uninitialised on purpose: read() fills every byte that write_all() sends.
  constexpr std::size_t kChunk = 1 << 20;
  std::unique_ptr<char[]> buf(new char[kChunk]);
  while (std::size_t n = in.read(buf.get(), kChunk))
    write_all(out_fd, buf.get(), n, out_name);
}

bool CopyRange(int in_fd, std::uint64_t offset, std::uint64_t length, int out_fd,
               const std::string& out_name) {
  loff_t in_off = static_cast<loff_t>(offset);
  std::uint64_t left = length;
  while (left) {
    ssize_t n =
        ::copy_file_range(in_fd, &in_off, out_fd, nullptr,
                          static_cast<std::size_t>(std::min<std::uint64_t>(left, 1u << 30)), 0);
    if (n > 0) {
      left -= static_cast<std::uint64_t>(n);
      continue;
    }
    if (n == 0) throw EInOutError("I/O error writing \"" + out_name + "\": the input ended early");
    if (errno == EINTR) continue;
    // Pipes, other file systems, append-only outputs: the caller copies through a buffer.
    if (left == length && (errno == EXDEV || errno == ENOSYS || errno == EINVAL ||
                           errno == EOPNOTSUPP || errno == EBADF))
      return false;
    throw_io("writing", out_name, errno);
  }
  return true;
}

void CopyFileStream(const std::string& source, const std::string& dest) {
  InputFile in(source);
  OutputFile out(dest);
  CopyAll(in, out.fd(), dest);
  out.close();
}

std::string MakeTempFile(const std::string& prefix) {
  const char* tmp = std::getenv("TMPDIR");
  std::string dir = (tmp && *tmp) ? tmp : "/tmp";
  std::string tmpl = dir + "/" + prefix + "-XXXXXX";
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  int fd = ::mkostemp(buf.data(), O_CLOEXEC);
  if (fd < 0) throw_create(tmpl, errno);
  ::close(fd);
  return buf.data();
}

}  // namespace tessarel
