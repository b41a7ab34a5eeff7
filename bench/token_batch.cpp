// Batch signing with a key on a SoftHSM2 token: FirmaFiles over the token store against the
// same over the file store (same RSA-2048 key, same files), and against SoftHSM2's own
// signing rate, measured in the same run by a loop of raw C_SignInit + C_Sign calls on one
// session (and the file key's own signing rate, the same way). Reports:
//  - the token path's cost per file beyond its C_Sign, next to the file store's cost per
//    file beyond its signature: the envelope work is the same, so they should match;
//  - the token rate against the rate predicted from the file store with its signature
//    replaced by a raw C_Sign (target: at least 0.9);
//  - the token rate against the raw C_Sign rate, which also carries the envelope work.
//   bench_token_batch [FILES] [SIZE_BYTES] [ROUNDS]
// The token lives in a temporary folder with its own SOFTHSM2_CONF.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench_common.h"
#include "boundary/batch_signer.h"
#include "boundary/cert_lookup.h"
#include "platform/crypto/digest.h"
#include "platform/store/pkcs11_module.h"
#include "tessarel/certgen.h"
#include "tessarel/store.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {
const char* kModule = "/usr/lib/softhsm/libsofthsm2.so";

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

void must(bool ok, const char* what) {
  if (!ok) {
    std::fprintf(stderr, "bench_token_batch: %s\n", what);
    std::exit(1);
  }
}
}  // namespace

