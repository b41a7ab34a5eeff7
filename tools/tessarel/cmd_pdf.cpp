// tessarel pdf sign | verify: PDF signatures.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>

#include "cli.h"
#include "tessarel/tessarel.h"

namespace tessarel::cli {
namespace {

// A temporary file in $TMPDIR (owner-only), removed when the object goes.
class TempFile {
 public:
  TempFile() {
    const char* dir = std::getenv("TMPDIR");
    std::string tmpl = std::string(dir && *dir ? dir : "/tmp") + "/tessarel-pdf-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    int fd = ::mkstemp(buf.data());
    if (fd < 0) throw Exception("cannot create a temporary file in " + tmpl);
    ::close(fd);
    path_ = buf.data();
  }
  ~TempFile() { ::unlink(path_.c_str()); }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

void copy_stream(std::istream& in, std::ostream& out, const std::string& what) {
  // Copying nothing is no failure (operator<< would count it as one): an empty document is
  // then refused as such.
  if (in.peek() != std::char_traits<char>::eof()) out << in.rdbuf();
  out.flush();
  if (!out) throw Exception("cannot write " + what);
}

struct SignArgs {
  std::string in, out, reason, name, cert, pfx, password;
  bool invisible = false;
  bool pades = false;
};

void sign(const SignArgs& a) {
  PdfSignOptions o;
  o.reason = a.reason;
  o.name = a.name;
  o.cert_id = a.cert;
  o.invisible = a.invisible;
  o.pades = a.pades;
  // The files read here: the signed document is never written over any of them.
  if (!a.pfx.empty()) o.inputs.push_back({a.pfx, "the PKCS#12 file with the signing key"});
  if (std::string f = source_file(a.password); !f.empty())
    o.inputs.push_back({f, "the password file"});
  if (std::string f = source_file(globals().pin); !f.empty())
    o.inputs.push_back({f, "the PIN file"});
  if (!a.pfx.empty()) {
    auto pfx = read_whole_file(a.pfx);
    if (!pfx) {
      error("cannot open \"" + a.pfx + "\"");
      return;
    }
    o.pfx = std::move(*pfx);
    if (o.pfx.empty()) {
      error("\"" + a.pfx + "\" is empty");
      return;
    }
    auto pw = read_password(a.password, a.pfx);
    if (!pw) {
      wipe(o.pfx);
      error("password entry cancelled; nothing signed");
      return;
    }
    o.pfx_password = std::move(*pw);
  }

  // Standard input and output pass through temporary files: signing needs the whole
  // document before it can write a byte of the result.
  std::unique_ptr<TempFile> in_temp, out_temp;
  std::string input = a.in;
  std::string output = a.out;
  if (a.in == "-") {
    in_temp = std::make_unique<TempFile>();
    std::ofstream t(in_temp->path(), std::ios::binary);
    copy_stream(std::cin, t, "the standard input to a temporary file");
    input = in_temp->path();
    o.input_name = "standard input";
    if (output.empty()) output = "-";
  }
  // Small documents sign in a blink: progress only where it can be watched.
  struct stat st {};
  o.progress = !globals().quiet && ::stat(input.c_str(), &st) == 0 && st.st_size >= (16 << 20);
  bool to_stdout = output == "-";
  if (to_stdout) {
    out_temp = std::make_unique<TempFile>();
    output = out_temp->path();
  }
  PdfSignResult r;
  try {
    r = SignPdf(input, output, o);
  } catch (...) {
    wipe(o.pfx_password);
    wipe(o.pfx);
    throw;
  }
  wipe(o.pfx_password);
  wipe(o.pfx);
  if (to_stdout) {
    std::ifstream t(output, std::ios::binary);
    copy_stream(t, std::cout, "the standard output");
  } else {
    std::printf("%s\n", r.output.c_str());
  }
  info("signed as " + r.field + " by " + r.signer + " (" + std::to_string(r.size) + " bytes)");
}

const char* yes_no(bool b) {
  return b ? "yes" : "no";
}

std::string trust_json(const TrustReport& t) {
  if (!t.checked) return "null";
  return std::string("{\"trusted\": ") + (t.trusted ? "true" : "false") +
         ", \"reason\": " + json_string(t.reason) + "}";
}

std::string trust_line(const TrustReport& t) {
  if (!t.checked) return "trust not checked";
  return t.trusted ? "trusted: yes" : "trusted: no (" + t.reason + ")";
}

void print_json(const std::string& file, const PdfReport& r) {
  std::printf(
      "{\"file\": %s, \"size\": %llu, \"valid\": %s, \"trust_checked\": %s, \"trusted\": %s, "
      "\"signatures\": [",
      json_string(file).c_str(), static_cast<unsigned long long>(r.size),
      r.valid ? "true" : "false", r.trust_checked ? "true" : "false", r.trusted ? "true" : "false");
  for (std::size_t i = 0; i < r.signatures.size(); ++i) {
    const auto& s = r.signatures[i];
    std::string range;
    for (auto v : s.byte_range)
      range += (range.empty() ? "" : ", ") + std::to_string(v);
    const EnvelopeSignerReport* signer = s.cms.signers.empty() ? nullptr : &s.cms.signers[0];
    std::printf(
        "%s\n  {\"field\": %s, \"sub_filter\": %s, \"name\": %s, \"reason\": %s, \"time\": %s, "
        "\"byte_range\": [%s], \"revision_end\": %llu,\n   \"covers_revision\": %s, "
        "\"whole_document\": %s, \"later_changes_allowed\": %s, \"intact\": %s,\n   \"signer\": "
        "%s, \"certificate\": %s, \"issuer\": %s, \"cms_signing_time\": %s, \"signature_valid\": "
        "%s, \"digest_matches\": %s, \"cms_valid\": %s, \"trust\": %s,\n   \"problems\": [",
        i ? "," : "", json_string(s.field).c_str(), json_string(s.sub_filter).c_str(),
        json_string(s.name).c_str(), json_string(s.reason).c_str(),
        json_string(s.signing_time).c_str(), range.c_str(),
        static_cast<unsigned long long>(s.revision_end), s.covers_revision ? "true" : "false",
        s.whole_document ? "true" : "false", s.later_changes_allowed ? "true" : "false",
        s.intact ? "true" : "false", json_string(signer ? signer->subject : "").c_str(),
        json_string(signer ? signer->certificate_id : "").c_str(),
        json_string(signer ? signer->issuer : "").c_str(),
        json_string(signer ? signer->signing_time : "").c_str(),
        signer && signer->signature_valid ? "true" : "false",
        signer && signer->digest_matches ? "true" : "false", s.cms.valid ? "true" : "false",
        signer ? trust_json(signer->trust).c_str() : "null");
    std::vector<std::string> problems = s.problems;
    for (const auto& p : s.cms.problems)
      problems.push_back(p);
    if (signer)
      for (const auto& p : signer->problems)
        problems.push_back(p);
    for (std::size_t k = 0; k < problems.size(); ++k)
      std::printf("%s%s", k ? ", " : "", json_string(problems[k]).c_str());
    std::printf("]}");
  }
  std::printf("\n ]}\n");
}

void print_text(const std::string& file, const PdfReport& r) {
  std::printf("%s: %s, %zu signature%s, %llu bytes\n", file.c_str(),
              r.valid ? "VALID" : "NOT VALID", r.signatures.size(),
              r.signatures.size() == 1 ? "" : "s", static_cast<unsigned long long>(r.size));
  for (const auto& s : r.signatures) {
    const EnvelopeSignerReport* signer = s.cms.signers.empty() ? nullptr : &s.cms.signers[0];
    std::printf("signature %s: %s\n", s.field.c_str(), s.intact ? "intact" : "NOT INTACT");
    std::printf("  signer: %s\n", signer && !signer->subject.empty() ? signer->subject.c_str()
                                                                     : "(certificate not found)");
    if (signer && !signer->certificate_id.empty())
      std::printf("  certificate: %s, issued by %s\n", signer->certificate_id.c_str(),
                  signer->issuer.c_str());
    if (!s.name.empty()) std::printf("  name: %s\n", s.name.c_str());
    if (!s.reason.empty()) std::printf("  reason: %s\n", s.reason.c_str());
    std::printf("  time: %s   format: %s\n",
                !s.signing_time.empty()                   ? s.signing_time.c_str()
                : signer && !signer->signing_time.empty() ? signer->signing_time.c_str()
                                                          : "(none)",
                s.sub_filter.c_str());
    std::printf("  covers its revision (up to byte %llu): %s   whole document: %s\n",
                static_cast<unsigned long long>(s.revision_end), yes_no(s.covers_revision),
                yes_no(s.whole_document));
    std::printf("  later revisions: %s\n", s.whole_document ? "none"
                                           : s.later_changes_allowed
                                               ? "only signatures and form fields added"
                                               : "CHANGED MORE");
    if (signer)
      std::printf("  signature value: %s   document digest: %s   signing certificate: %s\n",
                  signer->signature_valid ? "ok" : "FAILED",
                  signer->digest_matches ? "ok" : "FAILED",
                  !signer->signing_certificate_present  ? "absent"
                  : signer->signing_certificate_matches ? "ok"
                                                        : "FAILED");
    if (signer) std::printf("  %s\n", trust_line(signer->trust).c_str());
    for (const auto& p : s.problems)
      std::printf("  problem: %s\n", p.c_str());
    for (const auto& p : s.cms.problems)
      std::printf("  problem: %s\n", p.c_str());
    if (signer)
      for (const auto& p : signer->problems)
        std::printf("  problem: %s\n", p.c_str());
  }
}

void verify(const std::string& file, const TrustOptions& trust) {
  PdfReport r = VerifyPdf(file, trust);
  if (json())
    print_json(file, r);
  else
    print_text(file, r);
  if (r.signatures.empty()) {
    error(file + " holds no signature");
    return;
  }
  if (!r.valid || (r.trust_checked && !r.trusted)) set_exit_code(1);
}

CommandRegistration reg(35, [](CLI::App& app) {
  auto* pdf = app.add_subcommand("pdf", "Sign PDF documents and check their signatures");
  pdf->require_subcommand(1);

  static SignArgs a;
  auto* s = pdf->add_subcommand(
      "sign", "Add a signature to a PDF document as an incremental update (original bytes kept)");
  s->add_option("IN", a.in, "The PDF document (- for standard input)")->required();
  s->add_option("-o,--output", a.out,
                "Where to write the signed document (- for standard output; default: replace IN "
                "once signing succeeded)");
  s->add_option("--reason", a.reason, "Reason for signing");
  s->add_option("--name", a.name, "Signer's name, shown as \"Firmato: NAME\"");
  auto* cert = s->add_option(
      "--cert", a.cert, "Certificate identifier in the store (default: the first of the store)");
  auto* pfx = s->add_option("--pfx", a.pfx, "Sign with the certificate and key of a PKCS#12 file")
                  ->check(CLI::ExistingFile);
  s->add_option("--password", a.password,
                "Password of the PKCS#12 file: env:VAR, file:PATH, fd:N or pass: (empty); "
                "default: asked on the terminal")
      ->check(password_source())
      ->needs(pfx);
  cert->excludes(pfx);
  s->add_flag("--invisible", a.invisible, "No visible appearance on the page");
  s->add_flag("--pades", a.pades,
              "PAdES baseline B-B (ETSI.CAdES.detached) instead of adbe.pkcs7.detached");
  on_run(s, [] { sign(a); });

  static std::string file;
  static TrustOptions trust;
  auto* v = pdf->add_subcommand(
      "verify",
      "Check every signature of a PDF document: byte range, later changes, CMS value, and "
      "optionally trust; exit 1 when one is not intact (or, with trust options, not trusted)");
  v->add_option("FILE", file, "The PDF document")->required()->check(CLI::ExistingFile);
  v->add_option("--trust", trust.anchors,
                "Trusted certificates: a PEM or DER file, or a folder of them (repeatable; "
                "self-signed ones are anchors, the others intermediates)")
      ->check(CLI::ExistingPath);
  v->add_flag("--trust-system", trust.system, "Trust the system's CA certificates");
  v->add_flag("--json", globals().json, "Output as JSON");
  on_run(v, [] { verify(file, trust); });
});

// A one-page document written out by hand: the demo needs no PDF producer installed.
std::string sample_pdf() {
  std::string content =
      "BT /F1 18 Tf 72 720 Td (Contratto di fornitura n. 42) Tj 0 -28 Td /F1 12 Tf "
      "(Le parti sottoscrivono il presente contratto.) Tj ET";
  std::vector<std::string> objects = {
      "<</Type/Catalog/Pages 2 0 R>>",
      "<</Type/Pages/Kids[3 0 R]/Count 1>>",
      "<</Type/Page/Parent 2 0 R/MediaBox[0 0 595 842]/Resources<</Font<</F1 5 0 R>>>>"
      "/Contents 4 0 R>>",
      "<</Length " + std::to_string(content.size()) + ">>\nstream\n" + content + "\nendstream",
      "<</Type/Font/Subtype/Type1/BaseFont/Helvetica/Encoding/WinAnsiEncoding>>",
      "<</Title(Contratto)/Producer(tessarel demo)>>",
  };
  std::string pdf = "%PDF-1.7\n%\xE2\xE3\xCF\xD3\n";
  std::vector<std::size_t> offsets;
  for (std::size_t i = 0; i < objects.size(); ++i) {
    offsets.push_back(pdf.size());
    pdf += std::to_string(i + 1) + " 0 obj\n" + objects[i] + "\nendobj\n";
  }
  std::size_t xref = pdf.size();
  pdf += "xref\n0 " + std::to_string(objects.size() + 1) + "\n0000000000 65535 f \n";
  for (std::size_t o : offsets) {
    char e[24];
    std::snprintf(e, sizeof e, "%010zu 00000 n \n", o);
    pdf += e;
  }
  pdf += "trailer\n<</Size " + std::to_string(objects.size() + 1) +
         "/Root 1 0 R/Info 6 0 R/ID[<544553534152454C44454D4F30303031><54455353415245"
         "4C44454D4F30303031>]>>\nstartxref\n" +
         std::to_string(xref) + "\n%%EOF\n";
  return pdf;
}

DemoStep pdf_step(65, "Signing a PDF document through the engine (FirmaPdf)", [](DemoContext& ctx) {
  std::string files = ctx.values["files"];
  std::string id = ctx.values["cert_id"];
  if (files.empty() || id.empty()) {
    std::printf("(no certificate or no sample files)\n");
    return;
  }
  std::string in = files + "/contratto.pdf";
  std::string out = files + "/contratto-firmato.pdf";
  std::ofstream(in, std::ios::binary) << sample_pdf();
  std::unique_ptr<ISignEArchivia> engine(GetSignEArchivia());
  bool ok =
      engine->FirmaPdf(in, out, "Approvazione", ctx.values["cert_cn"], nullptr, false, id, false);
  std::printf("FirmaPdf = %s\n", ok ? "true" : "false");
  if (!ok) return;
  PdfReport r = VerifyPdf(out);
  for (const auto& s : r.signatures)
    std::printf("%s: %s, whole document %s, signed by %s\n", s.field.c_str(),
                s.intact ? "intact" : "NOT INTACT", s.whole_document ? "yes" : "no",
                s.cms.signers.empty() ? "-" : s.cms.signers[0].subject.c_str());
  ctx.checks.push_back("pdfsig -nocert " + out + "   # poppler: \"Signature is Valid\"");
  ctx.checks.push_back("qpdf --check " + out);
});

}  // namespace
}  // namespace tessarel::cli
