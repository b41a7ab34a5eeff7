// The archive index at scale: writes an index of N documents (and an xmlsec1 signing
// template of the same document), then opens it and closes (signs) it, timing each step.
//   bench_index_close prepare DIR N     index.xml, template.xml, key.pem, cert.pem, store
//   bench_index_close open DIR          ApriIndice only
//   bench_index_close close DIR         ApriIndice, then ChiudiIndice
//   bench_index_close add DIR           ApriIndice, FirmaEArchiviaFile of one document,
//                                       ChiudiIndice
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "archive/sign_e_archivia.h"
#include "bench_common.h"
#include "boundary/cert_lookup.h"
#include "tessarel/certgen.h"
#include "tessarel/store.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

class Engine : public tessarel::TSignEArchivia {
 public:
  void mark_modified() { isModified = true; }
};

std::string records(int n) {
  static const char* kTypes[] = {"Contratti", "Fatture", "Verbali", "Ordini", "Bolle"};
  std::string out;
  std::string digest(64, 'A');
  for (int t = 0; t < 5; ++t) {
    out += std::string("<") + kTypes[t] + ">";
    for (int i = t; i < n; i += 5) {
      std::string name = "documento_" + std::to_string(i) + ".pdf";
      std::string link = std::string(kTypes[t]) + "\\2021\\03\\" + name;
      out += "<Documento Name=\"" + name + "\" Data=\"2021-03-03\" Id=\"" + std::to_string(i / 5) +
             "\">\n\t<File_Dati link=\"" + link + "\" size=\"102400\" Hash_SHA256=\"" + digest +
             "\" detached=\"F\">\n\t</File_Dati>\n\t<File_Busta link=\"" + link + ".p7m\" name=\"" +
             name + ".p7m\" size=\"104961\" Hash_SHA256=\"" + digest +
             "\">\n\t</File_Busta></Documento>";
    }
    out += std::string("</") + kTypes[t] + ">";
  }
  return out;
}

double seconds_since(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

}  // namespace

int main(int argc, char** argv) {
  const char* usage = "bench_index_close prepare|open|close|add DIR [RECORDS]";
  bench::check_help(argc, argv, usage);
  if (argc < 3) bench::usage_exit(usage, 2);
  std::string mode = argv[1];
  fs::path dir = argv[2];
  tessarel::set_store_location((dir / "store").string());
  if (mode == "prepare") {
    int n = static_cast<int>(bench::positive_arg(argc, argv, 3, 50000, usage));
    fs::create_directories(dir);
    tessarel::NewCertificateOptions o;
    o.common_name = "Archivio Benchmark";
    o.country = "IT";
    auto store = tessarel::personal_store();
    tessarel::Certificate cert = tessarel::CreateSelfSignedCertificate(o, *store);
    std::ofstream(dir / "cert.pem") << cert.pem();
    tessarel::Bytes pfx = store->export_pkcs12(cert, "");
    std::ofstream(dir / "key.pfx", std::ios::binary)
        .write(reinterpret_cast<const char*>(pfx.data()), static_cast<long>(pfx.size()));
    std::ofstream(dir / "id.txt") << cert.id();
    std::string head =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<?xml-stylesheet type=\"text/xsl\" "
        "href=\"index.xsl\"?>\n"
        "<IndiceFile Creato_il=\"03/03/2021\" modificato_il=\"03/03/2021\">";
    std::string body = records(n);
    std::ofstream(dir / "index.xml") << head << body << "</IndiceFile>\n";
    // The same document with an empty signature of the same structure, for xmlsec1.
    std::ofstream(dir / "template.xml")
        << head << body
        << "\n<ds:Signature xmlns:ds=\"http://www.w3.org/2000/09/xmldsig#\">\n\t<ds:SignedInfo>\n"
           "\t\t<ds:CanonicalizationMethod "
           "Algorithm=\"http://www.w3.org/TR/2001/REC-xml-c14n-20010315\"/>\n"
           "\t\t<ds:SignatureMethod Algorithm=\"http://www.w3.org/2000/09/xmldsig#rsa-sha1\"/>\n"
           "\t\t<ds:Reference URI=\"\">\n\t\t\t<ds:Transforms>\n"
           "\t\t\t\t<ds:Transform "
           "Algorithm=\"http://www.w3.org/2000/09/xmldsig#enveloped-signature\"/>\n"
           "\t\t\t</ds:Transforms>\n\t\t\t<ds:DigestMethod "
           "Algorithm=\"http://www.w3.org/2000/09/xmldsig#sha1\"/>\n"
           "\t\t\t<ds:DigestValue></ds:DigestValue>\n\t\t</ds:Reference>\n\t</ds:SignedInfo>\n"
           "\t<ds:SignatureValue></ds:SignatureValue>\n\t<ds:KeyInfo>\n\t\t<ds:KeyValue/"
           ">\n\t\t<ds:X509Data>\n"
           "\t\t\t<ds:X509IssuerSerial/>\n\t\t\t<ds:X509SubjectName/>\n\t\t\t<ds:X509Certificate/"
           ">\n\t\t</ds:X509Data>\n"
           "\t</ds:KeyInfo>\n</ds:Signature>\n</IndiceFile>\n";
    std::printf("prepared %d documents, index %.1f MiB\n", n,
                static_cast<double>(fs::file_size(dir / "index.xml")) / (1 << 20));
    return 0;
  }
  if (mode != "open" && mode != "close" && mode != "add") bench::usage_exit(usage, 2);
  std::string id;
  std::ifstream(dir / "id.txt") >> id;
  Engine e;
  auto t0 = Clock::now();
  e.ApriIndice(dir.string(), id, false);
  double open_s = seconds_since(t0);
  if (mode == "open") {
    std::printf("ApriIndice: %.3f s\n", open_s);
    return 0;
  }
  double add_s = 0;
  if (mode == "add") {
    std::string doc = (dir / "nuovo_documento.pdf").string();
    std::ofstream(doc) << "%PDF-1.4 a new document\n";
    auto t = Clock::now();
    e.FirmaEArchiviaFile(doc, "", "Contratti", 44258.0);
    add_s = seconds_since(t);
  } else {
    e.mark_modified();
  }
  auto t1 = Clock::now();
  e.ChiudiIndice();
  std::printf("ApriIndice: %.3f s  FirmaEArchiviaFile: %.3f s  ChiudiIndice: %.3f s\n", open_s,
              add_s, seconds_since(t1));
  return 0;
}
