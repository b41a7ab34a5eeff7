// tessarel hash FILE...: SHA-256 digest text and file name, one line per file.
#include <cstdlib>

#include "cli.h"
#include "tessarel/tessarel.h"

namespace tessarel::cli {
namespace {

void run(const std::vector<std::string>& files) {
  std::string json_out = "[";
  bool first = true;
  for (const auto& f : files) {
    char* result = nullptr;
    try {
      GetHashFileSHA256(&result, f.c_str());
      if (json()) {
        json_out += std::string(first ? "" : ",") + "\n  {\"file\": " + json_string(f) +
                    ", \"sha256\": " + json_string(result) + "}";
        first = false;
      } else {
        std::printf("%s  %s\n", result, f.c_str());
      }
    } catch (const std::exception& e) {
      error(e.what());
    }
    std::free(result);
  }
  if (json()) std::printf("%s\n]\n", json_out.c_str());
}

CommandRegistration reg(10, [](CLI::App& app) {
  auto* cmd =
      app.add_subcommand("hash", "Print the SHA-256 digest of files (upper-case hexadecimal)");
  static std::vector<std::string> files;
  cmd->add_option("FILE", files, "Files to digest")->required();
  cmd->add_flag("--json", globals().json, "Output as JSON");
  on_run(cmd, [] { run(files); });
});

}  // namespace
}  // namespace tessarel::cli
