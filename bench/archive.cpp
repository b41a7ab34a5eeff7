// Archiving many small files with signing, one ApriIndice/ChiudiIndice, the files signed
// ahead on all threads (FirmaEArchiviaFiles): files per second, and the share of the time
// spent outside signing, against the same files signed as one batch by FirmaFiles (the
// same threads) in the same run.
//   bench_archive DIR [FILES] [SIZE_BYTES]
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "archive/sign_e_archivia.h"
#include "bench_common.h"
#include "boundary/batch_signer.h"
#include "tessarel/certgen.h"
#include "tessarel/store.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {
// User and system CPU seconds of the process so far.
std::pair<double, double> cpu() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  auto seconds = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
  };
  return {seconds(u.ru_utime), seconds(u.ru_stime)};
}
}  // namespace

int main(int argc, char** argv) {
  const char* usage = "bench_archive DIR [FILES] [SIZE_BYTES]";
  bench::check_help(argc, argv, usage);
  if (argc < 2) bench::usage_exit(usage, 2);
  fs::path dir = argv[1];
  int n = static_cast<int>(bench::positive_arg(argc, argv, 2, 10000, usage));
  auto size = static_cast<std::size_t>(bench::positive_arg(argc, argv, 3, 4096, usage));
  tessarel::set_store_location((dir / "store").string());
  tessarel::NewCertificateOptions o;
  o.common_name = "Archivio Benchmark";
  auto store = tessarel::personal_store();
  tessarel::Certificate cert = tessarel::CreateSelfSignedCertificate(o, *store);
  std::ofstream(dir / "cert.pem") << cert.pem();
  auto [inputs, alone] = bench::write_twin_inputs(dir / "inputs", dir / "sign-only", n, size, 3);
  std::string list;
  for (const auto& f : alone)
    list += f + "\n";
  auto c0 = cpu();
  auto t0 = Clock::now();
  if (!tessarel::FirmaFiles(list, list, cert.id(), false, nullptr)) return 1;
  double sign_only = std::chrono::duration<double>(Clock::now() - t0).count();
  // What the first part wrote is on disk before the second starts: the archive's close
  // flushes the file system and must not pay for the other part's envelopes.
  sync();
  auto c1 = cpu();

  static const char* kTypes[] = {"Contratti", "Fatture", "Verbali", "Ordini", "Bolle"};
  tessarel::TSignEArchivia engine;
  auto t1 = Clock::now();
  engine.ApriIndice((dir / "archive").string(), cert.id(), false);
  // One call per type and month, as a host archives a folder of documents of one kind.
  std::vector<std::vector<std::string>> groups(60);
  for (int i = 0; i < n; ++i)
    groups[static_cast<std::size_t>(i % 60)].push_back(inputs[static_cast<std::size_t>(i)]);
  bool failed = false;
  for (int g = 0; g < 60; ++g)
    tessarel::FirmaEArchiviaFiles(engine, groups[static_cast<std::size_t>(g)], "", kTypes[g % 5],
                                  44258.0 + g, {}, [&](std::size_t, std::exception_ptr e) {
                                    failed = failed || e;
                                    return !e;
                                  });
  if (failed) return 1;
  auto t2 = Clock::now();
  engine.ChiudiIndice();
  double archive = std::chrono::duration<double>(Clock::now() - t1).count();
  double close = std::chrono::duration<double>(Clock::now() - t2).count();
  auto c2 = cpu();
  std::printf("files: %d of %zu bytes\n", n, size);
  std::printf("signing threads: %u\n", tessarel::SigningThreads());
  std::printf("sign only (FirmaFiles, one batch):     %.2f s  %.0f files/s\n", sign_only,
              n / sign_only);
  std::printf("sign and archive, one open/close:      %.2f s  %.0f files/s\n", archive,
              n / archive);
  std::printf("  of which ChiudiIndice (flush, sign):  %.2f s\n", close);
  std::printf("share of time outside signing:         %.0f%%   (target <= 30%%)\n",
              100.0 * (archive - sign_only) / archive);
  std::printf("CPU, sign only:        user %.2f s  system %.2f s\n", c1.first - c0.first,
              c1.second - c0.second);
  std::printf(
      "CPU, sign and archive: user %.2f s  system %.2f s (the archive copies are new files)\n",
      c2.first - c1.first, c2.second - c1.second);
  return 0;
}
