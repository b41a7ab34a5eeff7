#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "cli.h"
#include "tessarel/tessarel.h"

namespace tessarel::cli {

namespace {
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

const char* const kNoPasswordOnCommandLine =
    "a password on the command line is visible to other users; give it as env:VAR, "
    "file:PATH or fd:N (pass: alone is the empty password)";

[[noreturn]] void unknown_source(const std::string& kind, const std::string& purpose) {
  throw Exception("Password source '" + kind + "' for " + purpose +
                  " is not one of env:VAR, file:PATH, fd:N or pass: (empty)");
}
}  // namespace

std::optional<std::string> read_password(const std::string& source, const std::string& purpose) {
  if (source.empty()) {
    TPasswordRequestForm form;
    if (currentUi().password(form) != ModalResult::Ok) return std::nullopt;
    std::string pw = form.edtPassword;  // the form wipes its own copy
    return pw;
  }
  auto colon = source.find(':');
  std::string kind = source.substr(0, colon);
  std::string arg = colon == std::string::npos ? "" : source.substr(colon + 1);
  if (colon == std::string::npos) unknown_source(kind, purpose);
  if (kind == "pass") {
    // Command lines are visible to every user of the machine (ps, /proc): only the empty
    // password may be written there.
    if (!arg.empty()) throw Exception(kNoPasswordOnCommandLine);
    return arg;
  }
  if (kind == "env") {
    const char* v = std::getenv(arg.c_str());
    if (!v)
      throw Exception("Environment variable " + arg + " (password for " + purpose + ") is not set");
    return std::string(v);
  }
  if (kind == "file") {
    int fd = ::open(arg.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
      throw Exception("Cannot open password file \"" + arg + "\": " + std::strerror(errno));
    std::string pw = first_line_of_fd(fd, "\"" + arg + "\"");
    ::close(fd);
    return pw;
  }
  if (kind == "fd") {
    char* end = nullptr;
    long fd = std::strtol(arg.c_str(), &end, 10);
    if (arg.empty() || *end || fd < 0)
      throw Exception("Password source fd:" + arg + " is not a descriptor number");
    return first_line_of_fd(static_cast<int>(fd), "descriptor " + arg);
  }
  unknown_source(kind, purpose);
}

std::string source_file(const std::string& source) {
  if (source.rfind("file:", 0) == 0) return source.substr(5);
  if (source.rfind("fd:", 0) == 0) return "/proc/self/fd/" + source.substr(3);
  return {};
}

CLI::Validator password_source() {
  return CLI::Validator(
      [](std::string& value) -> std::string {
        if (value.rfind("pass:", 0) == 0) return value == "pass:" ? "" : kNoPasswordOnCommandLine;
        for (const char* prefix : {"env:", "file:", "fd:"})
          if (value.rfind(prefix, 0) == 0) return {};
        return "password source must be env:VAR, file:PATH, fd:N or pass: (the empty password)";
      },
      "SRC");
}

CLI::Validator pin_source() {
  return CLI::Validator(
      [](std::string& value) -> std::string {
        for (const char* prefix : {"env:", "file:", "fd:"})
          if (value.rfind(prefix, 0) == 0) return {};
        return "PIN source must be env:VAR, file:PATH or fd:N (a PIN on the command line would "
               "be visible to other users)";
      },
      "SRC");
}

namespace {
std::optional<std::string>& cached_pin() {
  static std::optional<std::string> pin;
  return pin;
}
}  // namespace

void use_pin_source(const std::string& source) {
  set_pin_provider([source](const std::string& token) -> std::optional<std::string> {
    auto& pin = cached_pin();
    if (!pin) pin = read_password(source, "the PIN of token " + token);
    return pin;
  });
}

void forget_pin() {
  set_pin_provider(nullptr);
  if (cached_pin()) wipe(*cached_pin());
  cached_pin().reset();
}

std::string json_string(const std::string& s) {
  std::string out = "\"";
  for (unsigned char c : s) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", c);
          out += buf;
        } else {
          out.push_back(static_cast<char>(c));
        }
    }
  }
  return out + "\"";
}

namespace {
struct StepEntry {
  int order;
  std::string title;
  std::function<void(DemoContext&)> run;
};
std::vector<StepEntry>& steps() {
  static std::vector<StepEntry> s;
  return s;
}
}  // namespace

DemoStep::DemoStep(int order, std::string title, std::function<void(DemoContext&)> run) {
  steps().push_back({order, std::move(title), std::move(run)});
}

void run_demo(DemoContext& ctx) {
  auto& all = steps();
  std::stable_sort(all.begin(), all.end(),
                   [](const auto& a, const auto& b) { return a.order < b.order; });
  int n = 0;
  for (auto& step : all) {
    std::printf("\n== %d. %s ==\n", ++n, step.title.c_str());
    std::fflush(stdout);
    step.run(ctx);
    std::fflush(stdout);
  }
}

}  // namespace tessarel::cli
