// The scripted front end: answers come from queues that a test fills beforehand, and every
// dialog shown is recorded. A dialog that needs an answer when its queue is empty raises
// std::logic_error, so a test never hangs and never passes on an unexpected question.
#pragma once

#include <deque>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tessarel/ui.h"

namespace tessarel {

class ScriptedUi : public Ui {
 public:
  struct Shown {
    std::string dialog;  // "message", "password", "overwrite", "deletion", "picker", "wizard"
    MessageKind kind = MessageKind::Plain;
    MessageButtons buttons = MessageButtons::Ok;
    std::string text;
  };

  const char* name() const override { return "scripted"; }

  // Answers for message boxes with more than an OK button (boxes with only OK need none).
  void answer_message(ModalResult r) { messages_.push_back(r); }
  // Answers for the password form: the text typed and how the form is closed.
  void answer_password(std::string text, ModalResult r = ModalResult::Ok);
  // Answers for the overwrite question: the item to select (-1: leave the default) and
  // whether the form is closed with OK or with the close box.
  void answer_overwrite(int item, bool close_box = false);
  // Answers for the record-deletion dialog: type index, Id text, result.
  void answer_deletion(int type_index, std::string id, ModalResult r = ModalResult::Ok);
  // Actions for the picker and the wizard, which have models of their own. The picker has
  // been shown (FormShow) when its action runs; the action ends it with one of its buttons
  // (a picker left open counts as closed with the close box).
  void answer_picker(std::function<void(TfrmSelWinCert&)> action) {
    pickers_.push_back(std::move(action));
  }
  void answer_wizard(std::function<void(TfrmGenerateCert&)> action) {
    wizards_.push_back(std::move(action));
  }

  ModalResult message_box(MessageKind kind, MessageButtons buttons,
                          const std::string& text) override;
  ModalResult password(TPasswordRequestForm& form) override;
  void overwrite_choice(TSignFileOverriteDlg& dlg) override;
  ModalResult record_deletion(TSignCancRegDlg& dlg) override;
  ModalResult certificate_picker(TfrmSelWinCert& picker) override;
  void certificate_wizard(TfrmGenerateCert& wizard) override;
  void busy_cursor(bool busy) override { busy_log.push_back(busy); }
  void progress_text(const std::string& text) override { progress.push_back(text); }
  void beep() override { ++beeps; }

  // What was shown, in order.
  std::vector<Shown> shown;
  std::vector<std::string> progress;
  std::vector<bool> busy_log;
  int beeps = 0;
  // Messages only (dialog == "message").
  std::vector<Shown> messages() const;
  // True when every queued answer was used.
  bool all_answers_used() const;

 private:
  struct PasswordAnswer {
    std::string text;
    ModalResult result;
  };
  struct OverwriteAnswer {
    int item;
    bool close_box;
  };
  struct DeletionAnswer {
    int type_index;
    std::string id;
    ModalResult result;
  };
  std::deque<ModalResult> messages_;
  std::deque<PasswordAnswer> passwords_;
  std::deque<OverwriteAnswer> overwrites_;
  std::deque<DeletionAnswer> deletions_;
  std::deque<std::function<void(TfrmSelWinCert&)>> pickers_;
  std::deque<std::function<void(TfrmGenerateCert&)>> wizards_;
};

}  // namespace tessarel
