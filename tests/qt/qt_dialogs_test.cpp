// The desktop dialogs driven by keyboard and mouse on the offscreen platform, through the
// paths a host takes: the exported entry points and the engine's dialogs via the installed
// Ui. Results are held to the same expectations as the terminal front end's.
#include <QComboBox>
#include <QContextMenuEvent>
#include <QDateEdit>
#include <QDialog>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QMainWindow>
#include <QMenu>
#include <QMessageBox>
#include <QPointer>
#include <QProgressBar>
#include <QPushButton>
#include <QRadioButton>
#include <QStackedWidget>
#include <QTest>
#include <QThread>
#include <QTreeWidget>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <stop_token>
#include <thread>

#include "certgen/wizard_testing.h"
#include "qt/drive.h"
#include "qt_support.h"

namespace tessarel {
namespace {

using namespace std::chrono_literals;
using qt::control;
using qt::when_shown;

class QtDialogs : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    static test::TempDir env;
    qt_test::private_environment(env.path());
    setenv("QT_QPA_PLATFORM", "offscreen", 0);
    static int argc = 1;
    static char arg0[] = "qt_dialogs_test";
    static char* argv[] = {arg0, nullptr};
    if (!qApp) new QApplication(argc, argv);
  }
  void SetUp() override {
    set_store_location(dir_.path() + "/MY");
    ui_ = make_ui("qt");
    ASSERT_STREQ(ui_->name(), "qt");
    setUi(ui_);
  }
  void TearDown() override { setUi(nullptr); }

