// The non-interactive front end: every dialog behaves as if it were closed without an
// answer, messages go to stderr. Never blocks, never aborts.
#pragma once

#include "tessarel/ui.h"

namespace tessarel {

class NoneUi : public Ui {
 public:
  const char* name() const override { return "none"; }
  ModalResult message_box(MessageKind kind, MessageButtons buttons,
                          const std::string& text) override;
  ModalResult password(TPasswordRequestForm& form) override;
  void overwrite_choice(TSignFileOverriteDlg& dlg) override;
  ModalResult record_deletion(TSignCancRegDlg& dlg) override;
  ModalResult certificate_picker(TfrmSelWinCert& picker) override;
  void certificate_wizard(TfrmGenerateCert& wizard) override;
  void busy_cursor(bool) override {}
  void progress_text(const std::string&) override {}
  void beep() override {}
};

// The text of a message box as written to a terminal or log: "error: text".
std::string message_line(MessageKind kind, const std::string& text);

}  // namespace tessarel
