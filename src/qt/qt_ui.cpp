// The Qt front end: the Ui whose dialogs are the forms of forms.h, and the entry points that
// the core finds with dlsym. It never creates a QApplication that could abort the host: the
// platform plugin and the display are checked first.
//
// Threads. Qt wants every widget on the thread that created the QApplication, and that
// thread must keep running an event loop for dialogs asked from other threads. A host that
// runs its own QApplication has such a thread: dialogs go there. Otherwise the library
// starts a GUI thread of its own on first use; it creates the application, runs its event
// loop for the rest of the process, and every dialog, from whichever host thread, is posted
// to it while the caller waits for the answer.
//
// Platforms. Only those that show a window to the person at the desktop are used (xcb,
// wayland). Tests that want forms on the offscreen platform create their own QApplication,
// as a host does; the library never picks offscreen by itself.
#include <dlfcn.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <QApplication>
#include <QDir>
#include <QFileInfo>
#include <QLibraryInfo>
#include <QMessageBox>
#include <QThread>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "frontends/qt_entry.h"
#include "qt/forms.h"
#include "tessarel/ui.h"

#define TESSAREL_QT_EXPORT extern "C" __attribute__((visibility("default")))

namespace tessarel::qt {

namespace {

bool private_application_usable();
void keep_exit_handler_first();

// Runs f on the thread that owns the application's widgets, waiting for it. Once the
// library's own GUI thread is ending (the process is exiting) nothing is shown: the dialog
// ends as if closed without an answer.
template <typename F>
auto on_gui_thread(F f) -> decltype(f()) {
  decltype(f()) result{};
  if (!private_application_usable()) return result;
  QCoreApplication* app = QCoreApplication::instance();
  if (!app) return result;
  if (QThread::currentThread() == app->thread()) {
    result = f();
  } else {
    std::exception_ptr error;
    QMetaObject::invokeMethod(
        app,
        [&] {
          try {
            result = f();
          } catch (...) {
            error = std::current_exception();
          }
        },
        Qt::BlockingQueuedConnection);
    if (error) std::rethrow_exception(error);
  }
  keep_exit_handler_first();
  return result;
}

// Dialogs belong to the host's window in front, when it has one.
QWidget* host_window() {
  if (QWidget* w = QApplication::activeModalWidget()) return w;
  return QApplication::activeWindow();
}

class QtUi : public Ui {
 public:
  const char* name() const override { return "qt"; }

  ModalResult message_box(MessageKind kind, MessageButtons buttons,
                          const std::string& message) override {
    return on_gui_thread([&] {
      QMessageBox box(host_window());
      box.setWindowTitle(QStringLiteral("Tessarel"));
      box.setText(text(message.c_str()));
      switch (kind) {
        case MessageKind::Error:
          box.setIcon(QMessageBox::Critical);
          break;
        case MessageKind::Information:
          box.setIcon(QMessageBox::Information);
          break;
        case MessageKind::Confirmation:
          box.setIcon(QMessageBox::Question);
          break;
        case MessageKind::Plain:
          box.setIcon(QMessageBox::NoIcon);
          break;
      }
      switch (buttons) {
        case MessageButtons::Ok:
          box.setStandardButtons(QMessageBox::Ok);
          break;
        case MessageButtons::OkCancel:
          box.setStandardButtons(QMessageBox::Ok | QMessageBox::Cancel);
          break;
        case MessageButtons::YesNo:
          box.setStandardButtons(QMessageBox::Yes | QMessageBox::No);
          break;
      }
      switch (box.exec()) {
        case QMessageBox::Ok:
          return ModalResult::Ok;
        case QMessageBox::Yes:
          return ModalResult::Yes;
        case QMessageBox::No:
          return ModalResult::No;
        default:
          // The close box of a Yes/No question answers No.
          return buttons == MessageButtons::YesNo ? ModalResult::No : ModalResult::Cancel;
      }
    });
  }

  ModalResult password(TPasswordRequestForm& model) override {
    return on_gui_thread([&] {
      PasswordForm form(model, host_window());
      form.run();
      return model.modal_result();
    });
  }

  void overwrite_choice(TSignFileOverriteDlg& model) override {
    on_gui_thread([&] {
      OverwriteForm form(model, host_window());
      form.run();
      return 0;
    });
  }

  ModalResult record_deletion(TSignCancRegDlg& model) override {
    return on_gui_thread([&] {
      DeletionForm form(model, host_window());
      form.run();
      return model.modal_result();
    });
  }

  ModalResult certificate_picker(TfrmSelWinCert& model) override {
    return on_gui_thread([&] {
      PickerForm form(model, host_window());
      model.FormShow();
      form.fill();
      form.run();
      if (model.modal_result() == ModalResult::None) model.close_box();
      return model.modal_result();
    });
  }

  void certificate_wizard(TfrmGenerateCert& model) override {
    on_gui_thread([&] {
      WizardForm form(model, host_window());
      form.run();
      if (model.modal_result() == ModalResult::None) model.close_box();
      return 0;
    });
  }

