// The Qt front end on a real X server (Xvfb, xcb platform) in a private QApplication, what
// happens when the display is missing or broken, and the pictures of the forms.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QDialog>
#include <QGuiApplication>
#include <QImage>
#include <QLineEdit>
#include <QPushButton>
#include <QTest>
#include <QTreeWidget>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include "qt/drive.h"
#include "qt_support.h"

extern char** environ;

namespace tessarel {
namespace {

using namespace std::chrono_literals;

struct Outcome {
  int exit_code = -1;
  std::string err;
};

// Runs argv with stdin from /dev/null and stdout discarded; returns the exit code (128+n
// for a signal) and what went to stderr.
Outcome run(const std::vector<std::string>& argv, const std::string& err_file) {
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&fa, 2, err_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  std::vector<char*> args;
  for (const auto& a : argv)
    args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  Outcome r;
  if (posix_spawnp(&pid, args[0], &fa, nullptr, args.data(), environ) == 0) {
    int status = 0;
    waitpid(pid, &status, 0);
    r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  posix_spawn_file_actions_destroy(&fa);
  std::ifstream f(err_file);
  std::ostringstream err;
  err << f.rdbuf();
  r.err = err.str();
  return r;
}

std::size_t count(const std::string& haystack, const std::string& needle) {
  std::size_t n = 0;
  for (auto at = haystack.find(needle); at != std::string::npos; at = haystack.find(needle, at + 1))
    ++n;
  return n;
}

bool on_path(const std::string& program) {
  const char* path = std::getenv("PATH");
  std::string p = path ? path : "";
  std::size_t start = 0;
  while (start <= p.size()) {
    std::size_t end = p.find(':', start);
    if (end == std::string::npos) end = p.size();
    if (access((p.substr(start, end - start) + "/" + program).c_str(), X_OK) == 0) return true;
    start = end + 1;
  }
  return false;
}

void no_display() {
  unsetenv("DISPLAY");
  unsetenv("WAYLAND_DISPLAY");
  unsetenv("QT_QPA_PLATFORM");
}

TEST(QtDisplay, ABrokenDisplayFallsBackAndSaysWhyOnce) {
  qt_test::TempFolder dir;
  qt_test::private_environment(dir.path());
  no_display();
  setenv("DISPLAY", ":4093", 1);  // no server answers there
  const std::string store = dir.path() + "/MY";
  for (std::vector<std::string> extra : {std::vector<std::string>{}, {"--ui", "qt"}}) {
    std::vector<std::string> argv = {TESSAREL_CLI_PATH, "--store", store};
    argv.insert(argv.end(), extra.begin(), extra.end());
    argv.insert(argv.end(), {"cert", "pick"});
    Outcome r = run(argv, dir.path() + "/err");
    EXPECT_EQ(r.exit_code, 1) << r.err;  // nothing chosen; above all, no abort
    EXPECT_EQ(count(r.err, "cannot open the X display \":4093\""), 1u) << r.err;
  }
  // Only a Wayland display, without the Wayland platform plugin or with no socket.
  no_display();
  setenv("WAYLAND_DISPLAY", "wayland-tessarel-test", 1);
  Outcome r =
      run({TESSAREL_CLI_PATH, "--store", store, "--ui", "qt", "cert", "pick"}, dir.path() + "/err");
  EXPECT_EQ(r.exit_code, 1) << r.err;
  EXPECT_EQ(count(r.err, "no desktop dialogs: "), 1u) << r.err;
  EXPECT_NE(r.err.find("ayland"), std::string::npos) << r.err;  // names the Wayland side
  // No display at all: "auto" quietly means no dialogs.
  no_display();
  r = run({TESSAREL_CLI_PATH, "--store", store, "cert", "pick"}, dir.path() + "/err");
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err.find("warning"), std::string::npos) << r.err;
}

TEST(QtDisplay, EveryFormIsPicturedAtItsLayoutSize) {
  qt_test::TempFolder dir;
  qt_test::private_environment(dir.path());
  Outcome r = run({TESSAREL_RENDER_FORMS_PATH, dir.path() + "/shots"}, dir.path() + "/err");
  ASSERT_EQ(r.exit_code, 0) << r.err;
  const std::pair<const char*, QSize> pictures[] = {
      {"password", {306, 72}},          {"password-typed", {306, 72}},
      {"overwrite", {384, 186}},        {"overwrite-item3", {384, 186}},
      {"deletion", {259, 141}},         {"deletion-filled", {259, 141}},
      {"picker", {514, 426}},           {"picker-selected", {514, 426}},
      {"wizard-subject", {500, 420}},   {"wizard-subject-filled", {500, 420}},
      {"wizard-period", {500, 420}},    {"wizard-generate", {500, 420}},
      {"wizard-generating", {500, 420}}};
  for (const auto& [name, size] : pictures) {
    QImage image(QString::fromStdString(dir.path() + "/shots/" + name + ".png"));
    EXPECT_EQ(image.size(), size) << name;
    // A picture of a form is not blank: its text and frames differ from the background.
    if (!image.isNull()) {
      QRgb background = image.pixel(image.width() - 2, image.height() / 2);
      int other = 0;
      for (int y = 0; y < image.height(); y += 3)
        for (int x = 0; x < image.width(); x += 3)
          if (image.pixel(x, y) != background) ++other;
      EXPECT_GT(other, 50) << name;
    }
  }
}

// An X server of our own on a free display number, with its authority file in dir.
class Xvfb {
 public:
  explicit Xvfb(const std::string& dir) {
    std::random_device rd;
    std::string cookie;
    for (int i = 0; i < 16; ++i) {
      char hex[3];
      std::snprintf(hex, sizeof hex, "%02x", rd() & 0xff);
      cookie += hex;
    }
    auth_ = dir + "/Xauthority";
    for (int attempt = 0, n = 40 + static_cast<int>(getpid() % 400); attempt < 10; ++attempt, ++n) {
      const std::string lock = "/tmp/.X" + std::to_string(n) + "-lock";
      const std::string socket = "/tmp/.X11-unix/X" + std::to_string(n);
      if (access(lock.c_str(), F_OK) == 0 || access(socket.c_str(), F_OK) == 0) continue;
      const std::string display = ":" + std::to_string(n);
      if (run({"xauth", "-f", auth_, "add", display, ".", cookie}, dir + "/xauth.log").exit_code !=
          0)
        return;
      posix_spawn_file_actions_t fa;
      posix_spawn_file_actions_init(&fa);
      posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
      posix_spawn_file_actions_addopen(&fa, 1, (dir + "/xvfb.log").c_str(),
                                       O_WRONLY | O_CREAT | O_TRUNC, 0600);
      posix_spawn_file_actions_adddup2(&fa, 1, 2);
      std::vector<std::string> argv = {"Xvfb", display,   "-auth", auth_,         "-nolisten",
                                       "tcp",  "-screen", "0",     "1024x768x24", "-noreset"};
      std::vector<char*> args;
      for (auto& a : argv)
        args.push_back(a.data());
      args.push_back(nullptr);
      pid_t pid = -1;
      int rc = posix_spawnp(&pid, "Xvfb", &fa, nullptr, args.data(), environ);
      posix_spawn_file_actions_destroy(&fa);
      if (rc != 0) return;
      for (int i = 0; i < 200; ++i) {
        if (access(socket.c_str(), F_OK) == 0) {
          pid_ = pid;
          display_ = display;
          return;
        }
        if (waitpid(pid, nullptr, WNOHANG) == pid) break;  // lost a race for the number
        std::this_thread::sleep_for(50ms);
      }
      if (waitpid(pid, nullptr, WNOHANG) == 0) {
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
      }
    }
  }
  ~Xvfb() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
  }
  Xvfb(const Xvfb&) = delete;
  Xvfb& operator=(const Xvfb&) = delete;
  const std::string& display() const { return display_; }
  const std::string& authority() const { return auth_; }

