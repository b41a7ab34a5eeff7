// Fuzzes the command line's password-source parser and the first-line reader behind
// file: and fd: sources. The input's first line is the source as written; the rest is what
// the descriptor holds.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "password_source.h"
#include "tessarel/errors.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tessarel;
  std::string input(reinterpret_cast<const char*>(data), size);
  auto nl = input.find('\n');
  std::string source = input.substr(0, nl);
  std::string rest = nl == std::string::npos ? "" : input.substr(nl + 1);
  for (bool pin : {false, true})
    cli::password_source_problem(source, pin);
  try {
    cli::PasswordSource s = cli::parse_password_source(source, "fuzzing");
    // Only the empty form may come from the command line itself.
    if (s.kind == cli::PasswordSource::Kind::Empty && source != "pass:") __builtin_trap();
    if (!cli::password_source_problem(source, false).empty()) __builtin_trap();
  } catch (const Exception&) {
  }
  int fd = ::memfd_create("password", MFD_CLOEXEC);
  if (fd < 0) std::abort();
  if (::write(fd, rest.data(), rest.size()) != static_cast<ssize_t>(rest.size())) std::abort();
  ::lseek(fd, 0, SEEK_SET);
  cli::PasswordSource from_fd;
  from_fd.kind = cli::PasswordSource::Kind::Fd;
  from_fd.fd = fd;
  std::string line = cli::read_password_from(from_fd, "fuzzing");
  // One line, without its end.
  if (line.find('\n') != std::string::npos) __builtin_trap();
  ::close(fd);
  return 0;
}
