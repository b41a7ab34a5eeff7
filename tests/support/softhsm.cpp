#include "softhsm.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace tessarel::test {

SoftHsm::SoftHsm() : conf_(dir_ / "softhsm2.conf") {
  std::filesystem::create_directory(dir_ / "tokens");
  write_file(conf_, "directories.tokendir = " + (dir_ / "tokens") +
                        "\nobjectstore.backend = file\nlog.level = ERROR\n");
}

bool SoftHsm::available() {
  return ::access(module().c_str(), R_OK) == 0 && have_program("softhsm2-util") &&
         have_program("pkcs11-tool");
}

std::string SoftHsm::module() {
  return "/usr/lib/softhsm/libsofthsm2.so";
}

void SoftHsm::use_in_this_process() const {
  ::setenv("SOFTHSM2_CONF", conf_.c_str(), 1);
}

CommandResult SoftHsm::tool(const std::vector<std::string>& args) {
  CommandResult r = run(args, env());
  if (r.exit_code != 0)
    throw std::runtime_error(args[0] + " failed (" + std::to_string(r.exit_code) + "): " + r.out +
                             r.err);
  return r;
}

std::string SoftHsm::add_token(const std::string& label, const std::string& pin,
                               const std::string& so_pin) {
  tool({"softhsm2-util", "--init-token", "--free", "--label", label, "--pin", pin, "--so-pin",
        so_pin});
  std::string encoded;
  for (unsigned char c : label) {
    if (std::isalnum(c)) {
      encoded.push_back(static_cast<char>(c));
    } else {
      char buf[4];
      std::snprintf(buf, sizeof buf, "%%%02X", c);
      encoded += buf;
    }
  }
  return "pkcs11:token=" + encoded;
}

void SoftHsm::delete_token(const std::string& label) {
  tool({"softhsm2-util", "--delete-token", "--token", label});
}

std::string SoftHsm::pin_file(const std::string& pin) {
  std::string path = dir_ / ("pin-" + std::to_string(++files_));
  write_file(path, pin + "\n");
  ::chmod(path.c_str(), 0600);
  return path;
}

void SoftHsm::put_key(const std::string& token, const TestCert& tc, const std::string& id_hex,
                      const std::string& label, const std::vector<std::string>& extra,
                      const std::string& pin) {
  std::string key = dir_ / ("key-" + std::to_string(++files_) + ".p8");
  Bytes der = tc.pkcs8();
  write_file(key, der);
  wipe(der);
  std::vector<std::string> args = {
      "pkcs11-tool",    "--module", module(), "--token-label", token,  "--login", "--pin",   pin,
      "--write-object", key,        "--type", "privkey",       "--id", id_hex,    "--label", label};
  args.insert(args.end(), extra.begin(), extra.end());
  tool(args);
  std::filesystem::remove(key);
}

void SoftHsm::put_public_key(const std::string& token, const TestCert& tc,
                             const std::string& id_hex, const std::string& label,
                             const std::string& pin) {
  std::string path = dir_ / ("pub-" + std::to_string(++files_) + ".der");
  write_file(path, tc.cert.public_key_der());
  tool({"pkcs11-tool", "--module", module(), "--token-label", token, "--login", "--pin", pin,
        "--write-object", path, "--type", "pubkey", "--id", id_hex, "--label", label});
}

void SoftHsm::put_cert(const std::string& token, const Certificate& cert, const std::string& id_hex,
                       const std::string& label, const std::string& pin) {
  std::string path = dir_ / ("cert-" + std::to_string(++files_) + ".der");
  write_file(path, cert.der());
  tool({"pkcs11-tool", "--module", module(), "--token-label", token, "--login", "--pin", pin,
        "--write-object", path, "--type", "cert", "--id", id_hex, "--label", label});
}

std::string SoftHsm::list_objects(const std::string& token, const std::string& pin) {
  return tool({"pkcs11-tool", "--module", module(), "--token-label", token, "--login", "--pin", pin,
               "--list-objects"})
      .out;
}

}  // namespace tessarel::test
