// The command line on a terminal: the picker and the wizard answered by typing, as a
// person at a terminal would; and the same commands without a terminal.
#include <gtest/gtest.h>
#include <unistd.h>

#include "test_support.h"

namespace tessarel {
namespace {

using test::on_terminal;

class InteractiveCli : public ::testing::Test {
 protected:
  test::CommandResult cli(std::vector<std::string> args) {
    args.insert(args.begin(), {test::cli_path(), "--store", dir_ / "MY"});
    return test::run(args);
  }
  test::TempDir dir_;
};

TEST_F(InteractiveCli, ThePickerPrintsTheChosenIdentifier) {
  ASSERT_EQ(cli({"cert", "new", "--cn", "Primo", "--key", "ec"}).exit_code, 0);
  std::string second = cli({"cert", "new", "--cn", "Secondo", "--key", "ec"}).out;
  second.pop_back();
  auto r = on_terminal({test::cli_path(), "--store", dir_ / "MY", "cert", "pick"}, "> ", "1\nok\n");
  EXPECT_EQ(r.exit_code, 0) << r.screen;
  EXPECT_NE(r.screen.find("Seleziona certificato"), std::string::npos) << r.screen;
  EXPECT_NE(r.screen.find("Certificati installati nell'archivio personale Tessarel (" +
                          dir_ / "MY" + ")"),
            std::string::npos)
      << r.screen;
  EXPECT_NE(r.screen.find(second + "\r\n"), std::string::npos) << r.screen;

  auto cancelled =
      on_terminal({test::cli_path(), "--store", dir_ / "MY", "cert", "pick"}, "> ", "c\n");
  EXPECT_EQ(cancelled.exit_code, 1);
  // Without a terminal nothing is asked and nothing is chosen.
  EXPECT_EQ(cli({"cert", "pick"}).exit_code, 1);
}

TEST_F(InteractiveCli, TheWizardGeneratesACertificateFromTypedAnswers) {
  auto r = on_terminal({test::cli_path(), "--store", dir_ / "MY", "cert", "new", "--interactive"},
                       "Nome certificato",
                       "Lucia Neri\nNapoli\nNA\n\nStudio Neri\nlucia@example.org\na\n\n\na\ng\n");
  EXPECT_EQ(r.exit_code, 0) << r.screen;
  auto list = cli({"cert", "list"});
  EXPECT_NE(list.out.find("CN=Lucia Neri"), std::string::npos) << list.out;
  EXPECT_EQ(cli({"cert", "new", "--interactive"}).exit_code,
            1);  // no terminal: refused, not blocked
}

}  // namespace
}  // namespace tessarel
