// Password and PIN sources as written on the command line: "env:VAR", "file:PATH", "fd:N",
// or "pass:" for the empty password. Kept free of the command-line parser so that it can be
// fuzzed on its own.
#pragma once

#include <string>

namespace tessarel::cli {

struct PasswordSource {
  enum class Kind { Empty, Env, File, Fd };
  Kind kind = Kind::Empty;
  std::string argument;  // the variable's name, the path, or the descriptor as written
  int fd = -1;
};

// What is wrong with a source given on the command line, "" when nothing is. A PIN has no
// empty form, so pass: is refused for it.
std::string password_source_problem(const std::string& source, bool pin);

// Parses a source; raises tessarel::Exception naming purpose when it is malformed.
PasswordSource parse_password_source(const std::string& source, const std::string& purpose);

// Reads the password a parsed source gives: the variable's value, or the first line of the
// file or descriptor (LF or CR LF ends it).
std::string read_password_from(const PasswordSource& source, const std::string& purpose);

// The first line of what a descriptor holds, read a byte at a time so that nothing after it
// is consumed.
std::string first_line_of_fd(int fd, const std::string& what);

}  // namespace tessarel::cli
