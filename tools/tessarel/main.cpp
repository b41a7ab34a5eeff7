// tessarel: the command line over libtessarel.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <mutex>

#include "cli.h"
#include "tessarel/tessarel.h"

namespace tessarel::cli {

namespace {
struct Entry {
  int order;
  Registrar registrar;
};
std::vector<Entry>& registry() {
  static std::vector<Entry> r;
  return r;
}
int g_exit = 0;
std::vector<std::pair<CLI::App*, std::function<void()>>>& actions() {
  static std::vector<std::pair<CLI::App*, std::function<void()>>> a;
  return a;
}

// Forwards to the chosen front end and shows progress on stderr. The front end is made on
// first use: commands that ask nothing never load a toolkit or connect to a display.
class CliUi : public Ui {
 public:
  explicit CliUi(std::string name) : name_(std::move(name)), tty_(isatty(2)) {}
  ~CliUi() override { finish_progress(); }
  const char* name() const override { return inner().name(); }
  ModalResult message_box(MessageKind k, MessageButtons b, const std::string& t) override {
    finish_progress();
    if (k == MessageKind::Confirmation && globals().assume_yes) {
      std::fprintf(stderr, "%s (yes)\n", t.c_str());
      return b == MessageButtons::YesNo ? ModalResult::Yes : ModalResult::Ok;
    }
    return inner().message_box(k, b, t);
  }
  ModalResult password(TPasswordRequestForm& f) override {
    finish_progress();
    return inner().password(f);
  }
  void overwrite_choice(TSignFileOverriteDlg& d) override {
    finish_progress();
    if (globals().overwrite_answer >= 0) {
      d.select(globals().overwrite_answer);
      d.OKBtnClick();
      return;
    }
    inner().overwrite_choice(d);
    // Nobody was asked, yet an archived file is about to be replaced: say so.
    if (std::string(inner().name()) == "none" && (d.ItemIndex == 0 || d.ItemIndex == 1))
      std::fprintf(stderr, "tessarel: overwriting the archived copy of %s (no terminal to ask)\n",
                   globals().current_file.empty() ? "a file" : globals().current_file.c_str());
  }
  ModalResult record_deletion(TSignCancRegDlg& d) override {
    finish_progress();
    if (!globals().deletion_type.empty()) {
      for (std::size_t i = 0; i < d.ComboBox1.size(); ++i)
        if (d.ComboBox1[i] == globals().deletion_type) d.select(static_cast<int>(i));
      if (d.selected_type() != globals().deletion_type) {
        std::fprintf(stderr, "tessarel: error: the index has no type %s\n",
                     globals().deletion_type.c_str());
        d.CancelBtnClick();
        return d.modal_result();
      }
      d.Edit1 = globals().deletion_id;
      d.OKBtnClick();
      return d.modal_result();
    }
    return inner().record_deletion(d);
  }
  ModalResult certificate_picker(TfrmSelWinCert& p) override {
    finish_progress();
    return inner().certificate_picker(p);
  }
  void certificate_wizard(TfrmGenerateCert& w) override {
    finish_progress();
    inner().certificate_wizard(w);
  }
  void busy_cursor(bool b) override { inner().busy_cursor(b); }
  void progress_text(const std::string& text) override {
    if (globals().quiet) return;
    if (tty_) {
      std::fprintf(stderr, "\r%s\x1b[K", text.c_str());
      open_line_ = true;
    } else {
      std::fprintf(stderr, "%s\n", text.c_str());
    }
  }
  void beep() override { inner().beep(); }

