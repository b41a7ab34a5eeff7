#include "password_source.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tessarel/errors.h"

namespace tessarel::cli {

namespace {

const char* const kNoPasswordOnCommandLine =
    "a password on the command line is visible to other users; give it as env:VAR, "
    "file:PATH or fd:N (pass: alone is the empty password)";

bool starts_with(const std::string& s, const char* prefix) {
  return s.rfind(prefix, 0) == 0;
}

}  // namespace

std::string password_source_problem(const std::string& source, bool pin) {
  if (pin) {
    for (const char* prefix : {"env:", "file:", "fd:"})
      if (starts_with(source, prefix)) return {};
    return "PIN source must be env:VAR, file:PATH or fd:N (a PIN on the command line would "
           "be visible to other users)";
  }
  // Command lines are visible to every user of the machine (ps, /proc): only the empty
  // password may be written there.
  if (starts_with(source, "pass:")) return source == "pass:" ? "" : kNoPasswordOnCommandLine;
  for (const char* prefix : {"env:", "file:", "fd:"})
    if (starts_with(source, prefix)) return {};
  return "password source must be env:VAR, file:PATH, fd:N or pass: (the empty password)";
}

PasswordSource parse_password_source(const std::string& source, const std::string& purpose) {
  auto colon = source.find(':');
  std::string kind = source.substr(0, colon);
  PasswordSource s;
  s.argument = colon == std::string::npos ? "" : source.substr(colon + 1);
  if (colon != std::string::npos) {
    if (kind == "pass") {
      if (!s.argument.empty()) throw Exception(kNoPasswordOnCommandLine);
      s.kind = PasswordSource::Kind::Empty;
      return s;
    }
    if (kind == "env") {
      s.kind = PasswordSource::Kind::Env;
      return s;
    }
    if (kind == "file") {
      s.kind = PasswordSource::Kind::File;
      return s;
    }
    if (kind == "fd") {
      char* end = nullptr;
      errno = 0;
      long fd = std::strtol(s.argument.c_str(), &end, 10);
      if (s.argument.empty() || *end || fd < 0 || fd > 1 << 20 || errno)
        throw Exception("Password source fd:" + s.argument + " is not a descriptor number");
      s.kind = PasswordSource::Kind::Fd;
      s.fd = static_cast<int>(fd);
      return s;
    }
  }
  throw Exception("Password source '" + kind + "' for " + purpose +
                  " is not one of env:VAR, file:PATH, fd:N or pass: (empty)");
}

std::string first_line_of_fd(int fd, const std::string& what) {
  std::string line;
  char c;
  while (true) {
    ssize_t r = ::read(fd, &c, 1);
    if (r < 0 && errno == EINTR) continue;
    if (r < 0)
      throw Exception("Cannot read the password from " + what + ": " + std::strerror(errno));
    if (r == 0 || c == '\n') break;
    line.push_back(c);
  }
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

std::string read_password_from(const PasswordSource& source, const std::string& purpose) {
  switch (source.kind) {
    case PasswordSource::Kind::Empty:
      return {};
    case PasswordSource::Kind::Env: {
      const char* v = std::getenv(source.argument.c_str());
      if (!v)
        throw Exception("Environment variable " + source.argument + " (password for " + purpose +
                        ") is not set");
      return v;
    }
    case PasswordSource::Kind::File: {
      int fd = ::open(source.argument.c_str(), O_RDONLY | O_CLOEXEC);
      if (fd < 0)
        throw Exception("Cannot open password file \"" + source.argument +
                        "\": " + std::strerror(errno));
      try {
        std::string pw = first_line_of_fd(fd, "\"" + source.argument + "\"");
        ::close(fd);
        return pw;
      } catch (...) {
        ::close(fd);
        throw;
      }
    }
    case PasswordSource::Kind::Fd:
      return first_line_of_fd(source.fd, "descriptor " + source.argument);
  }
  return {};
}

}  // namespace tessarel::cli