  Certificate add_certificate(const std::string& cn) {
    NewCertificateOptions o;
    o.common_name = cn;
    o.key = KeyKind::Ec;
    return CreateSelfSignedCertificate(o, *personal_store());
  }
  // A certificate made by openssl whose key usage lacks non-repudiation.
  Certificate add_openssl_certificate_without_non_repudiation() {
    const std::string d = dir_.path();
    std::string cmd = "cd '" + d +
                      "' && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes "
                      "-keyout k.pem -out c.pem -subj /CN=Senza -days 30 "
                      "-addext keyUsage=digitalSignature 2>/dev/null && "
                      "openssl pkcs12 -export -in c.pem -inkey k.pem -passout pass:pw -out x.p12 "
                      "&& echo ok";
    EXPECT_EQ(test::run_shell(cmd).out, "ok\n");
    std::ifstream f(d + "/x.p12", std::ios::binary);
    Bytes pfx((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    return import_pkcs12(*personal_store(), pfx, "pw");
  }
  static std::string pick(bool show_ca) {
    char* result = strdup("kept");
    SelezionaCertificato(&result, show_ca);
    std::string out = result;
    std::free(result);
    return out;
  }
  static void click(QWidget* w) { QTest::mouseClick(w, Qt::LeftButton); }
  // Types text key by key; characters without a key of their own arrive as text, the way
  // an input method delivers them.
  static void type(QWidget* w, const QString& text) {
    for (QChar ch : text) {
      if (ch.unicode() < 0x80)
        QTest::keyClick(w, static_cast<char>(ch.unicode()));
      else
        QTest::sendKeyEvent(QTest::Click, w, Qt::Key_unknown, QString(ch), Qt::NoModifier);
    }
  }
  static void click_row(QTreeWidget* list, int row) {
    QRect r = list->visualItemRect(list->topLevelItem(row));
    QTest::mouseClick(list->viewport(), Qt::LeftButton, {}, r.center());
  }
  static QString panel_text(QWidget* form, const char* name) {
    return control<QLabel>(form, name)->text();
  }

  test::TempDir dir_;
  std::shared_ptr<Ui> ui_;
};

TEST_F(QtDialogs, PasswordIsTypedMaskedAndEnterInTheFieldConfirms) {
  TPasswordRequestForm form;
  bool masked = false, escape_kept_open = false, fixed = false;
  when_shown<QDialog>([&](QDialog* d) {
    auto* edit = control<QLineEdit>(d, "edtPassword");
    masked = edit->echoMode() == QLineEdit::Password && edit->hasFocus();
    fixed = d->minimumSize() == QSize(306, 72) && d->maximumSize() == QSize(306, 72);
    QTest::keyClicks(edit, "hunter2 secret");
    QTest::keyClick(edit, Qt::Key_Escape);
    escape_kept_open = d->isVisible();
    QTest::keyClick(edit, Qt::Key_Return);
  });
  EXPECT_EQ(ui_->password(form), ModalResult::Ok);
  EXPECT_EQ(form.edtPassword, "hunter2 secret");
  EXPECT_TRUE(masked);
  EXPECT_TRUE(escape_kept_open) << "Escape is not a cancel key on the password form";
  EXPECT_TRUE(fixed) << "the password form must not be resizable";

  TPasswordRequestForm cancelled;
  when_shown<QDialog>([&](QDialog* d) {
    QTest::keyClicks(control<QLineEdit>(d, "edtPassword"), "typed");
    click(control<QPushButton>(d, "btnCancel"));
  });
  EXPECT_EQ(ui_->password(cancelled), ModalResult::Cancel);
  EXPECT_EQ(cancelled.edtPassword, "") << "a cancelled form hands no password over";

  TPasswordRequestForm closed;
  when_shown<QDialog>([](QDialog* d) {
    QTest::keyClicks(control<QLineEdit>(d, "edtPassword"), "typed");
    d->close();
  });
  EXPECT_EQ(ui_->password(closed), ModalResult::Cancel);
  EXPECT_EQ(closed.edtPassword, "") << "the close box hands no password over";
}

TEST_F(QtDialogs, ThePasswordFormsTitleIsTheCaptionItsCallerSet) {
  TPasswordRequestForm plain, pin;
  pin.Caption = "Richiesta Password - token Firma \xC3\xA8";
  QString plain_title, pin_title;
  when_shown<QDialog>([&](QDialog* d) {
    plain_title = d->windowTitle();
    d->close();
  });
  ui_->password(plain);
  when_shown<QDialog>([&](QDialog* d) {
    pin_title = d->windowTitle();
    d->close();
  });
  ui_->password(pin);
  EXPECT_EQ(plain_title, QString("Richiesta Password"));
  EXPECT_EQ(pin_title, QString::fromUtf8("Richiesta Password - token Firma \xC3\xA8"));
}

TEST_F(QtDialogs, EveryOverwriteItemCanBeChosenAndTheCloseBoxKeepsTheSelection) {
  for (int item = 0; item < 5; ++item) {
    TSignFileOverriteDlg dlg;
    QString text;
    when_shown<QDialog>([&](QDialog* d) {
      auto* radio = control<QRadioButton>(d, QStringLiteral("RadioGroup1_%1").arg(item).toLatin1());
      text = radio->text();
      click(radio);
      click(control<QPushButton>(d, "OKBtn"));
    });
    ui_->overwrite_choice(dlg);
    EXPECT_EQ(dlg.ItemIndex, item);
    EXPECT_EQ(dlg.modal_result(), ModalResult::Ok);
    EXPECT_EQ(text.toStdString(), TSignFileOverriteDlg::kItems[static_cast<std::size_t>(item)]);
  }
  TSignFileOverriteDlg untouched;
  bool first_checked = false, escape_kept_open = false;
  when_shown<QDialog>([&](QDialog* d) {
    first_checked = control<QRadioButton>(d, "RadioGroup1_0")->isChecked();
    QTest::keyClick(d, Qt::Key_Escape);
    escape_kept_open = d->isVisible();
    d->close();
  });
  ui_->overwrite_choice(untouched);
  EXPECT_TRUE(first_checked);
  EXPECT_TRUE(escape_kept_open);
  EXPECT_EQ(untouched.ItemIndex, 0);

  TSignFileOverriteDlg changed_then_closed;
  when_shown<QDialog>([&](QDialog* d) {
    click(control<QRadioButton>(d, "RadioGroup1_3"));
    d->close();
  });
  ui_->overwrite_choice(changed_then_closed);
  EXPECT_EQ(changed_then_closed.ItemIndex, 3) << "the selection left by the close box counts";

  // Enter presses OK, the default button, wherever the focus is.
  TSignFileOverriteDlg entered;
  when_shown<QDialog>([&](QDialog* d) {
    auto* radio = control<QRadioButton>(d, "RadioGroup1_2");
    click(radio);
    QTest::keyClick(radio, Qt::Key_Return);
  });
  ui_->overwrite_choice(entered);
  EXPECT_EQ(entered.modal_result(), ModalResult::Ok);
  EXPECT_EQ(entered.ItemIndex, 2);
}

TEST_F(QtDialogs, RecordDeletionTakesATypedIdAndAListedTypeAndEscapeCancels) {
  TSignCancRegDlg dlg;
  dlg.ComboBox1 = {"Contratti", "Fatture"};
  dlg.ItemIndex = 0;
  bool editable = true;
  when_shown<QDialog>([&](QDialog* d) {
    auto* combo = control<QComboBox>(d, "ComboBox1");
    editable = combo->isEditable();
    QTest::keyClicks(control<QLineEdit>(d, "Edit1"), "12");
    QTest::keyClick(combo, Qt::Key_Down);
    click(control<QPushButton>(d, "OKBtn"));
  });
  EXPECT_EQ(ui_->record_deletion(dlg), ModalResult::Ok);
  EXPECT_EQ(dlg.Edit1, "12");
  EXPECT_EQ(dlg.selected_type(), "Fatture");
  EXPECT_FALSE(editable) << "the type is chosen from the list only";

  TSignCancRegDlg escaped;
  escaped.ComboBox1 = {"Contratti"};
  escaped.ItemIndex = 0;
  when_shown<QDialog>([&](QDialog* d) {
    QTest::keyClicks(control<QLineEdit>(d, "Edit1"), "3");
    QTest::keyClick(control<QLineEdit>(d, "Edit1"), Qt::Key_Escape);
  });
  EXPECT_EQ(ui_->record_deletion(escaped), ModalResult::Cancel);

  // Enter in the Id field presses OK, the default button.
  TSignCancRegDlg entered;
  entered.ComboBox1 = {"Contratti", "Fatture"};
  entered.ItemIndex = 1;
  when_shown<QDialog>([&](QDialog* d) {
    auto* edit = control<QLineEdit>(d, "Edit1");
    QTest::keyClicks(edit, "41");
    QTest::keyClick(edit, Qt::Key_Enter);
  });
  EXPECT_EQ(ui_->record_deletion(entered), ModalResult::Ok);
  EXPECT_EQ(entered.Edit1, "41");
  EXPECT_EQ(entered.selected_type(), "Fatture");

  TSignCancRegDlg closed;
  closed.ComboBox1 = {"Contratti"};
  closed.ItemIndex = 0;
  when_shown<QDialog>([&](QDialog* d) { d->close(); });
  EXPECT_EQ(ui_->record_deletion(closed), ModalResult::Cancel);
}

TEST_F(QtDialogs, ThePickerReturnsTheChosenIdentifierAndWarnsOnceWithoutNonRepudiation) {
  add_certificate("Primo");
  Certificate second = add_certificate("Secondo");
  Certificate senza = add_openssl_certificate_without_non_repudiation();

  QStringList first_row;
  QString usage, key, usage_before, caption;
  bool enter_escape_kept_open = false;
  when_shown<QDialog>([&](QDialog* d) {
    auto* list = control<QTreeWidget>(d, "lvCerificates");
    caption = control<QLabel>(d, "Label1")->text();
    usage_before = panel_text(d, "dlbUsage");
    for (int c = 0; c < list->columnCount(); ++c)
      first_row << list->topLevelItem(0)->text(c);
    click_row(list, 1);
    usage = panel_text(d, "dlbUsage");
    key = panel_text(d, "dlbPrivateKey");
    QTest::keyClick(list, Qt::Key_Return);
    QTest::keyClick(list, Qt::Key_Escape);
    enter_escape_kept_open = d->isVisible();
    click(control<QPushButton>(d, "btnOK"));
  });
  EXPECT_EQ(pick(false), second.id());
  // The list's caption names the store the certificates come from.
  EXPECT_EQ(caption.toStdString(),
            "Certificati installati nell'archivio personale Tessarel (" + dir_.path() + "/MY)");
  EXPECT_EQ(usage_before, "None");
  EXPECT_EQ(key, "Available");
  EXPECT_EQ(usage, "Digital Signitare, Non-repudiation");
  EXPECT_TRUE(enter_escape_kept_open) << "Enter and Escape must not close the picker";
  ASSERT_EQ(first_row.size(), 6);
  EXPECT_EQ(first_row[1], "Primo");
  EXPECT_EQ(first_row[5], "Yes");

  // The certificate without non-repudiation: one plain warning, then OK still counts.
  int warnings = 0;
  QString warning_text;
  when_shown<QDialog>([&](QDialog* d) {
    click_row(control<QTreeWidget>(d, "lvCerificates"), 2);
    when_shown<QMessageBox>([&](QMessageBox* box) {
      ++warnings;
      warning_text = box->text();
      EXPECT_EQ(box->icon(), QMessageBox::NoIcon);
      box->button(QMessageBox::Ok)->click();
    });
    click(control<QPushButton>(d, "btnOK"));
  });
  EXPECT_EQ(pick(false), senza.id());
  EXPECT_EQ(warnings, 1);
  EXPECT_EQ(warning_text.toStdString(), TfrmSelWinCert::kNonRepudiationWarning);

  // Cancel, the close box, and OK with nothing selected leave the caller's result alone.
  when_shown<QDialog>([&](QDialog* d) { click(control<QPushButton>(d, "btnCancel")); });
  EXPECT_EQ(pick(false), "kept");
  when_shown<QDialog>([&](QDialog* d) { d->close(); });
  EXPECT_EQ(pick(false), "kept");
  when_shown<QDialog>([&](QDialog* d) { click(control<QPushButton>(d, "btnOK")); });
  EXPECT_EQ(pick(false), "kept");
}

TEST_F(QtDialogs, RemovingACertificateFromThePickerTakesItOutOfTheStore) {
  add_certificate("Resta");
  Certificate gone = add_certificate("Va via");
  int rows_after = -1;
  QString key_after, usage_after;
  when_shown<QDialog>([&](QDialog* d) {
    auto* list = control<QTreeWidget>(d, "lvCerificates");
    click_row(list, 1);
    QPoint at = list->visualItemRect(list->topLevelItem(1)).center();
    QContextMenuEvent menu_event(QContextMenuEvent::Mouse, at, list->viewport()->mapToGlobal(at));
    QApplication::sendEvent(list->viewport(), &menu_event);
    auto* menu = d->findChild<QMenu*>("PopupMenu1");
    ASSERT_TRUE(menu && menu->isVisible());
    QAction* remove = menu->actions().value(0);
    ASSERT_TRUE(remove);
    EXPECT_EQ(remove->text().toStdString(), TfrmSelWinCert::kRemoveItem);
    QTest::mouseClick(menu, Qt::LeftButton, {}, menu->actionGeometry(remove).center());
    rows_after = list->topLevelItemCount();
    key_after = panel_text(d, "dlbPrivateKey");
    usage_after = panel_text(d, "dlbUsage");
    click(control<QPushButton>(d, "btnOK"));
  });
  EXPECT_EQ(pick(false), "kept") << "after a removal nothing is selected";
  EXPECT_EQ(rows_after, 1);
  EXPECT_EQ(key_after, "None");
  EXPECT_EQ(usage_after, "None");
  auto left = open_store(dir_.path() + "/MY")->certificates();
  ASSERT_EQ(left.size(), 1u);
  EXPECT_NE(left.front().id(), gone.id());
}

TEST_F(QtDialogs, TheWizardIsWalkedByTypingAndStoresTheCertificate) {
  std::vector<std::string> messages;
  auto answer_message = [&] {
    when_shown<QMessageBox>([&](QMessageBox* box) {
      messages.push_back(box->text().toStdString());
      box->button(QMessageBox::Ok)->click();
    });
  };
  bool back_disabled = true, next_disabled_on_generate = false, escape_kept_open = false;
  QString banner;
  QDate start, end;
  when_shown<QDialog>([&](QDialog* d) {
    auto* next = control<QPushButton>(d, "btnNext");
    auto* pages = control<QStackedWidget>(d, "pcMain");
    banner = control<QLabel>(d, "lblInfo")->text();
    QTest::keyClick(control<QLineEdit>(d, "edtCommonName"), Qt::Key_Escape);
    escape_kept_open = d->isVisible();
    // Nothing typed: refused, the page stays.
    answer_message();
    click(next);
    EXPECT_EQ(pages->currentIndex(), 0);
    QTest::keyClicks(control<QLineEdit>(d, "edtCommonName"), "Lucia Neri");
    type(control<QLineEdit>(d, "edtLocality"), QStringLiteral("Forlì"));
    // The province may stay empty; the e-mail address may not.
    QTest::keyClicks(control<QLineEdit>(d, "edtOrganization"), "Studio Neri");
    answer_message();
    click(next);
    EXPECT_EQ(pages->currentIndex(), 0);
    auto* country = control<QComboBox>(d, "cbCountry");
    EXPECT_EQ(country->currentText(), "Italia");
    QTest::keyClicks(country, "Germany");  // "German" alone finds the older entry first
    QTest::keyClicks(control<QLineEdit>(d, "EdtEmail"), "lucia@example.org");
    QTest::keyClick(control<QLineEdit>(d, "EdtEmail"), Qt::Key_Return);  // Next is the default
    EXPECT_EQ(pages->currentIndex(), 1);
    back_disabled = back_disabled && !control<QPushButton>(d, "btnBack")->isEnabled();
    // A period that ends before it starts is refused.
    auto* from = control<QDateEdit>(d, "dtpFrom");
    auto* to = control<QDateEdit>(d, "dtpTo");
    start = from->date();
    to->setDate(start.addDays(-1));
    answer_message();
    click(next);
    EXPECT_EQ(pages->currentIndex(), 1);
    // The period chosen on the pickers is the certificate's, to the day.
    start = QDate(2031, 2, 28);
    end = QDate(2032, 2, 29);
    from->setDate(start);
    to->setDate(end);
    click(next);
    EXPECT_EQ(pages->currentIndex(), 2);
    back_disabled = back_disabled && !control<QPushButton>(d, "btnBack")->isEnabled();
    next_disabled_on_generate = !next->isEnabled();
    click(control<QPushButton>(d, "btnGenerate"));
  });
  char* result = nullptr;
  CreaCertificatoPrivato(&result);
  std::string name = result ? result : "";
  std::free(result);
  EXPECT_EQ(name, "Lucia Neri");
  EXPECT_TRUE(escape_kept_open) << "Escape does not end the wizard";
  EXPECT_EQ(banner.toStdString(), TfrmGenerateCert::kHintEnterFields);
  EXPECT_TRUE(back_disabled);
  EXPECT_TRUE(next_disabled_on_generate);
  ASSERT_EQ(messages.size(), 3u);
  EXPECT_EQ(messages[0], TfrmGenerateCert::kMissingFields);
  EXPECT_EQ(messages[1], TfrmGenerateCert::kMissingFields);
  EXPECT_EQ(messages[2], TfrmGenerateCert::kPeriodReversed);

  auto certs = open_store(dir_.path() + "/MY")->certificates();
  ASSERT_EQ(certs.size(), 1u);
  const Certificate& c = certs.front();
  EXPECT_EQ(c.subject_values(oid::kCommonName), std::vector<std::string>{"Lucia Neri"});
  EXPECT_EQ(c.subject_values(oid::kCountryName), std::vector<std::string>{"DE"});
  EXPECT_EQ(c.subject_values(oid::kLocalityName), std::vector<std::string>{"Forlì"});
  EXPECT_TRUE(c.subject_values(oid::kStateOrProvinceName).empty() ||
              c.subject_values(oid::kStateOrProvinceName).front().empty());
  auto day = [](std::chrono::sys_seconds t) {
    std::chrono::year_month_day ymd{std::chrono::floor<std::chrono::days>(t)};
    return QDate(static_cast<int>(ymd.year()), static_cast<int>(unsigned(ymd.month())),
                 static_cast<int>(unsigned(ymd.day())));
  };
  EXPECT_EQ(day(c.not_before()), start);
  EXPECT_EQ(day(c.not_after()), end);
}

// The wizard's message asks to fill in every field with an asterisk: the asterisks and the
// check agree, field by field.
TEST_F(QtDialogs, TheAsterisksMarkExactlyTheFieldsNextInsistsOn) {
  QStringList starred, refused;
  for (int row = 0; row < 6; ++row) {
    TfrmGenerateCert w(personal_store());
    w.edtCommonName = "Lucia Neri";
    w.edtLocality = "Forlì";
    w.edtState = "FC";
    w.edtOrganization = "Studio Neri";
    w.EdtEmail = "lucia@example.org";
    when_shown<QDialog>([&](QDialog* d) {
      auto* caption = control<QLabel>(d, QStringLiteral("lbl%1").arg(row).toLatin1().constData());
      if (!caption || !caption->buddy()) {
        ADD_FAILURE() << "row " << row << " has no caption naming its field";
        d->close();
        return;
      }
      if (control<QLabel>(d, QStringLiteral("req%1").arg(row).toLatin1().constData()))
        starred << caption->text();
      QWidget* field = caption->buddy();
      if (auto* e = qobject_cast<QLineEdit*>(field))
        e->clear();
      else if (auto* c = qobject_cast<QComboBox*>(field))
        c->setCurrentIndex(-1);
      int messages = 0;
      QPointer<QTimer> answer = when_shown<QMessageBox>([&](QMessageBox* box) {
        ++messages;
        box->button(QMessageBox::Ok)->click();
      });
      click(control<QPushButton>(d, "btnNext"));
      delete answer.data();  // no message came
      if (messages == 1 && control<QStackedWidget>(d, "pcMain")->currentIndex() == 0)
        refused << caption->text();
      d->close();
    });
    ui_->certificate_wizard(w);
  }
  EXPECT_EQ(starred, refused);
  EXPECT_EQ(starred.size(), 5);
  EXPECT_FALSE(starred.contains(QString::fromUtf8(TfrmGenerateCert::kLabelState)));
}

TEST_F(QtDialogs, CancellingTheWizardAsksAndNoKeepsItOpen) {
  std::vector<QMessageBox::StandardButton> answers = {QMessageBox::No, QMessageBox::Yes};
  int questions = 0;
  bool open_after_no = false;
  when_shown<QDialog>([&](QDialog* d) {
    auto* cancel = control<QPushButton>(d, "btnCancel");
    for (auto answer : answers) {
      when_shown<QMessageBox>([&, answer](QMessageBox* box) {
        ++questions;
        EXPECT_EQ(box->text().toStdString(), TfrmGenerateCert::kConfirmCancel);
        box->button(answer)->click();
      });
      click(cancel);
      if (answer == QMessageBox::No) open_after_no = d->isVisible();
    }
  });
  char* result = strdup("prima");
  CreaCertificatoPrivato(&result);
  std::string name = result;
  std::free(result);
  EXPECT_EQ(questions, 2);
  EXPECT_TRUE(open_after_no);
  EXPECT_EQ(name, "") << "a cancelled wizard names no certificate";
  EXPECT_TRUE(open_store(dir_.path() + "/MY")->certificates().empty());
}

TEST_F(QtDialogs, ClosingTheWizardDuringGenerationStopsTheWorkerAndStoresNothing) {
  TfrmGenerateCert w(personal_store());
  w.edtCommonName = "Lento";
  w.edtLocality = "Asti";
  w.edtOrganization = "Studio";
  w.EdtEmail = "lento@example.org";
  // The worker waits, before making the key, until the wizard stops it; the bar moves every
  // 10 ms instead of 200.
  WizardTesting::before_generation(w, [](std::stop_token stop) {
    std::mutex m;
    std::condition_variable_any cv;
    std::unique_lock lock(m);
    cv.wait(lock, stop, [] { return false; });
  });
  std::string ended = "not ended";
  WizardTesting::after_generation(w, [&ended](std::exception_ptr e) {
    try {
      if (e) std::rethrow_exception(e);
      ended = "a certificate";
    } catch (const std::exception& x) {
      ended = x.what();
    }
  });
  WizardTesting::set_tick(w, 10ms);
  std::vector<int> positions;
  bool cancel_disabled = false;
  bool worker_running_before = false;
  when_shown<QDialog>([&](QDialog* d) {
    click(control<QPushButton>(d, "btnNext"));
    click(control<QPushButton>(d, "btnNext"));
    auto* bar = control<QProgressBar>(d, "pbGenerate");
    // Progress arrives through the form's event loop while the key is being generated.
    QObject::connect(bar, &QProgressBar::valueChanged, [&](int v) { positions.push_back(v); });
    click(control<QPushButton>(d, "btnGenerate"));
    EXPECT_TRUE(QTest::qWaitFor([&] { return positions.size() >= 3; }, 60000));
    cancel_disabled = !control<QPushButton>(d, "btnCancel")->isEnabled() && bar->isVisible();
    worker_running_before = WizardTesting::worker_running(w);
    d->close();
  });
  ui_->certificate_wizard(w);
  EXPECT_TRUE(worker_running_before);
  EXPECT_TRUE(cancel_disabled);
  ASSERT_GE(positions.size(), 3u);
  EXPECT_EQ(positions[1], positions[0] + 5);
  EXPECT_EQ(positions[2], positions[1] + 5);
  EXPECT_EQ(w.modal_result(), ModalResult::Cancel);
  EXPECT_FALSE(WizardTesting::worker_running(w))
      << "the worker thread must be joined when the form closes";
  EXPECT_EQ(ended, "Key generation cancelled");
  EXPECT_EQ(w.cert_commonName(), "");
  EXPECT_TRUE(open_store(dir_.path() + "/MY")->certificates().empty());
}

TEST_F(QtDialogs, AHostWindowParentsTheDialogsModally) {
  QMainWindow host;
  host.resize(640, 480);
  host.show();
  host.activateWindow();
  ASSERT_TRUE(QTest::qWaitForWindowActive(&host));
  QWidget* parent = nullptr;
  bool modal = false;
  when_shown<QDialog>([&](QDialog* d) {
    parent = d->parentWidget();
    modal = d->isModal();
    click(control<QPushButton>(d, "btnCancel"));
  });
  TPasswordRequestForm form;
  ui_->password(form);
  EXPECT_EQ(parent, &host);
  EXPECT_TRUE(modal);
}

TEST_F(QtDialogs, ADialogAskedFromAnotherThreadOpensOnTheGuiThread) {
  TPasswordRequestForm form;
  std::atomic<bool> finished{false};
  ModalResult result = ModalResult::None;
  bool on_gui_thread = false;
  when_shown<QDialog>([&](QDialog* d) {
    on_gui_thread = QThread::currentThread() == qApp->thread();
    auto* edit = control<QLineEdit>(d, "edtPassword");
    QTest::keyClicks(edit, "da un altro thread");
    QTest::keyClick(edit, Qt::Key_Return);
  });
  std::thread host_worker([&] {
    result = ui_->password(form);
    finished = true;
  });
  for (int i = 0; i < 1000 && !finished; ++i)
    QTest::qWait(10);  // the host's event loop keeps running
  host_worker.join();
  EXPECT_TRUE(on_gui_thread);
  EXPECT_EQ(result, ModalResult::Ok);
  EXPECT_EQ(form.edtPassword, "da un altro thread");
}

// Each form at its layout's client size, with its controls where the layout puts them; the
// picker's anchored controls follow a resize.
TEST_F(QtDialogs, FormsHaveTheirLayoutSizesAndAnchors) {
  add_certificate("Uno");
  struct Expect {
    QSize size;
    std::vector<std::pair<const char*, QRect>> controls;
  };
  std::vector<std::pair<QString, QSize>> seen;
  auto measure = [&](const Expect& e) {
    when_shown<QDialog>([&, e](QDialog* d) {
      seen.emplace_back(d->objectName(), d->size());
      EXPECT_EQ(d->size(), e.size) << d->objectName().toStdString();
      EXPECT_EQ(d->grab().deviceIndependentSize().toSize(), e.size);
      for (const auto& [name, rect] : e.controls) {
        auto* w = control<QWidget>(d, name);
        ASSERT_TRUE(w) << name;
        EXPECT_EQ(w->geometry(), rect) << d->objectName().toStdString() << " " << name;
      }
      if (d->objectName() == "frmSelWinCert") {
        // The usage text starts at 120, or after its caption when the font is wider, and
        // keeps its right edge and height.
        QRect usage = control<QWidget>(d, "dlbUsage")->geometry();
        QRect caption = control<QWidget>(d, "lbUsage")->geometry();
        EXPECT_EQ(usage.left(), std::max(120, caption.right() + 6));
        EXPECT_EQ(usage.right(), 120 + 369 - 1);
        EXPECT_EQ(usage.top(), 48);
        EXPECT_EQ(usage.height(), 33);
        // Resized larger and smaller: the list follows all four edges, the buttons the
        // right and bottom ones; the caption and the info panel, with its labels, are
        // anchored top and left only and stay where they are.
        auto at = [d](const char* name) { return control<QWidget>(d, name)->geometry(); };
        std::vector<std::pair<const char*, QRect>> unmoved;
        for (const char* name :
             {"Label1", "Panel1", "lbPrivateKey", "dlbPrivateKey", "lbUsage", "dlbUsage"})
          unmoved.emplace_back(name, at(name));
        for (QSize size : {QSize(614, 526), QSize(414, 386)}) {
          d->resize(size);
          const int dw = size.width() - 514, dh = size.height() - 426;
          EXPECT_EQ(at("lvCerificates"), QRect(8, 32, 498 + dw, 260 + dh)) << dw;
          EXPECT_EQ(at("btnOK"), QRect(341 + dw, 393 + dh, 75, 25)) << dw;
          EXPECT_EQ(at("btnCancel"), QRect(431 + dw, 393 + dh, 75, 25)) << dw;
          for (const auto& [name, place] : unmoved)
            EXPECT_EQ(at(name), place) << name << " " << dw;
        }
        EXPECT_EQ(at("Panel1"), QRect(8, 298, 501, 89));
      }
      d->close();
    });
  };
  TPasswordRequestForm pw;
  measure({{306, 72},
           {{"edtPassword", {136, 8, 169, 21}},
            {"btnOk", {72, 40, 75, 25}},
            {"btnCancel", {152, 40, 75, 25}}}});
  ui_->password(pw);
  TSignFileOverriteDlg ow;
  measure({{384, 186}, {{"RadioGroup1", {16, 32, 345, 105}}, {"OKBtn", {151, 148, 75, 25}}}});
  ui_->overwrite_choice(ow);
  TSignCancRegDlg del;
  del.ComboBox1 = {"Contratti"};
  del.ItemIndex = 0;
  measure({{259, 141},
           {{"Edit1", {80, 24, 121, 21}},
            {"ComboBox1", {80, 56, 124, 21}},
            {"OKBtn", {63, 100, 75, 25}},
            {"CancelBtn", {143, 100, 75, 25}}}});
  ui_->record_deletion(del);
  TfrmSelWinCert picker;
  measure({{514, 426},
           {{"lvCerificates", {8, 32, 498, 260}},
            {"btnOK", {341, 393, 75, 25}},
            {"btnCancel", {431, 393, 75, 25}},
            {"Panel1", {8, 298, 501, 89}}}});
  ui_->certificate_picker(picker);
  TfrmGenerateCert wizard(personal_store());
  measure({{500, 420}, {}});
  ui_->certificate_wizard(wizard);
  EXPECT_EQ(seen.size(), 5u);
}

// Tab walks each form's controls in its layout's order and comes round again; controls
// that are disabled or on a hidden page are passed over. (Within a date, Tab first moves
// from day to month to year: a control met on consecutive steps is listed once.)
TEST_F(QtDialogs, TabWalksEveryFormInItsLayoutsOrder) {
  add_certificate("Uno");
  auto walk = [](QDialog* d, const char* first, int stops) {
    control<QWidget>(d, first)->setFocus();
    QStringList seen;
    for (int i = 0; i < 4 * stops && seen.size() < stops; ++i) {
      QWidget* f = d->focusWidget();
      QString name = f ? f->objectName() : QStringLiteral("(none)");
      if (seen.isEmpty() || seen.back() != name) seen << name;
      QTest::keyClick(f ? f : d, Qt::Key_Tab);
    }
    return seen.join(' ').toStdString();
  };
  std::string password, overwrite, deletion, picker, subject, period, generate;
  when_shown<QDialog>([&](QDialog* d) {
    password = walk(d, "edtPassword", 4);
    d->close();
  });
  TPasswordRequestForm pw;
  ui_->password(pw);
  when_shown<QDialog>([&](QDialog* d) {
    overwrite = walk(d, "RadioGroup1_0", 3);
    d->close();
  });
  TSignFileOverriteDlg ow;
  ui_->overwrite_choice(ow);
  when_shown<QDialog>([&](QDialog* d) {
    deletion = walk(d, "Edit1", 5);
    d->close();
  });
  TSignCancRegDlg del;
  del.ComboBox1 = {"Contratti"};
  del.ItemIndex = 0;
  ui_->record_deletion(del);
  when_shown<QDialog>([&](QDialog* d) {
    picker = walk(d, "lvCerificates", 4);
    d->close();
  });
  TfrmSelWinCert pick;
  ui_->certificate_picker(pick);
  TfrmGenerateCert w(personal_store());
  w.edtCommonName = "Lucia Neri";
  w.edtLocality = "Forlì";
  w.edtOrganization = "Studio Neri";
  w.EdtEmail = "lucia@example.org";
  when_shown<QDialog>([&](QDialog* d) {
    subject = walk(d, "edtCommonName", 9);
    click(control<QPushButton>(d, "btnNext"));
    period = walk(d, "dtpFrom", 5);
    click(control<QPushButton>(d, "btnNext"));
    generate = walk(d, "btnGenerate", 3);
    d->close();
  });
  ui_->certificate_wizard(w);

  EXPECT_EQ(password, "edtPassword btnOk btnCancel edtPassword");
  // The radio group is one stop: the arrow keys move within it.
  EXPECT_EQ(overwrite, "RadioGroup1_0 OKBtn RadioGroup1_0");
  EXPECT_EQ(deletion, "Edit1 ComboBox1 OKBtn CancelBtn Edit1");
  EXPECT_EQ(picker, "lvCerificates btnOK btnCancel lvCerificates");
  EXPECT_EQ(subject,
            "edtCommonName edtLocality edtState cbCountry edtOrganization EdtEmail btnNext "
            "btnCancel edtCommonName");
  EXPECT_EQ(period, "dtpFrom dtpTo btnNext btnCancel dtpFrom");
  EXPECT_EQ(generate, "btnGenerate btnCancel btnGenerate");
}

}  // namespace
}  // namespace tessarel
