// The terminal front end: dialogs are drawn and answered on the controlling terminal
// (/dev/tty), so they work even when stdin and stdout carry data. Passwords are read
// without echo.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "tessarel/ui.h"

namespace tessarel {

class TerminalUi : public Ui {
 public:
  // Null when the process has no controlling terminal.
  static std::shared_ptr<TerminalUi> open();
  // Over given descriptors (tests drive it through a pseudo-terminal).
  TerminalUi(int in_fd, int out_fd, bool owns);
  ~TerminalUi() override;

  const char* name() const override { return "terminal"; }
  ModalResult message_box(MessageKind kind, MessageButtons buttons,
                          const std::string& text) override;
  ModalResult password(TPasswordRequestForm& form) override;
  void overwrite_choice(TSignFileOverriteDlg& dlg) override;
  ModalResult record_deletion(TSignCancRegDlg& dlg) override;
  ModalResult certificate_picker(TfrmSelWinCert& picker) override;
  void certificate_wizard(TfrmGenerateCert& wizard) override;
  void busy_cursor(bool) override {}
  void progress_text(const std::string& text) override;
  void beep() override;

  // Line input and output, for the front ends of the larger dialogs.
  void write(const std::string& text);
  // One line without its line break; nullopt at end of input. echo=false hides typing.
  std::optional<std::string> read_line(bool echo = true);
  // Asks until the answer is one of the buttons; nullopt at end of input.
  std::optional<ModalResult> ask_buttons(MessageButtons buttons);

 private:
  int in_ = -1;
  int out_ = -1;
  bool owns_ = false;
};

}  // namespace tessarel
