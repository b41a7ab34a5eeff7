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

const char* yes_no(bool b) {
  return b ? "true" : "false";
}

std::string json_list(const std::vector<std::string>& items) {
  std::string out = "[";
  for (std::size_t i = 0; i < items.size(); ++i)
    out += (i ? ", " : "") + json_string(items[i]);
  return out + "]";
}

std::string json_trust(const TrustReport& t) {
  if (!t.checked) return "{\"checked\": false}";
  return std::string("{\"checked\": true, \"trusted\": ") + yes_no(t.trusted) +
         ", \"reason\": " + json_string(t.reason) +
         ", \"checked_at\": " + json_string(t.checked_at) + ", \"chain\": " + json_list(t.chain) +
         "}";
}

std::string json_signer(const EnvelopeSignerReport& s, const std::string& indent) {
  std::string out =
      indent + "{\"index\": " + std::to_string(s.index) +
      ", \"certificate\": " + json_string(s.certificate_id) +
      ", \"subject\": " + json_string(s.subject) + ", \"issuer\": " + json_string(s.issuer) +
      ", \"digest\": " + json_string(s.digest_algorithm) +
      ", \"signature_algorithm\": " + json_string(s.signature_algorithm) +
      ", \"signing_time\": " + json_string(s.signing_time) + ",\n" + indent +
      " \"valid\": " + yes_no(s.valid) + ", \"signature_valid\": " + yes_no(s.signature_valid) +
      ", \"digest_matches\": " + yes_no(s.digest_matches) +
      ", \"content_type_matches\": " + yes_no(s.content_type_matches) +
      ", \"signing_certificate_present\": " + yes_no(s.signing_certificate_present) +
      ", \"signing_certificate_matches\": " + yes_no(s.signing_certificate_matches) +
      ", \"cades_bes\": " + yes_no(s.cades_bes) +
      ", \"digest_checked\": " + yes_no(s.digest_checked) + ", \"weak_algorithm\": " +
      (s.weak_algorithm.empty() ? "null" : json_string(s.weak_algorithm)) +
      ", \"unsupported_algorithm\": " +
      (s.unsupported_algorithm.empty() ? "null" : json_string(s.unsupported_algorithm)) + ",\n" +
      indent + " \"trust\": " + json_trust(s.trust) + ", \"notes\": " + json_list(s.notes) +
      ", \"problems\": " + json_list(s.problems) + ",\n" + indent + " \"timestamps\": [";
  for (std::size_t i = 0; i < s.timestamps.size(); ++i) {
    const auto& t = s.timestamps[i];
    out += std::string(i ? ", " : "") + "{\"time\": " + json_string(t.time) +
           ", \"authority\": " + json_string(t.authority) +
           ", \"imprint_matches\": " + yes_no(t.imprint_matches) +
           ", \"signature_valid\": " + yes_no(t.signature_valid) +
           ", \"trust\": " + json_trust(t.trust) + ", \"problems\": " + json_list(t.problems) + "}";
  }
  out += "],\n" + indent + " \"countersignatures\": [";
  for (std::size_t i = 0; i < s.countersignatures.size(); ++i)
    out += (i ? ",\n" : "\n") + json_signer(s.countersignatures[i], indent + "   ");
  return out + "]}";
}

std::string json_signers(const std::vector<EnvelopeSignerReport>& signers,
                         const std::string& indent) {
  std::string out = "[";
  for (std::size_t i = 0; i < signers.size(); ++i)
    out += (i ? ",\n" : "\n") + json_signer(signers[i], indent);
  return out + "]";
}

void print_json(const EnvelopeReport& r) {
  std::string out =
      std::string("{\"valid\": ") + yes_no(r.valid) + ", \"detached\": " + yes_no(r.detached) +
      ", \"content_size\": " + std::to_string(r.content_size) +
      ", \"input_form\": " + json_string(r.input_form) +
      ", \"trust_checked\": " + yes_no(r.trust_checked) + ", \"trusted\": " + yes_no(r.trusted) +
      ", \"problems\": " + json_list(r.problems) +
      ",\n \"signers\": " + json_signers(r.signers, "  ") + ",\n \"layers\": [";
  for (std::size_t i = 0; i < r.layers.size(); ++i) {
    const auto& l = r.layers[i];
    out += std::string(i ? "," : "") + "\n  {\"index\": " + std::to_string(l.index) +
           ", \"input_form\": " + json_string(l.input_form) + ", \"valid\": " + yes_no(l.valid) +
           ", \"trusted\": " + yes_no(l.trusted) + ", \"detached\": " + yes_no(l.detached) +
           ", \"content_size\": " + std::to_string(l.content_size) +
           ", \"content_is_envelope\": " + yes_no(l.content_is_envelope) +
           ", \"problems\": " + json_list(l.problems) + ", \"notes\": " + json_list(l.notes) +
           ",\n   \"signers\": " + json_signers(l.signers, "    ") + "}";
  }
  out += "\n ]}\n";
  std::fputs(out.c_str(), stdout);
}

