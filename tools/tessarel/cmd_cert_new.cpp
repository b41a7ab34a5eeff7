// tessarel cert new --cn NAME [...]: a self-signed certificate with its key, from options.
#include "cli.h"
#include "tessarel/tessarel.h"

namespace tessarel::cli {
namespace {

struct NewArgs {
  bool interactive = false;
  NewCertificateOptions o;
  std::string key = "rsa";
  std::string digest = "sha256";
};

void run_wizard() {
  if (std::string(currentUi().name()) == "none") {
    error("the certificate wizard needs a terminal (stdin is not one, or --ui none was given)");
    return;
  }
  TfrmGenerateCert wizard(personal_store());
  currentUi().certificate_wizard(wizard);
  if (wizard.generated_certificate().empty()) {
    error("no certificate generated");
    return;
  }
  Certificate c = Certificate::from_der(wizard.generated_certificate());
  std::printf("%s\n", c.id().c_str());
  info("added \"" + wizard.cert_commonName() + "\" to " + personal_store()->location());
}

void run(NewArgs& a) {
  if (a.interactive) {
    run_wizard();
    return;
  }
  a.o.key = a.key == "ec"        ? KeyKind::Ec
            : a.key == "dsa"     ? KeyKind::Dsa
            : a.key == "rsa-pss" ? KeyKind::RsaPss
                                 : KeyKind::Rsa;
  a.o.digest = a.digest == "sha384"   ? DigestAlgorithm::SHA384
               : a.digest == "sha512" ? DigestAlgorithm::SHA512
                                      : DigestAlgorithm::SHA256;
  auto store = personal_store();
  info("generating the key pair...");
  Certificate c = CreateSelfSignedCertificate(a.o, *store);
  std::printf("%s\n", c.id().c_str());
  info("added " + c.subject_text() + " to " + store->location());
}

CommandRegistration reg(21, [](CLI::App& app) {
  static NewArgs args;
  auto* cert = app.get_subcommand("cert");
  auto* cmd = cert->add_subcommand(
      "new", "Generate a key pair and a self-signed certificate into the store");
  cmd->add_flag("--interactive", args.interactive,
                "Run the certificate wizard on the terminal instead");
  cmd->add_option("--cn", args.o.common_name,
                  "Common name (the holder's name); required without --interactive");
  cmd->add_option("--org", args.o.organization, "Organization");
  cmd->add_option("--ou", args.o.organizational_unit, "Organizational unit");
  cmd->add_option("--country", args.o.country, "Country, two upper-case letters (IT, DE, ...)");
  cmd->add_option("--locality", args.o.locality, "City");
  cmd->add_option("--state", args.o.state, "State or province");
  cmd->add_option("--email", args.o.email, "E-mail address");
  cmd->add_option("--key", args.key, "Key kind: rsa (default), rsa-pss, ec, dsa")
      ->check(CLI::IsMember({"rsa", "rsa-pss", "ec", "dsa"}));
  cmd->add_option("--bits", args.o.bits, "Key size (default 2048; EC 256)");
  cmd->add_option("--digest", args.digest, "Signature digest: sha256 (default), sha384, sha512")
      ->check(CLI::IsMember({"sha256", "sha384", "sha512"}));
  cmd->add_option("--days", args.o.days, "Validity in days (default 48 months)");
  // Bad option values are usage errors, found before any key is generated.
  cmd->callback([] {
    if (args.interactive) return;
    NewCertificateOptions o = args.o;
    o.key = args.key == "ec" ? KeyKind::Ec : args.key == "dsa" ? KeyKind::Dsa : KeyKind::Rsa;
    std::string problem = CheckNewCertificateOptions(o);
    if (!problem.empty()) throw CLI::ValidationError("cert new", problem);
  });
  on_run(cmd, [] { run(args); });
});

DemoStep step(20, "A self-signed certificate in the private store", [](DemoContext& ctx) {
  auto store = personal_store();
  for (const auto& c : store->certificates()) {
    if (c.subject_cn() == "Mario Rossi (demo)" && store->key_valid(c)) {
      ctx.values["cert_id"] = c.id();
      ctx.values["cert_cn"] = c.subject_cn();
      std::printf("Reusing %s  %s\n", c.id().c_str(), c.subject_text().c_str());
      return;
    }
  }
  NewCertificateOptions o;
  o.common_name = "Mario Rossi (demo)";
  o.organization = "Studio Rossi";
  o.country = "IT";
  o.locality = "Milano";
  o.email = "mario.rossi@example.org";
  Certificate c = CreateSelfSignedCertificate(o, *store);
  ctx.values["cert_id"] = c.id();
  ctx.values["cert_cn"] = c.subject_cn();
  std::string pem = ctx.dir + "/demo-certificate.pem";
  if (std::FILE* f = std::fopen(pem.c_str(), "w")) {
    std::fputs(c.pem().c_str(), f);
    std::fclose(f);
  }
  std::printf(
      "idCert %s\n%s\nvalid until %s\n", c.id().c_str(), c.subject_text().c_str(),
      std::to_string(
          std::chrono::year_month_day{std::chrono::floor<std::chrono::days>(c.not_after())}.year().
          operator int())
          .c_str());
  ctx.checks.push_back("openssl verify -CAfile " + pem + " " + pem);
  ctx.checks.push_back("openssl x509 -in " + pem + " -noout -text");
});

}  // namespace
}  // namespace tessarel::cli
