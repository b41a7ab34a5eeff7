#include <cstdio>
#include <mutex>

#include "platform/runtime/strings.h"
#include "platform/ui/default_ui.h"
#include "platform/ui/none_ui.h"
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
DefaultUiFactory& default_factory() {
  static DefaultUiFactory f = nullptr;
  return f;
}
}  // namespace

void register_default_ui_factory(DefaultUiFactory factory) {
  std::lock_guard lock(ui_mutex());
  default_factory() = factory;
}

void setUi(std::shared_ptr<Ui> ui) {
  std::lock_guard lock(ui_mutex());
  installed() = std::move(ui);
}

Ui& currentUi() {
  std::lock_guard lock(ui_mutex());
  auto& ui = installed();
  if (!ui) {
    DefaultUiFactory f = default_factory();
    ui = f ? f() : std::make_shared<NoneUi>();
  }
  return *ui;
}

}  // namespace tessarel
