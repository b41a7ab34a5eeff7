// The command line on a terminal: the picker and the wizard answered by typing, as a
// person at a terminal would; and the same commands without a terminal.
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

#include "test_support.h"

namespace tessarel {
namespace {

struct PtyRun {
  int exit_code = -1;
  std::string screen;
};

// Runs the command line on a new pseudo-terminal, typing keys once the prompt containing
// `wait_for` is on the screen.
PtyRun on_terminal(const std::vector<std::string>& args, const std::string& wait_for,
                   const std::string& keys) {
  int master = -1;
  pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
  if (pid == 0) {
    // The terminal is under test, not the desktop dialogs.
    unsetenv("DISPLAY");
    unsetenv("WAYLAND_DISPLAY");
    std::vector<char*> argv;
    for (const auto& a : args)
      argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  PtyRun r;
  bool typed = false;
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  char buf[4096];
  while (std::chrono::steady_clock::now() < end) {
    pollfd p{master, POLLIN, 0};
    if (poll(&p, 1, 100) > 0) {
      ssize_t n = ::read(master, buf, sizeof buf);
      if (n <= 0) {  // the terminal closed: the program has ended
        int status = 0;
        waitpid(pid, &status, 0);
        r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        break;
      }
      r.screen.append(buf, static_cast<std::size_t>(n));
    }
    if (!typed && r.screen.find(wait_for) != std::string::npos) {
      (void)!::write(master, keys.data(), keys.size());
      typed = true;
    }
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) {
      while (poll(&p, 1, 50) > 0) {
        ssize_t n = ::read(master, buf, sizeof buf);
        if (n <= 0) break;
        r.screen.append(buf, static_cast<std::size_t>(n));
      }
      r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      break;
    }
  }
  ::close(master);
  if (r.exit_code < 0) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  return r;
}

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