 private:
  pid_t pid_ = -1;
  std::string display_, auth_;
};

// The desktop side runs in a child process (this program again), so that the X server can
// be stopped after the child's Qt has gone rather than under it.
TEST(QtDisplay, DialogsOpenOnARealXServerInAPrivateApplication) {
  if (!on_path("Xvfb") || !on_path("xauth")) GTEST_SKIP() << "Xvfb or xauth is not installed";
  qt_test::TempFolder dir;
  qt_test::private_environment(dir.path());
  Xvfb x(dir.path());
  ASSERT_FALSE(x.display().empty()) << "Xvfb did not start";
  no_display();
  setenv("DISPLAY", x.display().c_str(), 1);
  setenv("XAUTHORITY", x.authority().c_str(), 1);
  setenv("TESSAREL_QT_CHILD", dir.path().c_str(), 1);
  Outcome r = run({"/proc/self/exe"}, dir.path() + "/child.err");
  unsetenv("TESSAREL_QT_CHILD");
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.err.find("child: xcb"), std::string::npos) << r.err;
}

// The child: a host with no QApplication of its own and no Ui installed.
int run_child(const std::string& dir) {
  int failures = 0;
  auto check = [&](bool ok, const std::string& what) {
    if (!ok) {
      std::fprintf(stderr, "child: FAILED: %s\n", what.c_str());
      ++failures;
    }
  };
  set_store_location(dir + "/MY");
  NewCertificateOptions o;
  o.key = KeyKind::Ec;
  o.common_name = "Uno";
  CreateSelfSignedCertificate(o, *personal_store());
  o.common_name = "Due";
  Certificate second = CreateSelfSignedCertificate(o, *personal_store());

  check(QCoreApplication::instance() == nullptr, "no application before the first dialog");
  // A host that installs nothing: the library's default, auto, picks the desktop dialogs.
  unsetenv("TESSAREL_UI");
  Ui& ui = currentUi();
  check(std::string(ui.name()) == "qt", std::string("auto chose ") + ui.name());
  if (std::string(ui.name()) != "qt") return 1;
  check(qApp != nullptr, "a private application was created");
  std::fprintf(stderr, "child: %s\n", QGuiApplication::platformName().toUtf8().constData());

  qt::when_shown<QDialog>([](QDialog* d) {
    auto* list = qt::control<QTreeWidget>(d, "lvCerificates");
    QTest::mouseClick(list->viewport(), Qt::LeftButton, {},
                      list->visualItemRect(list->topLevelItem(1)).center());
    QTest::mouseClick(qt::control<QPushButton>(d, "btnOK"), Qt::LeftButton);
  });
  char* result = nullptr;
  SelezionaCertificato(&result, false);
  check(result && second.id() == result, "the picker returned the chosen certificate");
  std::free(result);

  TPasswordRequestForm form;
  qt::when_shown<QDialog>([](QDialog* d) {
    auto* edit = qt::control<QLineEdit>(d, "edtPassword");
    QTest::keyClicks(edit, "segreto");
    QTest::keyClick(edit, Qt::Key_Return);
  });
  check(ui.password(form) == ModalResult::Ok && form.edtPassword == "segreto",
        "the password typed on the X server");
  std::fflush(stderr);
  // Leave without running Qt's teardown against a server that is about to go.
  _exit(failures == 0 ? 0 : 1);
}

}  // namespace
}  // namespace tessarel

int main(int argc, char** argv) {
  if (const char* child = std::getenv("TESSAREL_QT_CHILD")) return tessarel::run_child(child);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
