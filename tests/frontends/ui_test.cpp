// The front ends without a toolkit: what "no answer" means for each dialog, and the
// terminal front end driven through a real pseudo-terminal.
#include <gtest/gtest.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <thread>

#include "frontends/scripted_ui.h"
#include "frontends/terminal_ui.h"
#include "platform/ui/none_ui.h"
#include "test_support.h"

namespace tessarel {
namespace {

TEST(NoneUi, EveryDialogEndsAsIfClosedWithoutAnAnswer) {
  NoneUi ui;
  testing::internal::CaptureStderr();
  EXPECT_EQ(ui.message_box(MessageKind::Error, MessageButtons::Ok, "boom"), ModalResult::Ok);
  EXPECT_EQ(ui.message_box(MessageKind::Confirmation, MessageButtons::OkCancel, "sure?"),
            ModalResult::Cancel);
  EXPECT_EQ(ui.message_box(MessageKind::Confirmation, MessageButtons::YesNo, "sure?"),
            ModalResult::No);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("boom"), std::string::npos);

  TPasswordRequestForm pw;
  EXPECT_EQ(ui.password(pw), ModalResult::Cancel);
  TSignFileOverriteDlg ow;
  ui.overwrite_choice(ow);
  EXPECT_EQ(ow.ItemIndex, 0);  // the preselected item counts
  TSignCancRegDlg del;
  del.ComboBox1 = {"Contratti"};
  del.ItemIndex = 0;
  EXPECT_EQ(ui.record_deletion(del), ModalResult::Cancel);
}

TEST(ScriptedUi, AnswersInOrderAndRefusesUnexpectedQuestions) {
  ScriptedUi ui;
  ui.answer_message(ModalResult::Ok);
  ui.answer_password("pw", ModalResult::Ok);
  ui.answer_overwrite(3);
  EXPECT_EQ(ui.message_box(MessageKind::Information, MessageButtons::Ok, "info"), ModalResult::Ok);
  EXPECT_EQ(ui.message_box(MessageKind::Confirmation, MessageButtons::OkCancel, "q"),
            ModalResult::Ok);
  TPasswordRequestForm pw;
  EXPECT_EQ(ui.password(pw), ModalResult::Ok);
  EXPECT_EQ(pw.edtPassword, "pw");
  TSignFileOverriteDlg ow;
  ui.overwrite_choice(ow);
  EXPECT_EQ(ow.ItemIndex, 3);
  EXPECT_TRUE(ui.all_answers_used());
  EXPECT_THROW(ui.message_box(MessageKind::Confirmation, MessageButtons::YesNo, "unexpected"),
               std::logic_error);
  ASSERT_EQ(ui.messages().size(), 3u);
  EXPECT_EQ(ui.messages()[2].text, "unexpected");
}

TEST(DialogModels, PasswordFormKeysAndOverwriteItems) {
  TPasswordRequestForm f;
  f.edtPasswordKeyPress('a');
  EXPECT_FALSE(f.closed());
  f.escape();
  EXPECT_FALSE(f.closed());  // Escape is not a cancel key on this form
  f.edtPassword = "typed";
  f.edtPasswordKeyPress(13);
  EXPECT_EQ(f.modal_result(), ModalResult::Ok);
  EXPECT_EQ(f.edtPassword, "typed");
  EXPECT_FALSE(TPasswordRequestForm::FormCanResize());
  // Cancel and the close box end the form without handing the typed password over.
  TPasswordRequestForm cancelled, closed;
  cancelled.edtPassword = closed.edtPassword = "typed";
  cancelled.btnCancelClick();
  closed.close_box();
  EXPECT_EQ(cancelled.modal_result(), ModalResult::Cancel);
  EXPECT_EQ(closed.modal_result(), ModalResult::Cancel);
  EXPECT_EQ(cancelled.edtPassword, "");
  EXPECT_EQ(closed.edtPassword, "");

  EXPECT_STREQ(TSignFileOverriteDlg::kItems[4], "Annulla operazione firma");
  TSignFileOverriteDlg d;
  d.select(7);
  EXPECT_EQ(d.ItemIndex, 0);
  d.select(2);
  d.escape();  // no cancel button: Escape does nothing
  EXPECT_EQ(d.modal_result(), ModalResult::None);
  d.close_box();
  EXPECT_EQ(d.ItemIndex, 2);

  TSignCancRegDlg c;
  c.ComboBox1 = {"A", "B"};
  c.select(5);
  EXPECT_EQ(c.selected_type(), "");
  c.select(1);
  EXPECT_EQ(c.selected_type(), "B");
  c.escape();
  EXPECT_EQ(c.modal_result(), ModalResult::Cancel);
  TSignCancRegDlg closed_dlg;
  closed_dlg.close_box();
  EXPECT_EQ(closed_dlg.modal_result(), ModalResult::Cancel);
}

// A terminal front end on the slave side of a pseudo-terminal; the test types on the
// master side and reads what the terminal shows.
class PtyTerminal : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(openpty(&master_, &slave_, nullptr, nullptr, nullptr), 0); }
  void TearDown() override {
    ::close(master_);
    ::close(slave_);
  }
  void type(const std::string& s) {
    ASSERT_EQ(::write(master_, s.data(), s.size()), static_cast<ssize_t>(s.size()));
  }
  std::string screen() { return test::read_terminal(master_, 300); }
  int master_ = -1, slave_ = -1;
};

TEST_F(PtyTerminal, PasswordIsReadWithoutEcho) {
  TerminalUi ui(slave_, slave_, false);
  TPasswordRequestForm form;
  ModalResult result = ModalResult::None;
  std::thread t([&] { result = ui.password(form); });
  std::string prompt;
  for (int i = 0; i < 20 && prompt.find("Inserire la Password:") == std::string::npos; ++i)
    prompt += screen();
  type("hunter2 secret\n");
  t.join();
  std::string shown = prompt + screen();
  EXPECT_EQ(result, ModalResult::Ok);
  EXPECT_EQ(form.edtPassword, "hunter2 secret");
  EXPECT_NE(shown.find("Richiesta Password"), std::string::npos) << shown;
  EXPECT_EQ(shown.find("hunter2"), std::string::npos) << "the password was echoed: " << shown;
  termios t_after{};
  tcgetattr(slave_, &t_after);
  EXPECT_TRUE(t_after.c_lflag & ECHO) << "echo was not restored";
}

TEST_F(PtyTerminal, OverwriteChoiceAndDeletionAreAnsweredByTyping) {
  TerminalUi ui(slave_, slave_, false);
  TSignFileOverriteDlg ow;
  std::thread t([&] { ui.overwrite_choice(ow); });
  type("9\n1\n");  // an impossible item is asked again
  t.join();
  EXPECT_EQ(ow.ItemIndex, 1);
  std::string shown = screen();
  EXPECT_NE(shown.find("Sovrascrivi per tutte le altre occorrenze"), std::string::npos);

  TSignCancRegDlg del;
  del.ComboBox1 = {"Contratti", "Fatture"};
  del.ItemIndex = 0;
  ModalResult r = ModalResult::None;
  std::thread t2([&] { r = ui.record_deletion(del); });
  type("Fatture\n12\nok\n");
  t2.join();
  EXPECT_EQ(r, ModalResult::Ok);
  EXPECT_EQ(del.selected_type(), "Fatture");
  EXPECT_EQ(del.Edit1, "12");
}

}  // namespace
}  // namespace tessarel
