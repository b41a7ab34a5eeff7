#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "platform/runtime/strings.h"
#include "platform/runtime/warnings.h"
#include "platform/ui/none_ui.h"
#include "platform/ui/terminal_ui.h"
#include "tessarel/ui.h"

namespace tessarel {

Ui::~Ui() = default;

std::string message_line(MessageKind kind, const std::string& text) {
  const char* prefix = "";
  switch (kind) {
    case MessageKind::Error:
      prefix = "error: ";
      break;
    case MessageKind::Information:
      prefix = "";
      break;
    case MessageKind::Confirmation:
      prefix = "question: ";
      break;
    case MessageKind::Plain:
      prefix = "";
      break;
  }
  // CR LF from report texts becomes plain line feeds on a terminal.
  return prefix + replace_all(text, "\r\n", "\n");
}

ModalResult NoneUi::message_box(MessageKind kind, MessageButtons buttons, const std::string& text) {
  std::fprintf(stderr, "%s\n", message_line(kind, text).c_str());
  switch (buttons) {
    case MessageButtons::Ok:
      return ModalResult::Ok;
    case MessageButtons::OkCancel:
      return ModalResult::Cancel;
    case MessageButtons::YesNo:
      return ModalResult::No;
  }
  return ModalResult::Cancel;
}

ModalResult NoneUi::password(TPasswordRequestForm& form) {
  form.btnCancelClick();
  return form.modal_result();
}

void NoneUi::overwrite_choice(TSignFileOverriteDlg& dlg) {
  dlg.close_box();
}

ModalResult NoneUi::record_deletion(TSignCancRegDlg& dlg) {
  dlg.CancelBtnClick();
  return dlg.modal_result();
}

ModalResult NoneUi::certificate_picker(TfrmSelWinCert&) {
  return ModalResult::Cancel;
}

void NoneUi::certificate_wizard(TfrmGenerateCert&) {}

namespace {
std::mutex& ui_mutex() {
  static std::mutex m;
  return m;
}
std::shared_ptr<Ui>& installed() {
  static std::shared_ptr<Ui> ui;
  return ui;
}
}  // namespace

std::shared_ptr<Ui> make_ui(const std::string& name) {
  if (name.empty() || name == "none") return std::make_shared<NoneUi>();
  if (name == "terminal") {
    if (auto t = TerminalUi::open()) return t;
    return std::make_shared<NoneUi>();
  }
  if (name == "qt")
    warn("this build has no Qt front end; dialogs are answered as if cancelled");
  else
    warn("unknown user interface '" + name + "'; dialogs are answered as if cancelled");
  return std::make_shared<NoneUi>();
}

void setUi(std::shared_ptr<Ui> ui) {
  std::lock_guard lock(ui_mutex());
  installed() = std::move(ui);
}

Ui& currentUi() {
  std::lock_guard lock(ui_mutex());
  auto& ui = installed();
  if (!ui) {
    const char* env = std::getenv("TESSAREL_UI");
    ui = make_ui(env ? env : "none");
  }
  return *ui;
}

}  // namespace tessarel
