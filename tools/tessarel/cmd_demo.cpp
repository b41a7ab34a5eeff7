// tessarel demo [DIR]: the main job end to end, on a private store inside DIR, so the
// user's own certificates are never touched.
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>

#include "cli.h"
#include "tessarel/tessarel.h"

namespace tessarel::cli {
namespace {

void run(std::string dir) {
  if (dir.empty()) dir = "tessarel-demo";
  std::filesystem::create_directories(dir);
  dir = std::filesystem::canonical(dir).string();
  DemoContext ctx;
  ctx.dir = dir;
  ctx.store = dir + "/store";
  set_store_location(ctx.store);
  std::printf("Demo folder: %s\nPrivate certificate store: %s\n", dir.c_str(), ctx.store.c_str());
  run_demo(ctx);
  if (!ctx.checks.empty()) {
    std::printf("\n== Check the results yourself ==\n");
    for (const auto& c : ctx.checks)
      std::printf("  %s\n", c.c_str());
  }
  std::printf("\nDemo finished.\n");
}

CommandRegistration reg(1, [](CLI::App& app) {
  static std::string dir;
  auto* cmd = app.add_subcommand("demo", "Run the main job end to end on a private demo store");
  cmd->add_option("DIR", dir, "Folder for the demo's files and store (default: ./tessarel-demo)");
  on_run(cmd, [] { run(dir); });
});

}  // namespace
}  // namespace tessarel::cli