 private:
  void finish_progress() {
    if (open_line_) std::fputc('\n', stderr);
    open_line_ = false;
  }
  Ui& inner() const {
    std::call_once(made_, [this] { inner_ = make_ui(name_); });
    return *inner_;
  }
  std::string name_;
  mutable std::once_flag made_;
  mutable std::shared_ptr<Ui> inner_;
  bool tty_;
  bool open_line_ = false;
};

void install_ui() {
  std::string name = globals().ui;
  if (name.empty()) {
    const char* env = std::getenv("TESSAREL_UI");
    // "auto" never waits for an answer that cannot come: without a display or a terminal on
    // stdin, no prompts.
    name = env && *env ? env : "auto";
  }
  setUi(std::make_shared<CliUi>(name));
}
}  // namespace

Globals& globals() {
  static Globals g;
  return g;
}

CommandRegistration::CommandRegistration(int order, Registrar registrar) {
  registry().push_back({order, std::move(registrar)});
}

void on_run(CLI::App* command, std::function<void()> action) {
  actions().emplace_back(command, std::move(action));
}

void set_exit_code(int code) {
  if (code > g_exit) g_exit = code;
}
int exit_code() {
  return g_exit;
}

void info(const std::string& message) {
  if (!globals().quiet) std::fprintf(stderr, "%s\n", message.c_str());
}

void error(const std::string& message) {
  std::fprintf(stderr, "tessarel: error: %s\n", message.c_str());
  set_exit_code(1);
}

bool json() {
  return globals().json;
}

}  // namespace tessarel::cli

int main(int argc, char** argv) {
  using namespace tessarel::cli;
  CLI::App app{
      "tessarel: sign files into CMS envelopes, keep a signed document archive, manage "
      "certificates"};
  app.set_version_flag("--version", std::string("tessarel ") + tessarel::version());
  app.require_subcommand(1);
  app.fallthrough();
  app.add_option("--store", globals().store,
                 "Certificate store: a folder, or a PKCS#11 URI (pkcs11:token=...) for a smart "
                 "card or HSM (default: $TESSAREL_STORE, else ~/.local/share/tessarel/MY)");
  app.add_option("--pin", globals().pin,
                 "Where the PIN of a PKCS#11 token comes from: env:VAR, file:PATH or fd:N (else "
                 "asked when needed)")
      ->check(pin_source());
  app.add_option("--ui", globals().ui,
                 "Dialogs: auto, qt, terminal or none (default: $TESSAREL_UI, else auto: "
                 "desktop dialogs on a display, else the terminal when stdin is one, else none)")
      ->check(CLI::IsMember({"auto", "none", "terminal", "qt"}));
  app.add_flag("--json", globals().json, "Structured output as JSON where the command has any");
  app.add_flag("-q,--quiet", globals().quiet, "No progress or informational messages");

  auto& entries = registry();
  std::stable_sort(entries.begin(), entries.end(),
                   [](const auto& a, const auto& b) { return a.order < b.order; });
  for (auto& e : entries)
    e.registrar(app);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // A mistyped command or option is left over as an extra word; name it rather than
    // complaining that a command is required.
    if (dynamic_cast<const CLI::RequiredError*>(&e)) {
      CLI::App* deepest = &app;
      while (!deepest->get_subcommands().empty())
        deepest = deepest->get_subcommands().front();
      auto extra = deepest->remaining();
      if (extra.empty()) extra = app.remaining();
      if (!extra.empty()) {
        bool option = extra.front().rfind('-', 0) == 0;
        std::fprintf(stderr, "tessarel: unknown %s: %s\nRun with --help for more information.\n",
                     option ? "option" : "command", extra.front().c_str());
        return 2;
      }
    }
    int rc = app.exit(e);
    return rc == 0 ? 0 : 2;
  }
  try {
    if (!globals().store.empty()) tessarel::set_store_location(globals().store);
    if (!globals().pin.empty()) use_pin_source(globals().pin);
    install_ui();
    bool ran = false;
    for (auto& [command, action] : actions()) {
      if (command->parsed()) {
        action();
        ran = true;
      }
    }
    if (!ran) {
      // A command group given without one of its commands.
      for (auto* sub : app.get_subcommands())
        std::fprintf(stderr, "%s", sub->help().c_str());
      return 2;
    }
  } catch (const std::exception& e) {
    error(e.what());
  }
  std::fflush(stdout);
  forget_pin();
  tessarel::setUi(nullptr);
  return exit_code();
}
