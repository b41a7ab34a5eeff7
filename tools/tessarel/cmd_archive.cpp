// tessarel archive add | list | verify | delete: the signed document archive.
#include <chrono>
#include <map>
#include <memory>

#include "cli.h"
#include "tessarel/tessarel.h"

namespace tessarel::cli {
namespace {

// "YYYY-MM-DD" as days since 1899-12-30 (0 for today).
double parse_date(const std::string& text) {
  if (text.empty()) return 0.0;
  int y = 0, m = 0, d = 0;
  char tail;
  if (std::sscanf(text.c_str(), "%d-%d-%d%c", &y, &m, &d, &tail) != 3)
    throw CLI::ValidationError("--date", "expected YYYY-MM-DD");
  using namespace std::chrono;
  year_month_day ymd{year{y}, month{static_cast<unsigned>(m)}, day{static_cast<unsigned>(d)}};
  if (!ymd.ok()) throw CLI::ValidationError("--date", "not a date: " + text);
  return static_cast<double>((sys_days{ymd} - sys_days{year{1899} / 12 / 30}).count());
}

// How long to wait for an archive that another program holds.
double g_wait_seconds = 30;

void apply_wait() {
  set_archive_lock_timeout(
      std::chrono::milliseconds(static_cast<long long>(g_wait_seconds * 1000)));
}

CLI::Option* add_wait_option(CLI::App* command) {
  return command
      ->add_option("--wait", g_wait_seconds,
                   "Seconds to wait for an archive that another program is using (default 30)")
      ->check(CLI::NonNegativeNumber);
}

struct AddArgs {
  std::string dir, type, date, param, cert, existing = "ask";
  bool detached = false;
  std::vector<std::string> files;
};

void add(const AddArgs& a) {
  static const std::map<std::string, int> kExisting = {
      {"overwrite", 1}, {"skip", 3}, {"cancel", 4}};
  if (a.existing != "ask") globals().overwrite_answer = kExisting.at(a.existing);
  double date = parse_date(a.date);
  apply_wait();
  std::unique_ptr<ISignEArchivia> engine(GetSignEArchivia());
  engine->ApriIndice(a.dir, a.cert, a.detached);
  const auto& files = a.files;
  FirmaEArchiviaFiles(
      *engine, files, a.param, a.type, date,
      [&](std::size_t i) {
        if (!globals().quiet && files.size() > 1)
          currentUi().progress_text(std::to_string(i + 1) + "/" + std::to_string(files.size()) +
                                    " " + files[i]);
        globals().current_file = files[i];
      },
      [&](std::size_t i, std::exception_ptr failure) {
        if (!failure) {
          std::printf("%s\n", files[i].c_str());
          return true;
        }
        try {
          std::rethrow_exception(failure);
        } catch (const Exception& e) {
          error(files[i] + ": " + e.what());
          return std::string(e.what()) != "Operazione Annullata";
        }
      });
  engine->ChiudiIndice();
}

void list(const std::string& dir) {
  auto records = ListArchive(dir);
  if (json()) {
    std::printf("[");
    for (std::size_t i = 0; i < records.size(); ++i) {
      const auto& r = records[i];
      std::printf(
          "%s\n  {\"type\": %s, \"id\": %s, \"name\": %s, \"date\": %s, \"detached\": %s, "
          "\"data\": %s, \"data_size\": %llu, "
          "\"data_sha256\": %s, \"envelope\": %s}",
          i ? "," : "", json_string(r.type).c_str(), json_string(r.id).c_str(),
          json_string(r.name).c_str(), json_string(r.date).c_str(), r.detached ? "true" : "false",
          json_string(r.data.link).c_str(), static_cast<unsigned long long>(r.data.size),
          json_string(r.data.sha256).c_str(),
          json_string(r.has_envelope ? r.envelope.link : "").c_str());
    }
    std::printf("\n]\n");
    return;
  }
  for (const auto& r : records)
    std::printf("%s\t%s\t%s\t%s\t%s\n", r.type.c_str(), r.id.c_str(), r.date.c_str(),
                r.data.link.c_str(), r.has_envelope ? r.envelope.link.c_str() : "-");
  info(std::to_string(records.size()) + " records");
}

void verify(const std::string& dir, const std::string& cert) {
  bool show = !globals().quiet && !json();
  auto report = VerifyArchive(dir, cert, [&](std::size_t done, std::size_t total) {
    if (show && (done % 200 == 0 || done == total))
      currentUi().progress_text("checked " + std::to_string(done) + "/" + std::to_string(total) +
                                " records");
  });
  if (json()) {
    std::printf(
        "{\"ok\": %s, \"index_signed\": %s, \"signer\": %s, \"signer_subject\": %s, \"records\": "
        "%zu, \"files_checked\": %zu, "
        "\"problems\": [",
        report.ok() ? "true" : "false", report.index_signed ? "true" : "false",
        json_string(report.signer_id).c_str(), json_string(report.signer_subject).c_str(),
        report.records, report.files_checked);
    for (std::size_t i = 0; i < report.problems.size(); ++i)
      std::printf("%s\n  {\"record\": %s, \"problem\": %s}", i ? "," : "",
                  json_string(report.problems[i].record).c_str(),
                  json_string(report.problems[i].what).c_str());
    std::printf("\n]}\n");
  } else {
    for (const auto& p : report.problems)
      std::printf("%s%s\n", p.record.empty() ? "index: " : (p.record + ": ").c_str(),
                  p.what.c_str());
    std::printf("%s: index signature %s%s, %zu records, %zu files checked, %zu problems\n",
                report.ok() ? "OK" : "PROBLEMS", report.index_signed ? "valid" : "NOT valid",
                report.signer_subject.empty() ? "" : (" (" + report.signer_subject + ")").c_str(),
                report.records, report.files_checked, report.problems.size());
  }
  if (!report.ok()) set_exit_code(1);
}

std::size_t records_on_disk(const std::string& dir) {
  try {
    return ListArchive(dir).size();
  } catch (const Exception&) {
    return 0;  // no index yet
  }
}

void remove(const std::string& dir, const std::string& cert) {
  apply_wait();
  std::unique_ptr<ISignEArchivia> engine(GetSignEArchivia());
  engine->ApriIndice(dir, cert, false);
  // The engine holds the archive, so nobody else changes the count meanwhile.
  std::size_t before = records_on_disk(dir);
  engine->CancellaId();
  if (records_on_disk(dir) >= before) error("nothing was deleted");
}

CommandRegistration reg(40, [](CLI::App& app) {
  auto* archive =
      app.add_subcommand("archive", "The signed document archive (a folder with index.xml)");
  archive->require_subcommand(1);

  static AddArgs a;
  auto* add_cmd = archive->add_subcommand(
      "add", "Sign files and archive them with their envelopes; the index is signed at the end");
  add_cmd->add_option("DIR", a.dir, "Archive folder (created when missing)")->required();
  add_cmd->add_option("--type", a.type, "Document type: a folder and an XML element name")
      ->required();
  add_cmd->add_option("--date", a.date,
                      "Document date YYYY-MM-DD: decides the year/month folder (default today)");
  add_cmd->add_option("--param", a.param, "XML fragment or text stored in each record");
  add_cmd->add_option("--cert", a.cert, "Certificate identifier (default: the first of the store)");
  add_cmd->add_flag("--detached", a.detached, "Detached signatures (.p7s)");
  add_cmd
      ->add_option("--existing", a.existing,
                   "When a file is already archived: ask (default), overwrite, skip, cancel")
      ->check(CLI::IsMember({"ask", "overwrite", "skip", "cancel"}));
  add_wait_option(add_cmd);
  add_cmd->add_option("FILE", a.files, "Files to sign and archive")->required();
  add_cmd->callback([] { parse_date(a.date); });
  on_run(add_cmd, [] { add(a); });

  static std::string list_dir;
  auto* list_cmd = archive->add_subcommand("list", "List the records of the index");
  list_cmd->add_option("DIR", list_dir, "Archive folder")->required();
  list_cmd->add_flag("--json", globals().json, "Output as JSON");
  on_run(list_cmd, [] { list(list_dir); });

  static std::string verify_dir, verify_cert;
  auto* verify_cmd = archive->add_subcommand("verify",
                                             "Check the index signature and every record's files "
                                             "and envelope (reads only); exit 1 on any problem");
  verify_cmd->add_option("DIR", verify_dir, "Archive folder")->required();
  verify_cmd->add_option("--cert", verify_cert,
                         "The certificate expected to sign the index (default: any of the store)");
  verify_cmd->add_flag("--json", globals().json, "Output as JSON");
  on_run(verify_cmd, [] { verify(verify_dir, verify_cert); });

  static std::string delete_dir, delete_cert;
  auto* delete_cmd = archive->add_subcommand(
      "delete", "Delete a record and its data file (asks which one unless given)");
  delete_cmd->add_option("DIR", delete_dir, "Archive folder")->required();
  delete_cmd->add_option(
      "--cert", delete_cert,
      "Certificate that signs the index again (default: the first of the store)");
  delete_cmd->add_option("--type", globals().deletion_type, "Type of the record to delete");
  delete_cmd->add_option("--id", globals().deletion_id, "Id of the record to delete");
  delete_cmd->add_flag("-y,--yes", globals().assume_yes, "Do not ask for confirmation");
  add_wait_option(delete_cmd);
  delete_cmd->callback([] {
    if (globals().deletion_type.empty() != globals().deletion_id.empty())
      throw CLI::ValidationError("archive delete", "--type and --id go together");
  });
  on_run(delete_cmd, [] { remove(delete_dir, delete_cert); });
});

DemoStep archive_step(
    70, "Archiving signed documents under two types and two months", [](DemoContext& ctx) {
      std::string files = ctx.values["files"];
      std::string id = ctx.values["cert_id"];
      if (files.empty() || id.empty()) return;
      std::string dir = ctx.dir + "/archivio";
      std::unique_ptr<ISignEArchivia> engine(GetSignEArchivia());
      engine->ApriIndice(dir, id, false);
      engine->FirmaEArchiviaFile(files + "/contratto.xml", "<Nota>Contratto di prova</Nota>",
                                 "Contratti", 44270.0);                            // 2021-03-15
      engine->FirmaEArchiviaFile(files + "/fattura.txt", "", "Fatture", 44288.0);  // 2021-04-02
      engine->FirmaEArchiviaFile(files + "/verbale.txt", "", "Contratti", 44288.0);
      engine->ChiudiIndice();
      for (const auto& r : ListArchive(dir))
        std::printf("%-10s Id %-3s %s  (%s)\n", r.type.c_str(), r.id.c_str(), r.data.link.c_str(),
                    r.envelope.link.c_str());
      ctx.values["archive"] = dir;
      std::string pem = ctx.dir + "/demo-certificate.pem";
      ctx.checks.push_back(
          "xmlsec1 --verify --enabled-key-data x509 --trusted-pem " + pem +
          " --enabled-reference-uris empty --node-xpath \"/*/*[local-name()='Signature']\" " + dir +
          "/index.xml");
      ctx.checks.push_back("openssl cms -verify -binary -inform DER -in '" + dir +
                           "/Contratti/2021/03/contratto.xml.p7m' -CAfile " + pem +
                           " -purpose any -cades -out /dev/null");
      ctx.checks.push_back("tessarel --store " + ctx.store + " archive verify " + dir);
    });

DemoStep archive_check(71, "Checking the archive as an auditor would", [](DemoContext& ctx) {
  std::string dir = ctx.values["archive"];
  if (dir.empty()) return;
  auto report = VerifyArchive(dir);
  std::printf("index signature %s (%s); %zu records, %zu files checked, %zu problems\n",
              report.index_signed ? "valid" : "NOT valid", report.signer_subject.c_str(),
              report.records, report.files_checked, report.problems.size());
  for (const auto& p : report.problems)
    std::printf("  %s: %s\n", p.record.c_str(), p.what.c_str());
});

}  // namespace
}  // namespace tessarel::cli
