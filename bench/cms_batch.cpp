// Batch signing of many small files: FirmaFiles against a loop over OpenSSL's CMS_sign
// (CMS_BINARY | CMS_CADES) with the same key, certificate and files, in one process.
// Both read every file and write every envelope. Reports files per second and the ratio.
//   bench_cms_batch [FILES] [SIZE_BYTES] [ROUNDS]
#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/pem.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
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

int main(int argc, char** argv) {
  const char* usage = "bench_cms_batch [FILES] [SIZE_BYTES] [ROUNDS]";
  bench::check_help(argc, argv, usage);
  int files = static_cast<int>(bench::positive_arg(argc, argv, 1, 1000, usage));
  auto size = static_cast<std::size_t>(bench::positive_arg(argc, argv, 2, 4096, usage));
  int rounds = static_cast<int>(bench::positive_arg(argc, argv, 3, 3, usage));
  fs::path dir = fs::temp_directory_path() / ("tessarel-bench-" + std::to_string(getpid()));
  auto [ours, ref] = bench::write_twin_inputs(dir / "ours", dir / "ref", files, size, 7);
  std::string list;
  for (const auto& f : ours)
    list += f + "\n";

  tessarel::set_store_location((dir / "store").string());
  tessarel::NewCertificateOptions o;
  o.common_name = "Benchmark Signer";
  o.bits = 2048;
  auto store = tessarel::open_store((dir / "store").string());
  tessarel::Certificate cert = tessarel::CreateSelfSignedCertificate(o, *store);
  tessarel::Bytes pfx = store->export_pkcs12(cert, "");
  // The same key for the reference, as OpenSSL objects.
  const unsigned char* p = pfx.data();
  PKCS12* p12 = d2i_PKCS12(nullptr, &p, static_cast<long>(pfx.size()));
  EVP_PKEY* key = nullptr;
  X509* x509 = nullptr;
  PKCS12_parse(p12, "", &key, &x509, nullptr);
  PKCS12_free(p12);

  auto run_ours = [&] {
    auto start = Clock::now();
    if (!tessarel::FirmaFiles(list, list, cert.id(), false, nullptr)) std::abort();
    return std::chrono::duration<double>(Clock::now() - start).count();
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
    return std::chrono::duration<double>(Clock::now() - start).count();
  };
  run_ours();  // warm the page cache and the key for both
  run_ref();
  std::vector<double> t_ours, t_ref;
  for (int r = 0; r < rounds; ++r) {
    t_ours.push_back(run_ours());
    t_ref.push_back(run_ref());
  }
  std::sort(t_ours.begin(), t_ours.end());
  std::sort(t_ref.begin(), t_ref.end());
  double ours_med = t_ours[t_ours.size() / 2], ref_med = t_ref[t_ref.size() / 2];
  std::printf("files: %d of %zu bytes, %d rounds (median)\n", files, size, rounds);
  std::printf("FirmaFiles:        %.3f s  %.0f files/s\n", ours_med, files / ours_med);
  std::printf("CMS_sign loop:     %.3f s  %.0f files/s\n", ref_med, files / ref_med);
  std::printf("throughput ratio ours/OpenSSL: %.2f   (target >= 0.9)\n", ref_med / ours_med);
  EVP_PKEY_free(key);
  X509_free(x509);
  fs::remove_all(dir);
  return 0;
}
