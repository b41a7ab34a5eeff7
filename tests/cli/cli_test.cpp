// The command line as a person or a script uses it: help, exit codes, stdout/stderr split,
// JSON, password sources, and never waiting for an answer that cannot come.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <sstream>

#include "platform/crypto/pkcs12.h"
#include "test_support.h"

namespace tessarel {
namespace {

using test::run;

test::CommandResult tessarel_cli(const std::vector<std::string>& args,
                                 const std::vector<std::string>& env = {}) {
  std::vector<std::string> argv{test::cli_path()};
  argv.insert(argv.end(), args.begin(), args.end());
  return run(argv, env);
}

bool valid_json(const std::string& text) {
  test::TempDir d;
  test::write_file(d / "j.json", text);
  return test::run({"/usr/bin/python3", "-c", "import json,sys; json.load(open(sys.argv[1]))",
                    d / "j.json"})
             .exit_code == 0;
}

TEST(Cli, HelpEverywhereAndUsageErrorsExitTwo) {
  for (std::string command : {"",
                              "hash",
                              "cert",
                              "cert list",
                              "cert show",
                              "cert remove",
                              "cert import",
                              "cert export",
                              "cert new",
                              "cert pick",
                              "sign",
                              "verify",
                              "extract",
                              "archive",
                              "archive add",
                              "archive list",
                              "archive verify",
                              "archive delete",
                              "pdf",
                              "pdf sign",
                              "pdf verify",
                              "demo"}) {
    std::vector<std::string> args;
    std::istringstream words(command);
    for (std::string w; words >> w;)
      args.push_back(w);
    args.push_back("--help");
    auto r = tessarel_cli(args);
    EXPECT_EQ(r.exit_code, 0) << command;
    EXPECT_NE(r.out.find("Usage"), std::string::npos) << command;
  }
  EXPECT_EQ(tessarel_cli({}).exit_code, 2);
  EXPECT_EQ(tessarel_cli({"hash"}).exit_code, 2);
  EXPECT_EQ(tessarel_cli({"--ui", "bogus", "hash", "x"}).exit_code, 2);
  EXPECT_EQ(tessarel_cli({"cert", "show"}).exit_code, 2);
  auto r = tessarel_cli({"no-such-command"});
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_NE(r.err.find("unknown command: no-such-command"), std::string::npos) << r.err;
  r = tessarel_cli({"cert", "lst"});
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_NE(r.err.find("unknown command: lst"), std::string::npos) << r.err;
  r = tessarel_cli({"--frobnicate", "hash", "x"});
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_NE(r.err.find("--frobnicate"), std::string::npos) << r.err;
}

TEST(Cli, HashPrintsDataOnStdoutAndErrorsOnStderr) {
  test::TempDir d;
  test::write_file(d / "a.txt", "abc");
  auto r = tessarel_cli({"hash", d / "a.txt", d / "missing.txt", d / "a.txt"});
  EXPECT_EQ(r.exit_code, 1);
  std::string line =
      "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD  " + (d / "a.txt") + "\n";
  EXPECT_EQ(r.out, line + line);
  EXPECT_NE(r.err.find("File origine dei dati non trovato: " + (d / "missing.txt")),
            std::string::npos);

  r = tessarel_cli({"--json", "hash", d / "a.txt"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_TRUE(valid_json(r.out)) << r.out;
  EXPECT_NE(r.out.find("\"sha256\": \"BA7816BF"), std::string::npos);
}

class CliStore : public ::testing::Test {
 protected:
  static test::TestCert make() {
    test::CertParams params;
    params.cn = "Carla Bruni";
    params.serial = {0x5E, 0x11};
    return test::make_cert(params);
  }
  void SetUp() override {
    store_ = dir_ / "MY";
    pfx_ = dir_ / "in.pfx";
    test::write_file(pfx_, crypto::write_pkcs12(tc_.cert, tc_.key, "pw one"));
  }
  test::CommandResult cli(std::vector<std::string> args, const std::vector<std::string>& env = {}) {
    args.insert(args.begin(), {"--store", store_});
    return tessarel_cli(args, env);
  }
  test::TempDir dir_;
  std::string store_;
  std::string pfx_;
  test::TestCert tc_ = make();
};

TEST_F(CliStore, ImportExportWithEveryPasswordSource) {
  auto r = cli({"cert", "import", pfx_, "--password", "wrong:x"});
  EXPECT_EQ(r.exit_code, 2);
  // A real password on the command line is refused before anything is read.
  r = cli({"cert", "import", pfx_, "--password", "pass:pw one"});
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_NE(r.err.find("visible to other users"), std::string::npos) << r.err;
  EXPECT_EQ(r.err.find("pw one"), std::string::npos) << r.err;
  r = cli({"cert", "import", pfx_, "--password", "env:PFX_PW"}, {"PFX_PW=not it"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("Wrong password"), std::string::npos) << r.err;
  EXPECT_FALSE(std::filesystem::exists(store_));

  r = cli({"cert", "import", pfx_, "--password", "env:PFX_PW"}, {"PFX_PW=pw one"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "5E11\n");

  test::write_file(dir_ / "pw.txt", "exported pw\n");
  r = cli({"cert", "export", "5E11", "-o", dir_ / "out.pfx", "--password",
           "file:" + (dir_ / "pw.txt")});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  struct stat st {};
  ASSERT_EQ(stat((dir_ / "out.pfx").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  auto back = crypto::read_pkcs12(test::read_bytes(dir_ / "out.pfx"), "exported pw");
  EXPECT_EQ(back.certificate, tc_.cert);
  EXPECT_FALSE(std::filesystem::exists(dir_ / "out.pfx.tmp"));

  // fd:N reads the password from an open descriptor.
  auto s = test::run_shell(test::cli_path() + " --store " + store_ + " cert export 5E11 -o " +
                           (dir_ / "fd.pfx") + " --password fd:3 3<" + (dir_ / "pw.txt"));
  ASSERT_EQ(s.exit_code, 0) << s.err;
  EXPECT_NO_THROW(crypto::read_pkcs12(test::read_bytes(dir_ / "fd.pfx"), "exported pw"));
}

TEST_F(CliStore, NoTerminalMeansNoPromptAndNoWaiting) {
  // stdin is /dev/null: a missing password source is a cancelled prompt, not a hang.
  auto r = cli({"cert", "import", pfx_});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("cancelled"), std::string::npos) << r.err;
  EXPECT_FALSE(std::filesystem::exists(store_));
}

TEST_F(CliStore, ListShowAndRemove) {
  ASSERT_EQ(cli({"cert", "import", pfx_, "--password", "env:PFX_PW"}, {"PFX_PW=pw one"}).exit_code,
            0);
  auto r = cli({"--json", "cert", "list"});
  ASSERT_EQ(r.exit_code, 0);
  EXPECT_TRUE(valid_json(r.out)) << r.out;
  EXPECT_NE(r.out.find("\"id\": \"5E11\""), std::string::npos);
  EXPECT_NE(r.out.find("\"private_key\": true"), std::string::npos);

  r = cli({"cert", "show", "5E11", "--json"});
  ASSERT_EQ(r.exit_code, 0);
  EXPECT_TRUE(valid_json(r.out)) << r.out;
  EXPECT_NE(r.out.find("\"private_key_valid\": true"), std::string::npos);

  r = cli({"cert", "show", "5e11"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("upper-case"), std::string::npos) << r.err;

  r = cli({"cert", "show", "5E11", "--pem"});
  EXPECT_EQ(r.out, tc_.cert.pem());

  // Without a terminal the confirmation is refused; the entry and its key stay.
  r = cli({"cert", "remove", "5E11"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(cli({"cert", "list"}).out.substr(0, 4), "5E11");
  r = cli({"cert", "remove", "--yes", "5E11"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(cli({"cert", "list"}).out, "");
}

}  // namespace
}  // namespace tessarel
