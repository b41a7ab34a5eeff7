// tessarel sign | verify | extract: CMS envelopes.
#include <sys/stat.h>

#include "cli.h"
#include "tessarel/tessarel.h"

namespace tessarel::cli {
namespace {

bool exists(const std::string& p) {
  struct stat st {};
  return ::stat(p.c_str(), &st) == 0 && !S_ISDIR(st.st_mode);
}

bool regular_file(const std::string& p) {
  struct stat st {};
  return ::stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

void sign(const std::vector<std::string>& files, const std::string& cert, bool detached) {
  std::vector<std::string> missing;
  for (const auto& f : files)
    if (!exists(f)) missing.push_back(f);
  // Progress for several files, or for one large file.
  bool progress = files.size() > 1 || (files.size() == 1 && !missing.size());
  auto out = SignFiles(files, cert, detached, progress);
  for (std::size_t i = 0; i < out.size() && i < files.size(); ++i) {
    if (out[i] == files[i])
      error("not signed, no such file: " + files[i]);
    else
      std::printf("%s\n", out[i].c_str());
  }
}

void print_report(const EnvelopeReport& r) {
  if (json()) {
    std::printf("{\"valid\": %s, \"detached\": %s, \"content_size\": %llu, \"problems\": [",
                r.valid ? "true" : "false", r.detached ? "true" : "false",
                static_cast<unsigned long long>(r.content_size));
    for (std::size_t i = 0; i < r.problems.size(); ++i)
      std::printf("%s%s", i ? ", " : "", json_string(r.problems[i]).c_str());
    std::printf("],\n \"signers\": [");
    for (std::size_t i = 0; i < r.signers.size(); ++i) {
      const auto& s = r.signers[i];
      std::printf(
          "%s\n  {\"index\": %d, \"certificate\": %s, \"subject\": %s, \"issuer\": %s, \"digest\": "
          "%s, "
          "\"signing_time\": %s,\n   \"signature_valid\": %s, \"digest_matches\": %s, "
          "\"content_type_matches\": %s, "
          "\"signing_certificate_present\": %s, \"signing_certificate_matches\": %s, "
          "\"cades_bes\": %s, \"digest_checked\": %s, \"weak_algorithm\": %s, \"problems\": [",
          i ? "," : "", s.index, json_string(s.certificate_id).c_str(),
          json_string(s.subject).c_str(), json_string(s.issuer).c_str(),
          json_string(s.digest_algorithm).c_str(), json_string(s.signing_time).c_str(),
          s.signature_valid ? "true" : "false", s.digest_matches ? "true" : "false",
          s.content_type_matches ? "true" : "false",
          s.signing_certificate_present ? "true" : "false",
          s.signing_certificate_matches ? "true" : "false", s.cades_bes ? "true" : "false",
          s.digest_checked ? "true" : "false",
          s.weak_algorithm.empty() ? "null" : json_string(s.weak_algorithm).c_str());
      for (std::size_t k = 0; k < s.problems.size(); ++k)
        std::printf("%s%s", k ? ", " : "", json_string(s.problems[k]).c_str());
      std::printf("]}");
    }
    std::printf("\n ]}\n");
    return;
  }
  std::printf("%s (%s, %llu bytes of content)\n", r.valid ? "VALID" : "NOT VALID",
              r.detached ? "detached" : "attached",
              static_cast<unsigned long long>(r.content_size));
  for (const auto& p : r.problems)
    std::printf("  problem: %s\n", p.c_str());
  for (const auto& s : r.signers) {
    std::printf("signer %d: %s\n", s.index,
                s.subject.empty() ? "(certificate not found)" : s.subject.c_str());
    if (!s.certificate_id.empty())
      std::printf("  certificate: %s, issued by %s\n", s.certificate_id.c_str(), s.issuer.c_str());
    std::printf("  digest: %s   signed: %s   CAdES-BES: %s\n", s.digest_algorithm.c_str(),
                s.signing_time.empty() ? "(no signing time)" : s.signing_time.c_str(),
                s.cades_bes ? "yes" : "no");
    std::printf(
        "  signature value: %s   content digest: %s   content type: %s   signing certificate: %s\n",
        s.signature_valid ? "ok" : "FAILED",
        !s.digest_checked  ? "not checked: no content given"
        : s.digest_matches ? "ok"
                           : "FAILED",
        s.content_type_matches ? "ok" : "FAILED",
        !s.signing_certificate_present  ? "absent"
        : s.signing_certificate_matches ? "ok"
                                        : "FAILED");
    if (!s.weak_algorithm.empty())
      std::printf(
          "  warning: %s is a weak digest algorithm: collisions can be made, so the "
          "signature proves less than it seems\n",
          s.weak_algorithm.c_str());
    for (const auto& p : s.problems)
      std::printf("  problem: %s\n", p.c_str());
  }
}

// "-" names standard input; anything else is a path (pipes such as <(cmd) included).
std::string input_path(const std::string& name) {
  return name == "-" ? "/dev/stdin" : name;
}

void verify(const std::string& given, std::string content) {
  std::string envelope = input_path(given);
  if (!content.empty()) content = input_path(content);
  if (given == "-" && content == "/dev/stdin") {
    error("the envelope and its content cannot both come from standard input");
    return;
  }
  // A detached signature's data lies beside it, as x.pdf for x.pdf.p7s.
  if (content.empty() && given != "-" && regular_file(envelope) && envelope.size() > 4) {
    std::string base = envelope.substr(0, envelope.rfind('.'));
    if (envelope.rfind('.') != std::string::npos && exists(base)) {
      EnvelopeReport probe = VerifyEnvelope(envelope);
      if (probe.detached) content = base;
    }
  }
  EnvelopeReport r = VerifyEnvelope(envelope, content);
  print_report(r);
  if (!r.valid) set_exit_code(1);
}

void extract(const std::string& given, std::string output) {
  std::string envelope = input_path(given);
  if (output.empty()) {
    auto dot = given.rfind('.');
    auto slash = given.rfind('/');
    if (given == "-" || dot == std::string::npos || (slash != std::string::npos && dot < slash)) {
      error("cannot derive the output name from " + given +
            ": give -o FILE (or -o - for "
            "standard output)");
      return;
    }
    output = given.substr(0, dot);
  }
  if (output == "-") {
    std::fflush(stdout);
    std::uint64_t n = ExtractEnvelopeContentToFd(envelope, 1);
    info("extracted " + std::to_string(n) + " bytes");
    return;
  }
  std::uint64_t n = ExtractEnvelopeContent(envelope, output);
  std::printf("%s\n", output.c_str());
  info("extracted " + std::to_string(n) + " bytes");
}

// An input given on the command line: "-" or something that can be opened for reading.
CLI::Validator readable_input() {
  return CLI::Validator(
      [](std::string& value) -> std::string {
        if (value == "-") return {};
        struct stat st {};
        if (::stat(value.c_str(), &st) != 0) return "No such file: " + value;
        if (S_ISDIR(st.st_mode)) return "Is a directory: " + value;
        return {};
      },
      "FILE|-");
}

CommandRegistration reg(30, [](CLI::App& app) {
  static std::vector<std::string> files;
  static std::string cert;
  static bool detached = false;
  auto* s = app.add_subcommand(
      "sign", "Sign files into CMS/CAdES-BES envelopes (FILE.p7m, or FILE.p7s with --detached)");
  s->add_option("FILE", files, "Files to sign")->required();
  s->add_option("--cert", cert, "Certificate identifier (default: the first of the store)");
  s->add_flag("--detached", detached, "Write detached signatures (.p7s) without the content");
  on_run(s, [] { sign(files, cert, detached); });

  static std::string envelope, content;
  auto* v = app.add_subcommand(
      "verify", "Check an envelope's signatures cryptographically; exit 1 when it does not verify");
  v->add_option("ENVELOPE", envelope, "The .p7m or .p7s file (- for standard input)")
      ->required()
      ->check(readable_input());
  v->add_option("--content", content,
                "The signed data of a detached signature (default: the envelope's name without its "
                "extension); with an attached envelope, checked to be the same bytes")
      ->check(readable_input());
  v->add_flag("--json", globals().json, "Output as JSON");
  on_run(v, [] { verify(envelope, content); });

  static std::string in, out;
  auto* x = app.add_subcommand("extract", "Write the content of an attached envelope to a file");
  x->add_option("ENVELOPE", in, "The .p7m file (- for standard input)")
      ->required()
      ->check(readable_input());
  x->add_option("-o,--output", out,
                "Output file (default: the envelope's name without its extension; - for standard "
                "output)");
  on_run(x, [] { extract(in, out); });
});

DemoStep sign_step(60, "Signing the documents into CMS/CAdES-BES envelopes", [](DemoContext& ctx) {
  std::string files = ctx.values["files"];
  std::string id = ctx.values["cert_id"];
  if (files.empty() || id.empty()) {
    std::printf("(no certificate or no sample files)\n");
    return;
  }
  auto attached = SignFiles({files + "/contratto.xml", files + "/fattura.txt"}, id, false, false);
  auto detached = SignFiles({files + "/verbale.txt"}, id, true, false);
  for (const auto& e : attached)
    std::printf("attached: %s\n", e.c_str());
  for (const auto& e : detached)
    std::printf("detached: %s\n", e.c_str());
  std::string pem = ctx.dir + "/demo-certificate.pem";
  ctx.checks.push_back("openssl cms -verify -binary -inform DER -in " + files +
                       "/contratto.xml.p7m -CAfile " + pem + " -purpose any -cades -out /dev/null");
  ctx.checks.push_back("openssl cms -verify -binary -inform DER -in " + files +
                       "/verbale.txt.p7s -content " + files + "/verbale.txt -CAfile " + pem +
                       " -purpose any -cades -out /dev/null");
});

DemoStep verify_step(61, "Verifying the envelopes", [](DemoContext& ctx) {
  std::string files = ctx.values["files"];
  if (files.empty() || ctx.values["cert_id"].empty()) return;
  for (const char* name : {"contratto.xml.p7m", "fattura.txt.p7m", "verbale.txt.p7s"}) {
    std::string path = files + "/" + name;
    std::string content = std::string(name).ends_with(".p7s") ? files + "/verbale.txt" : "";
    EnvelopeReport r = VerifyEnvelope(path, content);
    std::printf("%-20s %s, CAdES-BES %s, signed by %s\n", name, r.valid ? "valid" : "NOT VALID",
                !r.signers.empty() && r.signers[0].cades_bes ? "yes" : "no",
                r.signers.empty() ? "-" : r.signers[0].subject.c_str());
  }
});

}  // namespace
}  // namespace tessarel::cli
