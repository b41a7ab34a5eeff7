// tessarel cert list | show ID | remove ID | import FILE.pfx | export ID -o FILE.pfx
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>

#include "cli.h"
#include "tessarel/tessarel.h"

namespace tessarel::cli {
namespace {

std::string date_text(std::chrono::sys_seconds t) {
  auto dp = std::chrono::floor<std::chrono::days>(t);
  std::chrono::year_month_day ymd{dp};
  std::chrono::hh_mm_ss<std::chrono::seconds> hms{t - dp};
  char buf[96];
  std::snprintf(buf, sizeof buf, "%04d-%02u-%02u %02ld:%02ld:%02ld UTC",
                static_cast<int>(ymd.year()), static_cast<unsigned>(ymd.month()),
                static_cast<unsigned>(ymd.day()), static_cast<long>(hms.hours().count()),
                static_cast<long>(hms.minutes().count()), static_cast<long>(hms.seconds().count()));
  return buf;
}

std::string hex(const Bytes& b) {
  static const char* d = "0123456789ABCDEF";
  std::string s;
  for (auto c : b) {
    s.push_back(d[c >> 4]);
    s.push_back(d[c & 15]);
  }
  return s;
}

std::string usage_text(const Certificate& c) {
  static const char* names[] = {"digitalSignature", "nonRepudiation", "keyEncipherment",
                                "dataEncipherment", "keyAgreement",   "keyCertSign",
                                "cRLSign",          "encipherOnly",   "decipherOnly"};
  auto ku = c.key_usage();
  if (!ku) return "";
  std::string out;
  for (unsigned i = 0; i < 9; ++i)
    if (*ku & (1u << i)) out += std::string(out.empty() ? "" : ", ") + names[i];
  return out;
}

const char* kind_name(KeyKind k) {
  switch (k) {
    case KeyKind::Rsa:
      return "RSA";
    case KeyKind::RsaPss:
      return "RSA-PSS";
    case KeyKind::Dsa:
      return "DSA";
    case KeyKind::Ec:
      return "EC";
    case KeyKind::Ed25519:
      return "Ed25519";
    case KeyKind::Ed448:
      return "Ed448";
    case KeyKind::Gost2001:
      return "GOST R 34.10-2001";
    default:
      return "unknown";
  }
}

// The first certificate with that identifier, with a hint when it is written in lower case.
std::optional<Certificate> find(CertStore& store, const std::string& id) {
  for (auto& c : store.certificates())
    if (c.id() == id) return c;
  std::string hint;
  for (char ch : id)
    if (ch >= 'a' && ch <= 'f') hint = " (identifiers are upper-case hexadecimal)";
  error("no certificate with identifier '" + id + "' in " + store.location() + hint);
  return std::nullopt;
}

void list() {
  auto store = personal_store();
  auto certs = store->certificates();
  if (json()) {
    std::printf("[");
    for (std::size_t i = 0; i < certs.size(); ++i) {
      const auto& c = certs[i];
      std::printf(
          "%s\n  {\"id\": %s, \"subject\": %s, \"issuer\": %s, \"not_before\": %s, "
          "\"not_after\": %s, \"private_key\": %s}",
          i ? "," : "", json_string(c.id()).c_str(), json_string(c.subject_text()).c_str(),
          json_string(c.issuer_text()).c_str(), json_string(date_text(c.not_before())).c_str(),
          json_string(date_text(c.not_after())).c_str(),
          store->has_private_key(c) ? "true" : "false");
    }
    std::printf("\n]\n");
    return;
  }
  for (const auto& c : certs)
    std::printf("%s  %-3s  %s  %s\n", c.id().c_str(), store->has_private_key(c) ? "key" : "-",
                date_text(c.not_after()).substr(0, 10).c_str(), c.subject_text().c_str());
  if (certs.empty()) info("no certificates in " + store->location());
}

void show(const std::string& id, bool pem) {
  auto store = personal_store();
  auto c = find(*store, id);
  if (!c) return;
  if (pem) {
    std::printf("%s", c->pem().c_str());
    return;
  }
  bool has_key = store->has_private_key(*c);
  bool key_ok = has_key && store->key_valid(*c);
  std::string ku = usage_text(*c);
  if (json()) {
    std::printf(
        "{\"id\": %s, \"serial\": %s, \"version\": %d, \"subject\": %s, \"issuer\": %s,\n"
        " \"not_before\": %s, \"not_after\": %s, \"key\": %s, \"key_bits\": %d,\n"
        " \"key_usage\": %s, \"ca\": %s, \"private_key\": %s, \"private_key_valid\": %s,\n"
        " \"sha1\": %s, \"sha256\": %s}\n",
        json_string(c->id()).c_str(), json_string(c->serial_decimal()).c_str(), c->version(),
        json_string(c->subject_text()).c_str(), json_string(c->issuer_text()).c_str(),
        json_string(date_text(c->not_before())).c_str(),
        json_string(date_text(c->not_after())).c_str(),
        json_string(kind_name(c->key_kind())).c_str(), c->key_bits(), json_string(ku).c_str(),
        c->is_ca() ? "true" : "false", has_key ? "true" : "false", key_ok ? "true" : "false",
        json_string(hex(c->fingerprint(DigestAlgorithm::SHA1))).c_str(),
        json_string(hex(c->fingerprint(DigestAlgorithm::SHA256))).c_str());
    return;
  }
  std::printf("Identifier:   %s\n", c->id().c_str());
  std::printf("Serial:       %s (%s)\n", c->display_serial().c_str(), c->serial_decimal().c_str());
  std::printf("Version:      %d\n", c->version());
  std::printf("Subject:      %s\n", c->subject_text().c_str());
  std::printf("Issuer:       %s\n", c->issuer_text().c_str());
  std::printf("Valid from:   %s\n", date_text(c->not_before()).c_str());
  std::printf("Valid until:  %s\n", date_text(c->not_after()).c_str());
  std::printf("Key:          %s %d bits\n", kind_name(c->key_kind()), c->key_bits());
  std::printf("Key usage:    %s\n", ku.empty() ? "(no extension)" : ku.c_str());
  std::printf("CA:           %s\n", c->is_ca() ? "yes" : "no");
  std::printf("Private key:  %s\n", !has_key ? "none"
                                    : key_ok ? "present, matches"
                                             : "present, NOT usable");
  std::printf("SHA-1:        %s\n", hex(c->fingerprint(DigestAlgorithm::SHA1)).c_str());
  std::printf("SHA-256:      %s\n", hex(c->fingerprint(DigestAlgorithm::SHA256)).c_str());
}

void remove(const std::string& id, bool yes) {
  auto store = personal_store();
  auto c = find(*store, id);
  if (!c) return;
  if (!yes) {
    std::string what = store->has_private_key(*c) ? " and its private key" : "";
    auto answer = currentUi().message_box(
        MessageKind::Confirmation, MessageButtons::OkCancel,
        "Remove certificate " + id + what + " (" + c->subject_text() + ") from the store?");
    if (answer != ModalResult::Ok) {
      error("certificate not removed (confirm, or pass --yes)");
      return;
    }
  }
  if (store->remove(*c))
    info("removed " + id);
  else
    error("certificate " + id + " was no longer in the store");
}

void import_pfx(const std::string& file, const std::string& source) {
  auto read = read_whole_file(file);
  if (!read) {
    error("cannot open \"" + file + "\"");
    return;
  }
  Bytes& pfx = *read;
  auto pw = read_password(source, file);
  if (!pw) {
    error("password entry cancelled; nothing imported");
    return;
  }
  auto store = personal_store();
  Certificate c = import_pkcs12(*store, pfx, *pw);
  wipe(*pw);
  wipe(pfx);
  std::printf("%s\n", c.id().c_str());
  info("imported " + c.subject_text() + " into " + store->location());
}

void export_pfx(const std::string& id, const std::string& out, const std::string& source) {
  auto store = personal_store();
  auto c = find(*store, id);
  if (!c) return;
  std::vector<GuardedInput> inputs;
  if (std::string f = source_file(source); !f.empty()) inputs.push_back({f, "the password file"});
  auto pw = read_password(source, out);
  if (!pw) {
    error("password entry cancelled; nothing exported");
    return;
  }
  try {
    if (out == "-") {
      std::fflush(stdout);
      export_pkcs12_fd(*store, *c, *pw, 1, inputs);
    } else {
      export_pkcs12_file(*store, *c, *pw, out, inputs);
    }
  } catch (...) {
    wipe(*pw);
    throw;
  }
  wipe(*pw);
  info("exported " + id + " to " + (out == "-" ? std::string("standard output") : out));
}

CommandRegistration reg(20, [](CLI::App& app) {
  auto* cert = app.add_subcommand("cert", "Certificates of the personal store");
  cert->require_subcommand(1);

  auto* l = cert->add_subcommand(
      "list", "List the certificates: identifier, key, end of validity, subject");
  l->add_flag("--json", globals().json, "Output as JSON");
  on_run(l, [] { list(); });

  static std::string show_id;
  static bool show_pem = false;
  auto* s = cert->add_subcommand("show", "Show one certificate");
  s->add_option("ID", show_id, "Certificate identifier (upper-case hexadecimal serial)")
      ->required();
  s->add_flag("--pem", show_pem, "Print the certificate in PEM form");
  s->add_flag("--json", globals().json, "Output as JSON");
  on_run(s, [] { show(show_id, show_pem); });

  static std::string remove_id;
  static bool yes = false;
  auto* r =
      cert->add_subcommand("remove", "Remove a certificate and its private key from the store");
  r->add_option("ID", remove_id, "Certificate identifier")->required();
  r->add_flag("-y,--yes", yes, "Do not ask for confirmation");
  on_run(r, [] { remove(remove_id, yes); });

  static std::string import_file, import_pw;
  auto* i = cert->add_subcommand("import",
                                 "Import a certificate with its key from a PKCS#12 (.pfx) file");
  i->add_option("FILE", import_file, "PKCS#12 file")->required()->check(CLI::ExistingFile);
  i->add_option("--password", import_pw,
                "Password source: env:VAR, file:PATH, fd:N, or pass: for none (else asked)")
      ->check(password_source());
  on_run(i, [] { import_pfx(import_file, import_pw); });

  static std::string export_id, export_out, export_pw;
  auto* e = cert->add_subcommand("export", "Export a certificate with its key as PKCS#12 (.pfx)");
  e->add_option("ID", export_id, "Certificate identifier")->required();
  e->add_option("-o,--output", export_out,
                "Output file (- for standard output); a new file is readable by its owner only")
      ->required();
  e->add_option("--password", export_pw,
                "Password source: env:VAR, file:PATH, fd:N, or pass: for none (else asked)")
      ->check(password_source());
  on_run(e, [] { export_pfx(export_id, export_out, export_pw); });
});

}  // namespace
}  // namespace tessarel::cli
