#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "cli.h"
#include "password_source.h"
#include "tessarel/tessarel.h"

namespace tessarel::cli {

std::optional<std::string> read_password(const std::string& source, const std::string& purpose) {
  if (source.empty()) {
    TPasswordRequestForm form;
    if (currentUi().password(form) != ModalResult::Ok) return std::nullopt;
    std::string pw = form.edtPassword;  // the form wipes its own copy
    return pw;
  }
  return read_password_from(parse_password_source(source, purpose), purpose);
}

std::string source_file(const std::string& source) {
  if (source.rfind("file:", 0) == 0) return source.substr(5);
  if (source.rfind("fd:", 0) == 0) return "/proc/self/fd/" + source.substr(3);
  return {};
}

CLI::Validator password_source() {
  return CLI::Validator([](std::string& value) { return password_source_problem(value, false); },
                        "SRC");
}

CLI::Validator pin_source() {
  return CLI::Validator([](std::string& value) { return password_source_problem(value, true); },
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

std::optional<Bytes> read_whole_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  Bytes out;
  char chunk[64 * 1024];
  while (in.read(chunk, sizeof chunk) || in.gcount() > 0)
    out.insert(out.end(), chunk, chunk + in.gcount());
  return out;
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
