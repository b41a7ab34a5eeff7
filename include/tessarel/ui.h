// The user interface seen by the library. Every dialog and message goes through the Ui
// installed with setUi(); a host that installs nothing gets the front end named by the
// TESSAREL_UI environment variable ("auto", "qt", "terminal", "none"), else "auto".
#ifndef TESSAREL_UI_H
#define TESSAREL_UI_H

#include <memory>
#include <string>

#include "tessarel/dialogs.h"
#include "tessarel/export.h"

namespace tessarel {

enum class MessageKind {
  Error,         // error icon
  Information,   // information icon
  Confirmation,  // question icon
  Plain,         // no icon
};

enum class MessageButtons { Ok, OkCancel, YesNo };

class TESSAREL_API Ui {
 public:
  virtual ~Ui();
  virtual const char* name() const = 0;

  // A modal message box; returns the button pressed.
  virtual ModalResult message_box(MessageKind kind, MessageButtons buttons,
                                  const std::string& text) = 0;
  // Shows the password form modally; the front end fills edtPassword and closes it.
  virtual ModalResult password(TPasswordRequestForm& form) = 0;
  // Shows the overwrite question; the caller reads dlg.ItemIndex afterwards.
  virtual void overwrite_choice(TSignFileOverriteDlg& dlg) = 0;
  // Shows the record-deletion dialog.
  virtual ModalResult record_deletion(TSignCancRegDlg& dlg) = 0;
  // Shows the certificate picker; returns its modal result.
  virtual ModalResult certificate_picker(TfrmSelWinCert& picker) = 0;
  // Runs the certificate wizard until it closes.
  virtual void certificate_wizard(TfrmGenerateCert& wizard) = 0;
  // Hourglass cursor on or off.
  virtual void busy_cursor(bool busy) = 0;
  // Progress text of a long operation ("3/10 file.txt"), shown at once.
  virtual void progress_text(const std::string& text) = 0;
  virtual void beep() = 0;
};

// Installs the Ui for the whole process; nullptr returns to the default choice.
TESSAREL_API void setUi(std::shared_ptr<Ui> ui);
// The Ui in use.
TESSAREL_API Ui& currentUi();
// A front end by name:
//   "auto"     desktop dialogs when a display is available (WAYLAND_DISPLAY or DISPLAY) and
//              the Qt front end (libtessarel-qt) is installed; else the terminal when
//              standard input is one; else "none".
//   "qt"       desktop dialogs; parented to the host's active window when the host runs a
//              QApplication, else in a private one. When no display can be used it says why
//              once on stderr and falls back as "auto" would without a display.
//   "terminal" prompts on /dev/tty; "none" when there is no terminal.
//   "none"     never asks: every dialog ends as if closed without an answer.
// Unknown names give "none" with a warning.
TESSAREL_API std::shared_ptr<Ui> make_ui(const std::string& name);

}  // namespace tessarel

#endif