std::string trust_text(const TrustReport& t) {
  if (!t.checked) return "trust not checked";
  return t.trusted ? "trusted: yes" : "trusted: no (" + t.reason + ")";
}

void print_signer(const EnvelopeSignerReport& s, const std::string& in, const char* what) {
  std::printf("%s%s %d: %s\n", in.c_str(), what, s.index,
              s.subject.empty() ? "(certificate not found)" : s.subject.c_str());
  std::string i2 = in + "  ";
  if (!s.certificate_id.empty())
    std::printf("%scertificate: %s, issued by %s\n", i2.c_str(), s.certificate_id.c_str(),
                s.issuer.c_str());
  std::printf("%sdigest: %s   signature: %s   signed: %s   CAdES-BES: %s\n", i2.c_str(),
              s.digest_algorithm.c_str(), s.signature_algorithm.c_str(),
              s.signing_time.empty() ? "(no signing time)" : s.signing_time.c_str(),
              s.cades_bes ? "yes" : "no");
  std::string value = s.signature_valid ? "ok"
                      : !s.unsupported_algorithm.empty()
                          ? "not checked: unsupported algorithm " + s.unsupported_algorithm
                          : "FAILED";
  std::printf(
      "%ssignature value: %s   content digest: %s   content type: %s   signing certificate: %s\n",
      i2.c_str(), value.c_str(),
      s.digest_algorithm == "unknown" ? "not checked: unsupported algorithm"
      : !s.digest_checked             ? "not checked: no content given"
      : s.digest_matches              ? "ok"
                                      : "FAILED",
      s.content_type_matches ? "ok" : "FAILED",
      !s.signing_certificate_present  ? "absent"
      : s.signing_certificate_matches ? "ok"
                                      : "FAILED");
  std::printf("%s%s\n", i2.c_str(), trust_text(s.trust).c_str());
  if (!s.weak_algorithm.empty())
    std::printf(
        "%swarning: %s is a weak digest algorithm: collisions can be made, so the "
        "signature proves less than it seems\n",
        i2.c_str(), s.weak_algorithm.c_str());
  for (const auto& n : s.notes)
    std::printf("%snote: %s\n", i2.c_str(), n.c_str());
  for (const auto& p : s.problems)
    std::printf("%sproblem: %s\n", i2.c_str(), p.c_str());
  for (const auto& t : s.timestamps) {
    std::printf("%stimestamp: %s by %s: imprint %s, signature %s", i2.c_str(),
                t.time.empty() ? "(no time)" : t.time.c_str(),
                t.authority.empty() ? "(unknown authority)" : t.authority.c_str(),
                t.imprint_matches ? "ok" : "FAILED", t.signature_valid ? "ok" : "FAILED");
    if (t.trust.checked) std::printf(", authority %s", trust_text(t.trust).c_str());
    std::printf("\n");
    for (const auto& p : t.problems)
      std::printf("%s  problem: %s\n", i2.c_str(), p.c_str());
  }
  for (const auto& c : s.countersignatures) {
    std::printf("%s%s\n", i2.c_str(),
                c.valid ? "countersignature: VALID" : "countersignature: NOT VALID");
    print_signer(c, i2 + "  ", "counter-signer");
  }
}

std::string content_text(bool detached, std::uint64_t size) {
  return std::string(detached ? "detached" : "attached") + ", " + std::to_string(size) +
         " bytes of content";
}