  void busy_cursor(bool busy) override {
    on_gui_thread([&] {
      if (busy) {
        QApplication::setOverrideCursor(Qt::WaitCursor);
        ++busy_;
      } else if (busy_ > 0) {
        QApplication::restoreOverrideCursor();
        --busy_;
      }
      return 0;
    });
  }

  void progress_text(const std::string& text) override {
    std::fprintf(stderr, "%s\n", text.c_str());
  }

  void beep() override {
    on_gui_thread([] {
      QApplication::beep();
      return 0;
    });
  }

 private:
  int busy_ = 0;
};

// ---------------------------------------------------------------------------------------
// Before a QApplication exists: which platform plugin, and can it reach its display?

std::vector<QString> plugin_directories() {
  std::vector<QString> dirs;
  if (const char* p = std::getenv("QT_QPA_PLATFORM_PLUGIN_PATH"); p && *p)
    dirs.push_back(QString::fromLocal8Bit(p));
  if (const char* p = std::getenv("QT_PLUGIN_PATH"); p && *p)
    for (const QString& d : QString::fromLocal8Bit(p).split(':', Qt::SkipEmptyParts))
      dirs.push_back(d + "/platforms");
  dirs.push_back(QLibraryInfo::path(QLibraryInfo::PluginsPath) + "/platforms");
  return dirs;
}

bool plugin_installed(const QString& platform) {
  QStringList files;
  if (platform == "wayland")
    files << "libqwayland-generic.so"
          << "libqwayland-egl.so";
  else
    files << "libq" + platform + ".so";
  for (const QString& dir : plugin_directories())
    for (const QString& f : files)
      if (QFileInfo::exists(dir + "/" + f)) return true;
  return false;
}

// Connects to the X server the way the xcb plugin will, so that an unreachable or
// unauthorised display is found here rather than by a fatal error inside Qt.
bool x_display_reachable(std::string& why) {
  const char* display = std::getenv("DISPLAY");
  void* xcb = dlopen("libxcb.so.1", RTLD_NOW | RTLD_LOCAL);
  if (!xcb) {
    why = "libxcb is not installed";
    return false;
  }
  using Connect = void* (*)(const char*, int*);
  using HasError = int (*)(void*);
  using Disconnect = void (*)(void*);
  auto connect = reinterpret_cast<Connect>(dlsym(xcb, "xcb_connect"));
  auto has_error = reinterpret_cast<HasError>(dlsym(xcb, "xcb_connection_has_error"));
  auto disconnect = reinterpret_cast<Disconnect>(dlsym(xcb, "xcb_disconnect"));
  bool ok = false;
  if (connect && has_error && disconnect) {
    void* c = connect(nullptr, nullptr);
    ok = c && has_error(c) == 0;
    if (c) disconnect(c);
  }
  dlclose(xcb);
  if (!ok) why = std::string("cannot open the X display \"") + (display ? display : "") + "\"";
  return ok;
}

bool wayland_reachable(std::string& why) {
  const char* name = std::getenv("WAYLAND_DISPLAY");
  std::string path = name ? name : "wayland-0";
  if (path.front() != '/') {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (!runtime || !*runtime) {
      why = "XDG_RUNTIME_DIR is not set, so the Wayland display cannot be found";
      return false;
    }
    path = std::string(runtime) + "/" + path;
  }
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) {
    why = "the Wayland socket path is too long";
    return false;
  }
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  bool ok = fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  if (fd >= 0) ::close(fd);
  if (!ok) why = "cannot connect to the Wayland display \"" + path + "\"";
  return ok;
}

// Platforms that show a window to the person at the desktop. The others draw nowhere
// (offscreen, minimal), on a console framebuffer that a desktop session does not show and
// whose plugins abort the process when they cannot open it (eglfs, linuxfb), or for a
// network client (vnc): a dialog there would wait for an answer that cannot come.
bool shows_windows(const QString& name) {
  return name == "xcb" || name.startsWith("wayland");
}

// A platform that can be used here, or empty with the reason.
QString usable_platform(std::string& why) {
  auto check = [&](const QString& spec) {
    const QString name = spec.section(':', 0, 0);
    if (!shows_windows(name)) {
      why = "the Qt platform \"" + name.toStdString() +
            "\" shows no window on a desktop (QT_QPA_PLATFORM)";
      return false;
    }
    if (!plugin_installed(name)) {
      why = "the Qt platform plugin \"" + name.toStdString() + "\" is not installed";
      return false;
    }
    if (name == "xcb") return x_display_reachable(why);
    return wayland_reachable(why);
  };
  if (const char* forced = std::getenv("QT_QPA_PLATFORM"); forced && *forced) {
    for (const QString& spec : QString::fromLocal8Bit(forced).split(';', Qt::SkipEmptyParts))
      if (check(spec)) return spec;
    return {};
  }
  const char* wayland = std::getenv("WAYLAND_DISPLAY");
  const char* x = std::getenv("DISPLAY");
  if (wayland && *wayland && check("wayland")) return "wayland";
  std::string wayland_why = why;
  if (x && *x && check("xcb")) return "xcb";
  if (!(x && *x))
    why = wayland_why.empty() ? "no display (DISPLAY and WAYLAND_DISPLAY are unset)" : wayland_why;
  return {};
}

// The library's own application and the thread that runs it.
struct PrivateApplication {
  enum class State { NotStarted, Starting, Running, Stopping, Failed, Finished };
  std::mutex m;
  std::condition_variable cv;
  State state = State::NotStarted;
  std::string why;
  std::thread* thread = nullptr;  // never destroyed, joined at exit
};

PrivateApplication& private_application() {
  // Never destroyed: the exit handler below and a late caller may still look at it.
  static auto* p = new PrivateApplication;
  return *p;
}

void set_state(PrivateApplication::State state, std::string why = {}) {
  PrivateApplication& p = private_application();
  std::lock_guard lock(p.m);
  p.state = state;
  p.why = std::move(why);
  p.cv.notify_all();
}

// At the process's exit the GUI thread leaves its event loop (an open dialog is closed),
// deletes the application and ends before Qt's globals are destroyed: they hold objects of
// that thread, with timers, which may only go there. A thread that does not end soon is
// left as it is.
void stop_gui_thread_at_exit() {
  PrivateApplication& p = private_application();
  {
    std::lock_guard lock(p.m);
    if (p.state != PrivateApplication::State::Running ||
        p.thread->get_id() == std::this_thread::get_id())
      return;
    p.state = PrivateApplication::State::Stopping;
    p.why = "the process is exiting";
  }
  QMetaObject::invokeMethod(
      qApp, [] { QCoreApplication::exit(0); }, Qt::QueuedConnection);
  timespec deadline{};
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += 5;
  pthread_timedjoin_np(p.thread->native_handle(), nullptr, &deadline);
}

// Exit handlers run last registered first, and Qt registers the destructors of its globals
// when they are first used, which may be during any dialog. Registering the handler again
// after each dialog keeps it ahead of them. (A few bytes per dialog shown.)
void keep_exit_handler_first() {
  PrivateApplication& p = private_application();
  std::lock_guard lock(p.m);
  if (p.state == PrivateApplication::State::Running) std::atexit(stop_gui_thread_at_exit);
}

void gui_thread() {
  // Everything Qt is first touched here, so that Qt takes this thread for its main thread.
  std::string why;
  QString platform = usable_platform(why);
  if (platform.isEmpty()) {
    set_state(PrivateApplication::State::Failed, why);
    return;
  }
  static int argc = 3;
  static std::string arg0 = "tessarel", arg1 = "-platform", arg2;
  arg2 = platform.toStdString();
  static char* argv[] = {arg0.data(), arg1.data(), nullptr, nullptr};
  argv[2] = arg2.data();
  auto* app = new QApplication(argc, argv);
  // Closing a dialog is not the end of the application.
  QApplication::setQuitOnLastWindowClosed(false);
  QCoreApplication::setQuitLockEnabled(false);
  set_state(PrivateApplication::State::Running);
  keep_exit_handler_first();
  app->exec();
  set_state(PrivateApplication::State::Finished, "the desktop dialogs were closed down");
  // Dialogs asked meanwhile are dropped with the application's pending events, which
  // releases their callers.
  delete app;
}

bool private_application_usable() {
  PrivateApplication& p = private_application();
  std::lock_guard lock(p.m);
  return p.state == PrivateApplication::State::NotStarted ||
         p.state == PrivateApplication::State::Running;
}

bool start_private_application(std::string& why) {
  PrivateApplication& p = private_application();
  std::unique_lock lock(p.m);
  if (p.state == PrivateApplication::State::NotStarted) {
    p.state = PrivateApplication::State::Starting;
    p.thread = new std::thread(gui_thread);
  }
  p.cv.wait(lock, [&] { return p.state != PrivateApplication::State::Starting; });
  if (p.state == PrivateApplication::State::Running) return true;
  why = p.why;
  return false;
}

bool ensure_application(std::string& why) {
  {
    PrivateApplication& p = private_application();
    std::lock_guard lock(p.m);
    if (p.state != PrivateApplication::State::NotStarted) {
      if (p.state == PrivateApplication::State::Running) return true;
      if (p.state != PrivateApplication::State::Starting) {
        why = p.why;
        return false;
      }
    }
  }
  if (QCoreApplication* app = QCoreApplication::instance()) {
    if (qobject_cast<QApplication*>(app)) return true;
    why = "the host runs a Qt application without widgets";
    return false;
  }
  return start_private_application(why);
}

}  // namespace

}  // namespace tessarel::qt

TESSAREL_QT_EXPORT int tessarel_qt_abi() {
  return tessarel::qt_entry::kAbi;
}

TESSAREL_QT_EXPORT tessarel::Ui* tessarel_qt_create_ui(char* why, std::size_t why_size) {
  std::string reason;
  try {
    if (tessarel::qt::ensure_application(reason)) return new tessarel::qt::QtUi;
  } catch (const std::exception& e) {
    reason = e.what();
  }
  if (why && why_size) std::snprintf(why, why_size, "%s", reason.c_str());
  return nullptr;
}
