// Batch signing of many small files: FirmaFiles (on all threads and on one) against a loop
// over OpenSSL's CMS_sign (CMS_BINARY | CMS_CADES) on one thread with the same key,
// certificate and files, in one process; with --cli, also the command-line program
// (`tessarel sign`, a process of its own) on the same files. All read every file and write
// every envelope. Reports files per second and the ratios, medians of ROUNDS alternating runs.
//   bench_cms_batch [FILES] [SIZE_BYTES] [ROUNDS] [--cli PATH] [--dir DIR]
#include <fcntl.h>
#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench_common.h"
#include "boundary/batch_signer.h"
#include "boundary/cert_lookup.h"
#include "platform/crypto/keygen.h"
#include "platform/crypto/x509.h"
#include "tessarel/certgen.h"
#include "tessarel/store.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {
double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}
}  // namespace

int main(int argc, char** argv) {
  const char* usage = "bench_cms_batch [FILES] [SIZE_BYTES] [ROUNDS] [--cli PATH] [--dir DIR]";
  bench::check_help(argc, argv, usage);
  std::string cli;
  fs::path parent = fs::temp_directory_path();
  std::vector<char*> positional = {argv[0]};
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--cli") == 0 && i + 1 < argc)
      cli = argv[++i];
    else if (std::strcmp(argv[i], "--dir") == 0 && i + 1 < argc)
      parent = argv[++i];
    else
      positional.push_back(argv[i]);
  }
  int pc = static_cast<int>(positional.size());
  char** pv = positional.data();
  int files = static_cast<int>(bench::positive_arg(pc, pv, 1, 1000, usage));
  auto size = static_cast<std::size_t>(bench::positive_arg(pc, pv, 2, 4096, usage));
  int rounds = static_cast<int>(bench::positive_arg(pc, pv, 3, 3, usage));
  fs::path dir = parent / ("tessarel-bench-" + std::to_string(getpid()));
  auto [ours, ref] = bench::write_twin_inputs(dir / "ours", dir / "ref", files, size, 7);
  std::string list;
  for (const auto& f : ours)
    list += f + "\n";

  std::string store_dir = (dir / "store").string();
  tessarel::set_store_location(store_dir);
  tessarel::NewCertificateOptions o;
  o.common_name = "Benchmark Signer";
  o.bits = 2048;
  auto store = tessarel::open_store(store_dir);
  tessarel::Certificate cert = tessarel::CreateSelfSignedCertificate(o, *store);
  tessarel::Bytes pfx = store->export_pkcs12(cert, "");
  // The same key for the reference, as OpenSSL objects.
  const unsigned char* p = pfx.data();
  PKCS12* p12 = d2i_PKCS12(nullptr, &p, static_cast<long>(pfx.size()));
  EVP_PKEY* key = nullptr;
  X509* x509 = nullptr;
  PKCS12_parse(p12, "", &key, &x509, nullptr);
  PKCS12_free(p12);

  auto seconds = [](Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
  };
  auto run_ours = [&](const char* threads) {
    setenv("TESSAREL_THREADS", threads, 1);
    auto start = Clock::now();
    if (!tessarel::FirmaFiles(list, list, cert.id(), false, nullptr)) std::abort();
    double t = seconds(start);
    unsetenv("TESSAREL_THREADS");
    return t;
  };
  auto run_ref = [&] {
    auto start = Clock::now();
    for (const auto& f : ref) {
      BIO* in = BIO_new_file(f.c_str(), "rb");
      CMS_ContentInfo* cms = CMS_sign(x509, key, nullptr, in, CMS_BINARY | CMS_CADES);
      BIO* out = BIO_new_file((f + ".p7m").c_str(), "wb");
      if (!cms || !out || !i2d_CMS_bio(out, cms)) std::abort();
      BIO_free(out);
      CMS_ContentInfo_free(cms);
      BIO_free(in);
    }
    return seconds(start);
  };
  // The program as a user runs it: its own process, the store read from disk, every file
  // named on the command line.
  std::vector<std::string> args = {cli,    "--quiet", "--store", store_dir,
                                   "sign", "--cert",  cert.id()};
  args.insert(args.end(), ours.begin(), ours.end());
  auto run_cli = [&] {
    std::vector<char*> argv_cli;
    for (auto& a : args)
      argv_cli.push_back(a.data());
    argv_cli.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
    auto start = Clock::now();
    pid_t pid = 0;
    int status = 0;
    if (posix_spawn(&pid, cli.c_str(), &fa, nullptr, argv_cli.data(), environ) != 0 ||
        waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
      std::abort();
    double t = seconds(start);
    posix_spawn_file_actions_destroy(&fa);
    return t;
  };
  // The ceiling: bare RSA signatures of a digest with the same key, as many as there are
  // files, on all signing threads (a key context each time, as the library makes them).
  unsigned threads = tessarel::SigningThreads();
  auto run_raw = [&] {
    auto start = Clock::now();
    std::vector<std::thread> pool;
    for (unsigned t = 0; t < threads; ++t)
      pool.emplace_back([&, t] {
        unsigned char digest[32] = {static_cast<unsigned char>(t)};
        unsigned char sig[512];
        for (int i = static_cast<int>(t); i < files; i += static_cast<int>(threads)) {
          EVP_PKEY_CTX* c = EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr);
          std::size_t len = sizeof sig;
          if (!c || EVP_PKEY_sign_init(c) <= 0 ||
              EVP_PKEY_CTX_set_rsa_padding(c, RSA_PKCS1_PADDING) <= 0 ||
              EVP_PKEY_CTX_set_signature_md(c, EVP_sha256()) <= 0 ||
              EVP_PKEY_sign(c, sig, &len, digest, sizeof digest) <= 0)
            std::abort();
          EVP_PKEY_CTX_free(c);
        }
      });
    for (auto& t : pool)
      t.join();
    return seconds(start);
  };
  run_ours("");  // warm the page cache and the key for all
  run_ref();
  std::vector<double> t_ours, t_one, t_ref, t_cli, t_raw;
  for (int r = 0; r < rounds; ++r) {
    t_raw.push_back(run_raw());
    t_ours.push_back(run_ours(""));
    t_one.push_back(run_ours("1"));
    t_ref.push_back(run_ref());
    if (!cli.empty()) t_cli.push_back(run_cli());
  }
  double ours_med = median(t_ours), one_med = median(t_one), ref_med = median(t_ref);
  std::printf("files: %d of %zu bytes, %d rounds (median), %u signing threads\n", files, size,
              rounds, tessarel::SigningThreads());
  std::printf("FirmaFiles, all threads:        %.3f s  %.0f files/s\n", ours_med, files / ours_med);
  std::printf("FirmaFiles, TESSAREL_THREADS=1: %.3f s  %.0f files/s\n", one_med, files / one_med);
  std::printf("CMS_sign loop, one thread:      %.3f s  %.0f files/s\n", ref_med, files / ref_med);
  std::printf("throughput ratio FirmaFiles (all threads)/CMS_sign loop: %.2f\n",
              ref_med / ours_med);
  std::printf("throughput ratio FirmaFiles (one thread)/CMS_sign loop:  %.2f\n", ref_med / one_med);
  double raw_med = median(t_raw);
  std::printf("bare RSA-2048 signatures, %u threads: %.3f s  %.0f signatures/s\n", threads, raw_med,
              files / raw_med);
  std::printf("FirmaFiles (all threads) / bare signatures: %.2f\n", raw_med / ours_med);
  if (!cli.empty()) {
    double cli_med = median(t_cli);
    std::printf("tessarel sign (own process):    %.3f s  %.0f files/s\n", cli_med, files / cli_med);
    std::printf("throughput ratio tessarel sign/CMS_sign loop: %.2f   (target >= 1.8 on 2 cores)\n",
                ref_med / cli_med);
    std::printf("tessarel sign / bare signatures: %.2f\n", raw_med / cli_med);
    std::printf("tessarel sign files/s: %.0f\n", files / cli_med);
  }
  EVP_PKEY_free(key);
  X509_free(x509);
  fs::remove_all(dir);
  return 0;
}