int main(int argc, char** argv) {
  const char* usage = "bench_token_batch [FILES] [SIZE_BYTES] [ROUNDS]";
  bench::check_help(argc, argv, usage);
  int files = static_cast<int>(bench::positive_arg(argc, argv, 1, 1000, usage));
  auto size = static_cast<std::size_t>(bench::positive_arg(argc, argv, 2, 4096, usage));
  int rounds = static_cast<int>(bench::positive_arg(argc, argv, 3, 5, usage));
  must(access(kModule, R_OK) == 0, "SoftHSM2 is not installed");

  fs::path dir = fs::temp_directory_path() / ("tessarel-bench-" + std::to_string(getpid()));
  fs::create_directories(dir / "tokens");
  std::ofstream(dir / "softhsm2.conf") << "directories.tokendir = " << (dir / "tokens").string()
                                       << "\nobjectstore.backend = file\nlog.level = ERROR\n";
  setenv("SOFTHSM2_CONF", (dir / "softhsm2.conf").c_str(), 1);
  must(std::system("softhsm2-util --init-token --free --label Bench --pin 1234 --so-pin 87654321 "
                   ">/dev/null") == 0,
       "softhsm2-util failed");
  tessarel::set_pin_provider([](const std::string&) { return std::string("1234"); });

  // One RSA-2048 key: made in the file store, then a copy put on the token.
  std::string file_store = (dir / "store").string();
  std::string token_store = "pkcs11:token=Bench?module-path=" + std::string(kModule);
  tessarel::NewCertificateOptions o;
  o.common_name = "Benchmark Signer";
  o.bits = 2048;
  auto fstore = tessarel::open_store(file_store);
  tessarel::Certificate cert = tessarel::CreateSelfSignedCertificate(o, *fstore);
  tessarel::import_pkcs12(*tessarel::open_store(token_store), fstore->export_pkcs12(cert, ""), "");

  auto [on_file, on_token] = bench::write_twin_inputs(dir / "file", dir / "token", files, size, 11);
  auto text = [](const std::vector<std::string>& v) {
    std::string s;
    for (const auto& f : v)
      s += f + "\n";
    return s;
  };
  std::string file_list = text(on_file), token_list = text(on_token);

  auto sign_batch = [&](const std::string& store, const std::string& list) {
    tessarel::set_store_location(store);
    auto start = Clock::now();
    must(tessarel::FirmaFiles(list, list, cert.id(), false, nullptr).has_value(),
         "FirmaFiles signed nothing");
    return std::chrono::duration<double>(Clock::now() - start).count();
  };

  // The reference: SoftHSM2's signing on its own, one session, the same key.
  auto module = tessarel::p11::Module::load(kModule);
  CK_FUNCTION_LIST* fn = module->fn();
  CK_SLOT_ID slot = 0;
  for (CK_SLOT_ID s : module->slots(true)) {
    auto info = module->token_info(s);
    if (info && tessarel::p11::padded_field(info->label, sizeof info->label) == "Bench") slot = s;
  }
  CK_SESSION_HANDLE session;
  must(fn->C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &session) == CKR_OK,
       "C_OpenSession failed");
  CK_RV login =
      fn->C_Login(session, CKU_USER, reinterpret_cast<CK_UTF8CHAR*>(const_cast<char*>("1234")), 4);
  must(login == CKR_OK || login == CKR_USER_ALREADY_LOGGED_IN, "C_Login failed");
  auto keys = tessarel::p11::find_objects(fn, session,
                                          {tessarel::p11::attr_ulong(CKA_CLASS, CKO_PRIVATE_KEY)});
  must(keys.size() == 1, "the token should hold one private key");
  // A SHA-256 DigestInfo, as the store signs it.
  tessarel::Bytes data = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                          0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
  tessarel::Bytes digest = tessarel::crypto::sha256(tessarel::Bytes{1, 2, 3});
  data.insert(data.end(), digest.begin(), digest.end());
  auto raw_loop = [&] {
    CK_MECHANISM mech{CKM_RSA_PKCS, nullptr, 0};
    unsigned char sig[512];
    auto start = Clock::now();
    for (int i = 0; i < files; ++i) {
      CK_ULONG len = sizeof sig;
      must(fn->C_SignInit(session, &mech, keys[0]) == CKR_OK &&
               fn->C_Sign(session, data.data(), static_cast<CK_ULONG>(data.size()), sig, &len) ==
                   CKR_OK,
           "C_Sign failed");
    }
    return std::chrono::duration<double>(Clock::now() - start).count();
  };

  // The file key signing the same DigestInfo's digest, in the process.
  auto file_key = fstore->signing_key(cert);
  must(file_key != nullptr, "the file store has no key");
  auto file_key_loop = [&] {
    auto start = Clock::now();
    for (int i = 0; i < files; ++i)
      file_key->sign_digest(tessarel::DigestAlgorithm::SHA256, digest);
    return std::chrono::duration<double>(Clock::now() - start).count();
  };

  // Warm the page cache, the stores and the logins for every contender.
  sign_batch(file_store, file_list);
  sign_batch(token_store, token_list);
  raw_loop();
  file_key_loop();
  std::vector<double> t_file, t_token, t_raw, t_key;
  for (int r = 0; r < rounds; ++r) {
    t_file.push_back(sign_batch(file_store, file_list));
    t_token.push_back(sign_batch(token_store, token_list));
    t_raw.push_back(raw_loop());
    t_key.push_back(file_key_loop());
  }
  double file_s = median(t_file), token_s = median(t_token), raw_s = median(t_raw),
         key_s = median(t_key);
  double predicted = file_s - key_s + raw_s;
  auto us = [&](double s) { return s / files * 1e6; };
  std::printf("files: %d of %zu bytes, RSA-2048, %d rounds (median)\n", files, size, rounds);
  std::printf("FirmaFiles, file store:       %.3f s  %6.0f files/s\n", file_s, files / file_s);
  std::printf("FirmaFiles, SoftHSM2 token:   %.3f s  %6.0f files/s\n", token_s, files / token_s);
  std::printf("raw C_SignInit+C_Sign:        %.3f s  %6.0f signatures/s\n", raw_s, files / raw_s);
  std::printf("file key sign_digest:         %.3f s  %6.0f signatures/s\n", key_s, files / key_s);
  std::printf("per file beyond the signature: token %.0f us, file store %.0f us\n",
              us(token_s - raw_s), us(file_s - key_s));
  std::printf("token rate / predicted rate:  %.3f   (target >= 0.9)\n", predicted / token_s);
  std::printf("token rate / C_Sign rate:     %.3f\n", raw_s / token_s);
  std::printf("token / file store time:      %.2f\n", token_s / file_s);
  fn->C_CloseSession(session);
  fs::remove_all(dir);
  return 0;
}
