// The Qt front end on a real X server (Xvfb, xcb platform) in a private QApplication, what
// happens when the display is missing or broken, and the pictures of the forms.
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
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
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
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
  bool timed_out = false;
  std::string out, err;
};

std::string slurp(const std::string& path) {
  std::ifstream f(path);
  std::ostringstream text;
  text << f.rdbuf();
  return text.str();
}

// Waits for a child for at most limit; a child still running then is killed. Returns the
// exit code (128+n for a signal).
int wait_child(pid_t pid, std::chrono::seconds limit, bool& timed_out) {
  const auto end = std::chrono::steady_clock::now() + limit;
  int status = 0;
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > end) {
      timed_out = true;
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      break;
    }
    std::this_thread::sleep_for(20ms);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Runs argv with stdin from /dev/null, stderr into err_file and stdout into out_file (or
// nowhere); a run that outlasts limit is killed and counts as timed out.
Outcome run(const std::vector<std::string>& argv, const std::string& err_file,
            std::chrono::seconds limit = 60s, const std::string& out_file = "") {
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
  if (out_file.empty())
    posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
  else
    posix_spawn_file_actions_addopen(&fa, 1, out_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&fa, 2, err_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  std::vector<char*> args;
  for (const auto& a : argv)
    args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  Outcome r;
  if (posix_spawnp(&pid, args[0], &fa, nullptr, args.data(), environ) == 0)
    r.exit_code = wait_child(pid, limit, r.timed_out);
  posix_spawn_file_actions_destroy(&fa);
  r.err = slurp(err_file);
  if (!out_file.empty()) r.out = slurp(out_file);
  return r;
}

// A program on a pseudo-terminal of its own, as a person at a terminal runs it.
class OnTerminal {
 public:
  explicit OnTerminal(const std::vector<std::string>& argv) {
    std::vector<char*> args;
    for (const auto& a : argv)
      args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_ = forkpty(&master_, nullptr, nullptr, nullptr);
    if (pid_ == 0) {
      execv(args[0], args.data());
      _exit(127);
    }
  }
  ~OnTerminal() {
    if (pid_ > 0 && running_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (master_ >= 0) close(master_);
  }
  OnTerminal(const OnTerminal&) = delete;
  OnTerminal& operator=(const OnTerminal&) = delete;

  // Reads the screen until it shows text; false when the limit passes first.
  bool wait_for(const std::string& text, std::chrono::seconds limit = 30s) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (screen_.find(text) == std::string::npos) {
      if (std::chrono::steady_clock::now() > end) return false;
      read_some(100);
    }
    return true;
  }
  void type(const std::string& keys) {
    ASSERT_EQ(::write(master_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }
  // The exit code, or -1 when the program is still running after limit (it is then killed).
  int finish(std::chrono::seconds limit = 30s) {
    const auto end = std::chrono::steady_clock::now() + limit;
    int status = 0;
    while (waitpid(pid_, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > end) return -1;
      read_some(50);
    }
    running_ = false;
    while (read_some(0)) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  bool started() const { return pid_ > 0 && master_ >= 0; }
  const std::string& screen() const { return screen_; }

 private:
  bool read_some(int wait_ms) {
    pollfd p{master_, POLLIN, 0};
    if (poll(&p, 1, wait_ms) <= 0) return false;
    char buf[4096];
    ssize_t n = ::read(master_, buf, sizeof buf);
    if (n <= 0) return false;
    screen_.append(buf, static_cast<std::size_t>(n));
    return true;
  }
  pid_t pid_ = -1;
  int master_ = -1;
  bool running_ = true;
  std::string screen_;
};

std::size_t count(const std::string& haystack, const std::string& needle) {
  std::size_t n = 0;
  for (auto at = haystack.find(needle); at != std::string::npos; at = haystack.find(needle, at + 1))
    ++n;
  return n;
}

void no_display() {
  unsetenv("DISPLAY");
  unsetenv("WAYLAND_DISPLAY");
  unsetenv("QT_QPA_PLATFORM");
}

TEST(QtDisplay, ABrokenDisplayFallsBackAndSaysWhyOnce) {
  test::TempDir dir;
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
  // Platforms that show no window to a person, forced while a display is set: each falls
  // back with one line saying why, never aborts the host, never leaves a dialog that
  // nobody can see waiting for ever.
  for (const char* platform : {"eglfs", "linuxfb", "offscreen", "minimal", "vnc"}) {
    no_display();
    setenv("DISPLAY", ":4093", 1);
    setenv("QT_QPA_PLATFORM", platform, 1);
    Outcome forced =
        run({TESSAREL_CLI_PATH, "--store", store, "cert", "pick"}, dir.path() + "/err", 30s);
    EXPECT_FALSE(forced.timed_out) << platform;
    EXPECT_EQ(forced.exit_code, 1) << platform << ": " << forced.err;
    EXPECT_EQ(count(forced.err, "warning"), 1u) << platform << ": " << forced.err;
    EXPECT_EQ(count(forced.err, "no desktop dialogs: "), 1u) << platform << ": " << forced.err;
    EXPECT_NE(forced.err.find(std::string("\"") + platform + "\""), std::string::npos)
        << forced.err;
  }
  // No display at all: "auto" quietly means no dialogs.
  no_display();
  r = run({TESSAREL_CLI_PATH, "--store", store, "cert", "pick"}, dir.path() + "/err");
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err.find("warning"), std::string::npos) << r.err;
}

TEST(QtDisplay, EveryFormIsPicturedAtItsLayoutSize) {
  test::TempDir dir;
  qt_test::private_environment(dir.path());
  // The renderer's temporary home goes inside the test's folder too.
  std::filesystem::create_directories(dir.path() + "/tmp");
  setenv("TMPDIR", (dir.path() + "/tmp").c_str(), 1);
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

// Without its Qt front end the program pictures nothing, says why, and leaves no temporary
// home folder behind.
TEST(QtDisplay, WithoutTheQtFrontEndNothingIsPicturedAndNoTemporaryHomeIsLeft) {
  test::TempDir dir;
  qt_test::private_environment(dir.path());
  // The library alone in a folder of its own, found before the build's (a RUNPATH).
  Dl_info library{};
  auto make = static_cast<std::shared_ptr<Ui> (*)(const std::string&)>(&make_ui);
  ASSERT_NE(dladdr(reinterpret_cast<void*>(make), &library), 0);
  std::filesystem::create_directories(dir.path() + "/lib");
  std::filesystem::create_directories(dir.path() + "/tmp");
  std::filesystem::copy_file(library.dli_fname, dir.path() + "/lib/libtessarel.so.0");
  setenv("LD_LIBRARY_PATH", (dir.path() + "/lib").c_str(), 1);
  setenv("TMPDIR", (dir.path() + "/tmp").c_str(), 1);
  Outcome r = run({TESSAREL_RENDER_FORMS_PATH, dir.path() + "/shots"}, dir.path() + "/err");
  unsetenv("LD_LIBRARY_PATH");
  unsetenv("TMPDIR");
  if (r.exit_code == 0) GTEST_SKIP() << "an installed Qt front end was found";
  EXPECT_EQ(r.exit_code, 1) << r.err;
  EXPECT_NE(r.err.find("the Qt front end cannot be loaded"), std::string::npos) << r.err;
  EXPECT_TRUE(std::filesystem::is_empty(dir.path() + "/tmp"));
  EXPECT_TRUE(std::filesystem::is_empty(dir.path() + "/shots"));
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
// be stopped after the child's Qt has gone rather than under it. The child is a host that
// asks for dialogs from more than one thread: first from its main thread, or only from
// worker threads, and leaves with a dialog still open. A dialog that never opens shows as
// a child killed at the time limit.
TEST(QtDisplay, DialogsOpenOnARealXServerInAPrivateApplicationFromAnyThread) {
  if (!test::have_program("Xvfb") || !test::have_program("xauth"))
    GTEST_SKIP() << "Xvfb or xauth is not installed";
  test::TempDir dir;
  qt_test::private_environment(dir.path());
  Xvfb x(dir.path());
  ASSERT_FALSE(x.display().empty()) << "Xvfb did not start";
  no_display();
  setenv("DISPLAY", x.display().c_str(), 1);
  setenv("XAUTHORITY", x.authority().c_str(), 1);
  for (const char* mode : {"main-first", "workers-only"}) {
    const std::string home = dir.path() + "/" + mode;
    std::filesystem::create_directories(home);
    setenv("TESSAREL_QT_CHILD", home.c_str(), 1);
    setenv("TESSAREL_QT_CHILD_MODE", mode, 1);
    Outcome r = run({"/proc/self/exe"}, home + "/child.err", 90s);
    EXPECT_FALSE(r.timed_out) << mode << ": a dialog never came back\n" << r.err;
    EXPECT_EQ(r.exit_code, 0) << mode << "\n" << r.err;
    EXPECT_NE(r.err.find("child: xcb"), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("FAILED"), std::string::npos) << r.err;
    // Qt took the library's GUI thread for its main thread, and nothing of that thread
    // was touched from another one, at exit either.
    EXPECT_EQ(r.err.find("not created in the main() thread"), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("another thread"), std::string::npos) << r.err;
  }
  unsetenv("TESSAREL_QT_CHILD");
  unsetenv("TESSAREL_QT_CHILD_MODE");
}

// The names of the top-level windows on the X server, as xwininfo lists them.
std::string x_windows(const std::string& dir) {
  return run({"xwininfo", "-root", "-tree"}, dir + "/xwininfo.err", 30s, dir + "/xwininfo.out").out;
}

// With a display at hand, auto opens a window; TESSAREL_UI=terminal asks on the terminal
// and TESSAREL_UI=none asks nothing, and neither opens a window.
TEST(QtDisplay, TheUiVariableOverridesTheDesktopWhenADisplayIsThere) {
  if (!test::have_program("Xvfb") || !test::have_program("xauth") ||
      !test::have_program("xwininfo"))
    GTEST_SKIP() << "Xvfb, xauth or xwininfo is not installed";
  test::TempDir dir;
  qt_test::private_environment(dir.path());
  Xvfb x(dir.path());
  ASSERT_FALSE(x.display().empty()) << "Xvfb did not start";
  no_display();
  setenv("DISPLAY", x.display().c_str(), 1);
  setenv("XAUTHORITY", x.authority().c_str(), 1);
  unsetenv("TESSAREL_UI");
  const std::string store = dir.path() + "/Archivio \xC3\xA8/MY";
  Outcome made =
      run({TESSAREL_CLI_PATH, "--store", store, "cert", "new", "--cn", "Uno", "--key", "ec"},
          dir.path() + "/new.err", 60s, dir.path() + "/new.out");
  ASSERT_EQ(made.exit_code, 0) << made.err;
  const std::string id = made.out.substr(0, made.out.find('\n'));
  const std::string title = "\"Seleziona certificato\"";
  const std::vector<std::string> pick = {TESSAREL_CLI_PATH, "--store", store, "cert", "pick"};

  {  // auto: the desktop window, nothing on the terminal
    OnTerminal t(pick);
    ASSERT_TRUE(t.started());
    bool shown = false;
    const auto end = std::chrono::steady_clock::now() + 60s;
    while (!shown && std::chrono::steady_clock::now() < end)
      shown = x_windows(dir.path()).find(title) != std::string::npos;
    EXPECT_TRUE(shown) << "auto opened no window on " << x.display();
    EXPECT_EQ(t.screen().find("== Seleziona certificato =="), std::string::npos) << t.screen();
  }
  {  // terminal
    setenv("TESSAREL_UI", "terminal", 1);
    OnTerminal t(pick);
    ASSERT_TRUE(t.started());
    ASSERT_TRUE(t.wait_for("> ")) << t.screen();
    EXPECT_EQ(x_windows(dir.path()).find(title), std::string::npos);
    t.type("0\nok\n");
    EXPECT_EQ(t.finish(), 0) << t.screen();
    EXPECT_NE(t.screen().find("== Seleziona certificato =="), std::string::npos) << t.screen();
    // The caption names the store, as the desktop form's does.
    EXPECT_NE(
        t.screen().find("Certificati installati nell'archivio personale Tessarel (" + store + ")"),
        std::string::npos)
        << t.screen();
    EXPECT_NE(t.screen().find(id + "\r\n"), std::string::npos) << t.screen();
  }
  {  // none: nothing asked, nothing chosen, at once
    setenv("TESSAREL_UI", "none", 1);
    Outcome r = run(pick, dir.path() + "/none.err", 30s, dir.path() + "/none.out");
    EXPECT_FALSE(r.timed_out);
    EXPECT_EQ(r.exit_code, 1) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.find("no desktop dialogs"), std::string::npos) << r.err;
    EXPECT_EQ(x_windows(dir.path()).find(title), std::string::npos);
  }
  unsetenv("TESSAREL_UI");
}

// Schedules action for the next dialog, on the thread that shows the dialogs.
void answer_next(std::function<void(QDialog*)> action) {
  QMetaObject::invokeMethod(
      qApp, [action] { qt::when_shown<QDialog>(action); }, Qt::QueuedConnection);
}

// Asks for a password through ui, typed into the form by the GUI thread.
bool typed_password_arrives(Ui& ui, const std::string& typed) {
  answer_next([typed](QDialog* d) {
    auto* edit = qt::control<QLineEdit>(d, "edtPassword");
    QTest::keyClicks(edit, QString::fromStdString(typed));
    QTest::keyClick(edit, Qt::Key_Return);
  });
  TPasswordRequestForm form;
  return ui.password(form) == ModalResult::Ok && form.edtPassword == typed;
}

// The child: a host with no QApplication of its own and no Ui installed.
int run_child(const std::string& dir, const std::string& mode) {
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
  auto pick_second = [&] {
    answer_next([](QDialog* d) {
      auto* list = qt::control<QTreeWidget>(d, "lvCerificates");
      QTest::mouseClick(list->viewport(), Qt::LeftButton, {},
                        list->visualItemRect(list->topLevelItem(1)).center());
      QTest::mouseClick(qt::control<QPushButton>(d, "btnOK"), Qt::LeftButton);
    });
    char* result = nullptr;
    SelezionaCertificato(&result, false);
    bool ok = result && second.id() == result;
    std::free(result);
    return ok;
  };
  // The first dialog is asked by the main thread, or by a worker while the main thread
  // only waits; then by other workers in turn, each of which ends before the next.
  auto in_thread = [](const std::function<void()>& f) {
    std::thread t(f);
    t.join();
  };
  auto first = [&] {
    Ui& ui = currentUi();
    check(std::string(ui.name()) == "qt", std::string("auto chose ") + ui.name());
    if (std::string(ui.name()) != "qt") return;
    check(qApp != nullptr, "a private application was created");
    std::fprintf(stderr, "child: %s\n", QGuiApplication::platformName().toUtf8().constData());
    check(pick_second(), "the picker returned the chosen certificate");
    check(typed_password_arrives(ui, "segreto"), "the password typed on the X server");
  };
  if (mode == "workers-only")
    in_thread(first);
  else
    first();
  if (failures) return 1;
  Ui& ui = currentUi();
  in_thread([&] { check(pick_second(), "the picker asked by a worker thread"); });
  in_thread([&] { check(typed_password_arrives(ui, "dal primo"), "a first worker's password"); });
  in_thread([&] { check(typed_password_arrives(ui, "dal secondo"), "a second worker's"); });
  if (mode != "workers-only")
    check(typed_password_arrives(ui, "di nuovo"), "the main thread's again after the workers");

  // The host leaves while a worker thread still waits for a dialog: the dialog is closed,
  // and the process ends normally, with nothing of the GUI thread destroyed elsewhere.
  // Outlives the exit; held by a global so that the leak check sees it is meant.
  static std::shared_ptr<Ui>* worker_ui = nullptr;
  worker_ui = new std::shared_ptr<Ui>(make_ui("qt"));
  std::atomic<bool> open{false};
  answer_next([&open](QDialog*) { open = true; });
  std::thread([] {
    TPasswordRequestForm left_open;
    (*worker_ui)->password(left_open);
  }).detach();
  const auto end = std::chrono::steady_clock::now() + 30s;
  while (!open && std::chrono::steady_clock::now() < end)
    std::this_thread::sleep_for(10ms);
  check(open, "the worker's dialog opened");
  std::fflush(stderr);
  return failures == 0 ? 0 : 1;
}

}  // namespace
}  // namespace tessarel

int main(int argc, char** argv) {
  if (const char* child = std::getenv("TESSAREL_QT_CHILD")) {
    const char* mode = std::getenv("TESSAREL_QT_CHILD_MODE");
    return tessarel::run_child(child, mode ? mode : "main-first");
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
