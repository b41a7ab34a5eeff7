// tessarel cert pick [--ca]: the certificate picker; prints the chosen idCert.
#include <cstdlib>

#include "cli.h"
#include "tessarel/tessarel.h"

namespace tessarel::cli {
namespace {

CommandRegistration reg(22, [](CLI::App& app) {
  auto* cert = app.get_subcommand("cert");
  static bool ca = false;
  auto* pick =
      cert->add_subcommand("pick", "Choose a certificate interactively; prints its identifier");
  pick->add_flag("--ca", ca,
                 "List only certificates with digital signature and key encipherment usage");
  on_run(pick, [] {
    char* result = nullptr;
    SelezionaCertificato(&result, ca);
    if (result && *result) {
      std::printf("%s\n", result);
    } else {
      error("no certificate chosen");
    }
    std::free(result);
  });
});

}  // namespace
}  // namespace tessarel::cli
