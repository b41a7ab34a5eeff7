// tessarel-render-forms OUTDIR: opens every desktop form on the offscreen platform, puts it
// in each of its states as a user would, and writes one PNG per state into OUTDIR. The
// forms work on a private, temporary certificate store in the usual place below a
// temporary home folder, so that the pictures show the place a user sees.
#include <stdlib.h>

#include <QApplication>
#include <QComboBox>
#include <QDialog>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QRadioButton>
#include <QTest>
#include <QTreeWidget>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <stop_token>
#include <string>

#include "certgen/wizard_testing.h"
#include "qt/drive.h"
#include "tessarel/tessarel.h"

using namespace tessarel;
using qt::control;
using qt::when_shown;

namespace {

std::string g_out;
int g_written = 0;

void save(QWidget* form, const char* name) {
  QApplication::processEvents();
  std::string path = g_out + "/" + name + ".png";
  if (!form->grab().save(QString::fromStdString(path))) {
    std::fprintf(stderr, "tessarel-render-forms: cannot write %s\n", path.c_str());
    std::exit(1);
  }
  std::printf("%s\n", path.c_str());
  ++g_written;
}

void click(QWidget* w) {
  QTest::mouseClick(w, Qt::LeftButton);
}

void type(QWidget* form, const char* name, const char* text) {
  QTest::keyClicks(control<QWidget>(form, name), QString::fromUtf8(text));
}

// A temporary home folder whose store the forms show, at the place a user sees; "" when it
// cannot be made.
std::string make_temporary_home() {
  std::string tmpl = (std::filesystem::temp_directory_path() / "tessarel-forms-XXXXXX").string();
  if (!mkdtemp(tmpl.data())) {
    std::perror("tessarel-render-forms: mkdtemp");
    return "";
  }
  setenv("HOME", tmpl.c_str(), 1);
  unsetenv("XDG_DATA_HOME");
  set_store_location(tmpl + "/.local/share/tessarel/MY");
  return tmpl;
}

// Two certificates for the picker to list.
void add_certificates() {
  NewCertificateOptions o;
  o.common_name = "Mario Rossi";
  o.organization = "Studio Rossi";
  o.key = KeyKind::Ec;
  CreateSelfSignedCertificate(o, *personal_store());
  o.common_name = "Anna Bianchi";
  o.organization = "Bianchi Srl";
  CreateSelfSignedCertificate(o, *personal_store());
}

void picture_password(Ui& ui) {
  TPasswordRequestForm password;
  when_shown<QDialog>([](QDialog* d) {
    save(d, "password");
    type(d, "edtPassword", "segreto");
    save(d, "password-typed");
    click(control<QPushButton>(d, "btnCancel"));
  });
  ui.password(password);
}

void picture_overwrite(Ui& ui) {
  TSignFileOverriteDlg overwrite;
  when_shown<QDialog>([](QDialog* d) {
    save(d, "overwrite");
    click(control<QRadioButton>(d, "RadioGroup1_3"));
    save(d, "overwrite-item3");
    click(control<QPushButton>(d, "OKBtn"));
  });
  ui.overwrite_choice(overwrite);
}

void picture_deletion(Ui& ui) {
  TSignCancRegDlg deletion;
  deletion.ComboBox1 = {"Contratti", "Fatture", "Ordini"};
  deletion.ItemIndex = 0;
  when_shown<QDialog>([](QDialog* d) {
    save(d, "deletion");
    type(d, "Edit1", "12");
    QTest::keyClick(control<QComboBox>(d, "ComboBox1"), Qt::Key_Down);
    save(d, "deletion-filled");
    click(control<QPushButton>(d, "CancelBtn"));
  });
  ui.record_deletion(deletion);
}

void picture_picker(Ui& ui) {
  TfrmSelWinCert picker;
  when_shown<QDialog>([](QDialog* d) {
    save(d, "picker");
    auto* list = control<QTreeWidget>(d, "lvCerificates");
    QTest::mouseClick(list->viewport(), Qt::LeftButton, {},
                      list->visualItemRect(list->topLevelItem(1)).center());
    save(d, "picker-selected");
    click(control<QPushButton>(d, "btnCancel"));
  });
  ui.certificate_picker(picker);
}

void picture_wizard(Ui& ui) {
  TfrmGenerateCert wizard(personal_store());
  // The worker waits until the form is closed, so that the generation's progress can be
  // pictured at a known position; the bar moves faster than its usual 200 ms.
  WizardTesting::before_generation(wizard, [](std::stop_token closed) {
    std::mutex m;
    std::condition_variable_any cv;
    std::unique_lock lock(m);
    cv.wait(lock, closed, [] { return false; });
  });
  WizardTesting::set_tick(wizard, std::chrono::milliseconds(20));
  when_shown<QDialog>([](QDialog* d) {
    save(d, "wizard-subject");
    type(d, "edtCommonName", "Lucia Neri");
    type(d, "edtLocality", "Napoli");
    type(d, "edtState", "NA");
    type(d, "edtOrganization", "Studio Neri");
    type(d, "EdtEmail", "lucia@example.org");
    save(d, "wizard-subject-filled");
    click(control<QPushButton>(d, "btnNext"));
    save(d, "wizard-period");
    click(control<QPushButton>(d, "btnNext"));
    save(d, "wizard-generate");
    click(control<QPushButton>(d, "btnGenerate"));
    auto* bar = control<QProgressBar>(d, "pbGenerate");
    if (QTest::qWaitFor([bar] { return bar->value() >= 25; }, 30000))
      save(d, "wizard-generating");
    else
      std::fprintf(stderr, "tessarel-render-forms: the progress bar did not move\n");
    d->close();
  });
  ui.certificate_wizard(wizard);
}

// Every form in each of its states, through the Qt front end; the exit code.
int picture_forms(int argc, char** argv) {
  QApplication app(argc, argv);
  auto ui = make_ui("qt");
  if (std::string(ui->name()) != "qt") {
    std::fprintf(stderr, "tessarel-render-forms: the Qt front end cannot be loaded\n");
    return 1;
  }
  setUi(ui);
  add_certificates();
  picture_password(*ui);
  picture_overwrite(*ui);
  picture_deletion(*ui);
  picture_picker(*ui);
  picture_wizard(*ui);
  setUi(nullptr);
  if (g_written != 13) {
    std::fprintf(stderr, "tessarel-render-forms: %d pictures written, 13 expected\n", g_written);
    return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 || std::string(argv[1]) == "--help") {
    std::fprintf(stderr, "usage: tessarel-render-forms OUTDIR\n");
    return argc == 2 ? 0 : 2;
  }
  g_out = argv[1];
  std::error_code ec;
  std::filesystem::create_directories(g_out, ec);
  // Pictures do not depend on the desktop that runs the program.
  setenv("QT_QPA_PLATFORM", "offscreen", 1);
  const std::string store_dir = make_temporary_home();
  if (store_dir.empty()) return 1;
  int code = picture_forms(argc, argv);
  std::filesystem::remove_all(store_dir, ec);
  return code;
}