void print_report(const EnvelopeReport& r) {
  if (json()) {
    print_json(r);
    return;
  }
  std::string verdict = r.valid ? "VALID" : "NOT VALID";
  if (r.trust_checked) verdict += r.trusted ? ", trusted" : ", NOT TRUSTED";
  if (r.layers.size() == 1) {
    std::printf("%s (%s)\nform: %s\n", verdict.c_str(),
                content_text(r.detached, r.content_size).c_str(), r.input_form.c_str());
    for (const auto& p : r.problems)
      std::printf("  problem: %s\n", p.c_str());
    for (const auto& n : r.layers.front().notes)
      std::printf("  note: %s\n", n.c_str());
    for (const auto& s : r.signers)
      print_signer(s, "", "signer");
    return;
  }
  const auto& inner = r.layers.back();
  std::printf("%s: %zu envelopes, one inside the other (innermost: %s)\n", verdict.c_str(),
              r.layers.size(), content_text(inner.detached, inner.content_size).c_str());
  for (const auto& l : r.layers) {
    std::printf("layer %d of %zu: %s (%s%s; form: %s)\n", l.index, r.layers.size(),
                l.valid ? "VALID" : "NOT VALID", content_text(l.detached, l.content_size).c_str(),
                l.content_is_envelope ? ": an envelope" : "", l.input_form.c_str());
    for (const auto& p : l.problems)
      std::printf("    problem: %s\n", p.c_str());
    for (const auto& n : l.notes)
      std::printf("    note: %s\n", n.c_str());
    for (const auto& s : l.signers)
      print_signer(s, "  ", "signer");
  }
}

// "-" names standard input; anything else is a path (pipes such as <(cmd) included).
std::string input_path(const std::string& name) {
  return name == "-" ? "/dev/stdin" : name;
}

void verify(const std::string& given, std::string content, const std::vector<std::string>& trust,
            bool trust_system) {
  std::string envelope = input_path(given);
  if (!content.empty()) content = input_path(content);
  if (given == "-" && content == "/dev/stdin") {
    error("the envelope and its content cannot both come from standard input");
    return;
  }
  VerifyOptions options;
  options.content_file = content;
  // A detached signature's data lies beside it, as x.pdf for x.pdf.p7s (and x.pdf.p7s.p7m).
  options.content_beside = given != "-" && regular_file(envelope);
  options.trust.anchors = trust;
  options.trust.system = trust_system;
  EnvelopeReport r = VerifyEnvelopeWithOptions(envelope, options);
  print_report(r);
  if (!r.valid || (r.trust_checked && !r.trusted)) set_exit_code(1);
}

void extract(const std::string& given, const std::string& output, int layer) {
  std::string envelope = input_path(given);
  if (output == "-") {
    std::fflush(stdout);
    ExtractedContent x = ExtractEnvelopeLayerToFd(envelope, 1, layer);
    info("extracted " + std::to_string(x.size) + " bytes (layer " + std::to_string(x.layer) +
         " of " + std::to_string(x.layers) + ")");
    return;
  }
  if (output.empty() && given == "-") {
    error(
        "cannot derive the output name from standard input: give -o FILE (or -o - for "
        "standard output)");
    return;
  }
  ExtractedContent x = ExtractEnvelopeLayer(envelope, output, layer);
  std::printf("%s\n", x.output.c_str());
  info("extracted " + std::to_string(x.size) + " bytes (layer " + std::to_string(x.layer) + " of " +
       std::to_string(x.layers) + ")");
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
  static std::vector<std::string> trust;
  static bool trust_system = false;
  auto* v = app.add_subcommand(
      "verify",
      "Check an envelope's signatures cryptographically, every layer of envelopes inside "
      "envelopes, and optionally trust; exit 1 when it does not verify");
  v->add_option("ENVELOPE", envelope,
                "The envelope (- for standard input): DER or BER, Base64 of it (up to four times) "
                "or PEM")
      ->required()
      ->check(readable_input());
  v->add_option("--content", content,
                "The signed data of a detached signature (default: the envelope's name without its "
                "extension, and without one .p7m per envelope around a detached one inside); with "
                "an attached envelope, checked to be the same bytes as the innermost content")
      ->check(readable_input());
  v->add_option("--trust", trust,
                "Trust anchors: a file of PEM or DER certificates, or a folder of them "
                "(repeatable); certificates that are not self-signed serve as intermediates")
      ->check(CLI::ExistingPath);
  v->add_flag("--trust-system", trust_system, "Trust the system's CA certificates");
  v->add_flag("--json", globals().json, "Output as JSON");
  on_run(v, [] { verify(envelope, content, trust, trust_system); });

  static std::string in, out;
  static int layer = 0;
  auto* x = app.add_subcommand(
      "extract",
      "Write the content of an attached envelope to a file: the innermost document when "
      "envelopes are nested");
  x->add_option("ENVELOPE", in, "The .p7m file (- for standard input), binary or text")
      ->required()
      ->check(readable_input());
  x->add_option("-o,--output", out,
                "Output file (default: the envelope's name without one .p7m per layer taken "
                "off; - for standard output)");
  x->add_option("--layer", layer,
                "The layer whose content to write: 1 the outermost, 2 the envelope inside it, "
                "...; 0 (the default) the innermost")
      ->check(CLI::NonNegativeNumber);
  on_run(x, [] { extract(in, out, layer); });
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
