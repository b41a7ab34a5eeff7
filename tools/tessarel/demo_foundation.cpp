// Demo steps of the foundation: digests, the engine object, PFX export into a database.
#include <sqlite3.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "cli.h"
#include "tessarel/tessarel.h"

namespace tessarel::cli {
namespace {

void write_text(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

DemoStep samples(30, "Sample documents and their SHA-256 digests", [](DemoContext& ctx) {
  std::string files = ctx.dir + "/files";
  std::filesystem::create_directories(files);
  write_text(
      files + "/contratto.xml",
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Contratto numero=\"42\"><Parte>Rossi &amp; "
      "Bianchi</Parte><Importo>1250.00</Importo></Contratto>\n");
  write_text(files + "/fattura.txt", "Fattura n. 7 del 03/03/2021\nTotale: 320,00 EUR\n");
  write_text(files + "/verbale.txt", "Verbale della riunione\nPresenti: tutti.\n");
  ctx.values["files"] = files;
  for (const char* name : {"contratto.xml", "fattura.txt", "verbale.txt"}) {
    std::string path = files + "/" + name;
    char* digest = nullptr;
    GetHashFileSHA256(&digest, path.c_str());
    std::printf("%s  %s\n", digest, path.c_str());
    std::free(digest);
  }
  ctx.checks.push_back("sha256sum " + files + "/*   # same digests, in lower case");
});

DemoStep engine(40, "The engine object", [](DemoContext& ctx) {
  std::unique_ptr<ISignEArchivia> e(GetSignEArchivia());
  std::string id = ctx.values["cert_id"];
  bool key = e->IsKeyPresent(id);
  std::printf("IsKeyPresent(%s) = %s\n", id.empty() ? "\"\"" : id.c_str(), key ? "true" : "false");
});

DemoStep pfx(50, "The certificate and its key exported as PKCS#12 into a database record",
             [](DemoContext& ctx) {
               std::string cn = ctx.values["cert_cn"];
               if (cn.empty()) {
                 std::printf("(no certificate in the demo store)\n");
                 return;
               }
               std::string db_path = ctx.dir + "/anagrafica.sqlite";
               std::filesystem::remove(db_path);
               sqlite3* db = nullptr;
               sqlite3_open(db_path.c_str(), &db);
               sqlite3_exec(db,
                            "CREATE TABLE utenti (nome TEXT, certificato BLOB); INSERT INTO utenti "
                            "VALUES ('demo', NULL);",
                            nullptr, nullptr, nullptr);
               sqlite3_close(db);
               {
                 SqliteDataSet ds(db_path, "utenti", 1);
                 SalvaCertificatopfx(cn.c_str(), &ds, "certificato");
               }
               // Read the blob back to show that it is a PKCS#12 that opens with the empty
               // password.
               sqlite3_open(db_path.c_str(), &db);
               sqlite3_stmt* st = nullptr;
               sqlite3_prepare_v2(db, "SELECT certificato FROM utenti WHERE rowid = 1", -1, &st,
                                  nullptr);
               std::string pfx_path = ctx.dir + "/from-database.pfx";
               if (sqlite3_step(st) == SQLITE_ROW) {
                 auto* p = static_cast<const char*>(sqlite3_column_blob(st, 0));
                 int n = sqlite3_column_bytes(st, 0);
                 std::ofstream(pfx_path, std::ios::binary).write(p, n);
                 std::printf("Record utenti#1, field certificato: %d bytes of PKCS#12 for \"%s\"\n",
                             n, cn.c_str());
               }
               sqlite3_finalize(st);
               sqlite3_close(db);
               ::chmod(pfx_path.c_str(), 0600);
               ctx.checks.push_back("openssl pkcs12 -in " + pfx_path +
                                    " -passin pass: -nokeys -info   # empty password");
             });

}  // namespace
}  // namespace tessarel::cli
