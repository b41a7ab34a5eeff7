// The certificate wizard driven as a user would: through the scripted front end and by
// typing on a pseudo-terminal. Generation runs on a real worker thread with real keys.
#include <dirent.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <stop_token>
#include <thread>

#include "certgen/wizard_internal.h"
#include "certgen/wizard_testing.h"
#include "frontends/scripted_ui.h"
#include "frontends/terminal_ui.h"
#include "platform/crypto/keygen.h"
#include "platform/runtime/datetime.h"
#include "tessarel/exports.h"
#include "tessarel/sign_e_archivia.h"
#include "tessarel/wizard.h"
#include "test_support.h"

namespace tessarel {
namespace {

using namespace std::chrono_literals;
using W = TfrmGenerateCert;

int thread_count() {
  int n = 0;
  if (DIR* d = opendir("/proc/self/task")) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') ++n;
    closedir(d);
  }
  return n;
}

void fill(W& w) {
  w.edtCommonName = "Paolo Conte";
  w.edtLocality = "Asti";
  w.edtState = "AT";
  w.edtOrganization = "Studio Conte";
  w.EdtEmail = "paolo@example.org";
}

// Runs the wizard's message loop until it closes (or a limit is reached).
void pump_until_closed(W& w, std::chrono::seconds limit = 120s) {
  auto end = std::chrono::steady_clock::now() + limit;
  while (w.modal_result() == ModalResult::None && std::chrono::steady_clock::now() < end)
    w.ProcessMessages(50ms);
}

class Wizard : public ::testing::Test {
 protected:
  test::ScopedStore store_;
  std::shared_ptr<ScriptedUi> ui_ = std::make_shared<ScriptedUi>();
  test::ScopedUi scoped_{ui_};
};

TEST_F(Wizard, OpensOnTheSubjectPageWithItaliaAndFortyEightMonths) {
  W w;
  EXPECT_EQ(w.page(), W::Page::tsEnterFields);
  EXPECT_EQ(w.lblInfo(), "Soggetto del nuovo certificato");
  EXPECT_FALSE(w.BackEnabled());
  EXPECT_TRUE(w.NextEnabled());
  EXPECT_EQ(w.cbCountryItems.size(), 245u);
  EXPECT_EQ(w.country_text(), "Italia");
  EXPECT_DOUBLE_EQ(w.dtpFrom(), Date());
  using namespace std::chrono;
  year_month_day today{floor<days>(SysFromDateTime(Date()))};
  year_month later = year_month{today.year(), today.month()} + months{48};
  auto last = year_month_day_last{later.year(), month_day_last{later.month()}}.day();
  EXPECT_EQ(SysFromDateTime(w.dtpTo()), sys_days{later / std::min(today.day(), last)});
}

TEST_F(Wizard, EveryRequiredFieldIsCheckedButTheProvinceMayBeEmpty) {
  std::vector<std::string W::*> required{&W::edtCommonName, &W::edtLocality, &W::edtOrganization,
                                         &W::EdtEmail};
  for (auto field : required) {
    W w;
    fill(w);
    w.*field = "";
    w.btnNextClick();
    EXPECT_EQ(w.page(), W::Page::tsEnterFields);
  }
  EXPECT_EQ(ui_->messages().size(), required.size());
  for (const auto& m : ui_->messages())
    EXPECT_EQ(m.text, "Compilare tutti i campi con l'asterisco.");

  W no_country;
  fill(no_country);
  no_country.cbCountryIndex = -1;
  no_country.btnNextClick();
  EXPECT_EQ(no_country.page(), W::Page::tsEnterFields);
  EXPECT_FALSE(no_country.select_country("Italy"));  // not in the list: nothing changes
  EXPECT_EQ(no_country.cbCountryIndex, -1);

  W ok;
  fill(ok);
  ok.edtState = "";
  ok.btnNextClick();
  EXPECT_EQ(ok.page(), W::Page::tsSpecifyPeriod);
  EXPECT_EQ(ok.lblInfo(),
            "Soggetto del nuovo certificato");  // the buttons' page changes leave the banner
  ok.pcMainChange();
  EXPECT_EQ(ok.lblInfo(), "Specify certificate validity period");
}

TEST_F(Wizard, OverLongFieldsAndAReversedPeriodAreRefused) {
  W w;
  fill(w);
  w.edtCommonName = std::string(65, 'x');
  w.btnNextClick();
  EXPECT_EQ(w.page(), W::Page::tsEnterFields);
  ASSERT_EQ(ui_->messages().size(), 1u);
  EXPECT_NE(ui_->messages()[0].text.find("Nome certificato"), std::string::npos);
  w.edtCommonName = "Paolo Conte";
  w.btnNextClick();
  w.set_dtpTo(w.dtpFrom() - 1);
  w.btnNextClick();
  EXPECT_EQ(w.page(), W::Page::tsSpecifyPeriod);
  EXPECT_EQ(ui_->messages().back().text, W::kPeriodReversed);
  w.set_dtpFrom(EncodeDateTime({1990, 1, 1}));  // the pickers stop at 31/12/1999
  EXPECT_DOUBLE_EQ(w.dtpFrom(), EncodeDateTime({1999, 12, 31}));
  EXPECT_TRUE(open_store(store_.path())->certificates().empty());
}

TEST_F(Wizard, CancelAsksFirstAndNoChangesNothing) {
  W w;
  ui_->answer_message(ModalResult::No);
  w.btnCancelClick();
  EXPECT_EQ(w.modal_result(), ModalResult::None);
  EXPECT_EQ(ui_->messages().back().text, "Sei sicuro di voler annullare l'operazione?");
  EXPECT_EQ(ui_->messages().back().buttons, MessageButtons::YesNo);
  ui_->answer_message(ModalResult::Yes);
  w.btnCancelClick();
  EXPECT_EQ(w.modal_result(), ModalResult::Cancel);

  ui_->answer_wizard([](W& wiz) {
    fill(wiz);
    wiz.close_box();
  });
  char* result = strdup("previous");
  CreaCertificatoPrivato(&result);
  EXPECT_STREQ(result, "");
  std::free(result);
  EXPECT_TRUE(open_store(store_.path())->certificates().empty());
}

TEST_F(Wizard, ACompletedGenerationStoresTheCertificateWithItsKey) {
  ui_->answer_wizard([](W& w) {
    fill(w);
    w.btnNextClick();
    w.btnNextClick();
    EXPECT_EQ(w.page(), W::Page::tsGenerate);
    EXPECT_FALSE(w.NextEnabled());
    EXPECT_EQ(w.lbGenerate(), W::kGenerateText);
    w.btnGenerateClick();
    EXPECT_TRUE(w.Generating());
    EXPECT_FALSE(w.CancelEnabled() || w.GenerateEnabled() || w.BackEnabled() || w.NextEnabled());
    EXPECT_TRUE(w.Busy());
    pump_until_closed(w);
    EXPECT_FALSE(w.Busy());
    EXPECT_FALSE(WizardTesting::worker_running(w));
  });
  std::unique_ptr<ISignEArchivia> engine(GetSignEArchivia());
  EXPECT_EQ(engine->GeneraCertificato(), "Paolo Conte");
  EXPECT_EQ(ui_->busy_log, (std::vector<bool>{true, false}));

  auto store = open_store(store_.path());
  auto certs = store->certificates();
  ASSERT_EQ(certs.size(), 1u);
  const Certificate& c = certs[0];
  EXPECT_TRUE(store->key_valid(c));
  EXPECT_EQ(c.key_kind(), KeyKind::Rsa);
  EXPECT_EQ(c.key_bits(), 1024);
  EXPECT_EQ(c.signature_algorithm_oid(), "1.2.840.113549.1.1.13");
  EXPECT_TRUE(c.self_signed());
  EXPECT_EQ(c.version(), 1);
  EXPECT_EQ(c.serial().size(), 16u);
  // Six attributes, one per RDN, in this order, PrintableString where the alphabet allows
  // and the e-mail address an IA5String, in subject and issuer alike.
  const std::vector<std::pair<std::string, std::string>> expected{
      {oid::kCountryName, "IT"},         {oid::kStateOrProvinceName, "AT"},
      {oid::kLocalityName, "Asti"},      {oid::kOrganizationName, "Studio Conte"},
      {oid::kCommonName, "Paolo Conte"}, {oid::kEmailAddress, "paolo@example.org"}};
  auto subject = c.subject();
  auto issuer = c.issuer();
  ASSERT_EQ(subject.size(), 6u);
  ASSERT_EQ(issuer.size(), 6u);
  for (std::size_t i = 0; i < 6; ++i) {
    EXPECT_EQ(subject[i].oid, expected[i].first);
    EXPECT_EQ(subject[i].value, expected[i].second);
    EXPECT_EQ(subject[i].tag, i == 5 ? 22 : 19) << i;
    EXPECT_EQ(subject[i].rdn, static_cast<int>(i));
    EXPECT_EQ(issuer[i].tag, i == 5 ? 22 : 19) << i;
  }
  using namespace std::chrono;
  EXPECT_EQ(c.not_before(), SysFromDateTime(Date()));

  test::TempDir d;
  test::write_pem(c, d / "c.pem");
  auto r = test::run({"openssl", "x509", "-in", d / "c.pem", "-noout", "-text"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find("Signature Algorithm: sha512WithRSAEncryption"), std::string::npos);
  EXPECT_NE(r.out.find("Public-Key: (1024 bit)"), std::string::npos);
  EXPECT_NE(r.out.find("Subject: C = IT, ST = AT, L = Asti, O = Studio Conte, CN = Paolo Conte, "
                       "emailAddress = paolo@example.org"),
            std::string::npos)
      << r.out;
  r = test::run({"openssl", "verify", "-CAfile", d / "c.pem", d / "c.pem"});
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
}

TEST_F(Wizard, ProgressTicksArriveOnTheDialogThreadInStepsOfFiveAndWrap) {
  W w;
  fill(w);
  w.btnNextClick();
  w.btnNextClick();
  // The worker is held until the dialog's thread has seen 23 ticks (one past the wrap), so
  // that their number does not depend on how fast the key is made; they come every 2 ms.
  std::mutex m;
  std::condition_variable_any seen;
  std::vector<int> positions;
  std::vector<std::thread::id> threads;
  WizardTesting::set_tick(w, 2ms);
  WizardTesting::before_generation(w, [&](std::stop_token stop) {
    std::unique_lock lock(m);
    seen.wait(lock, stop, [&] { return positions.size() >= 23; });
  });
  w.OnProgress = [&](int p) {
    std::lock_guard lock(m);
    positions.push_back(p);
    threads.push_back(std::this_thread::get_id());
    seen.notify_all();
  };
  w.btnGenerateClick();
  EXPECT_TRUE(w.ProgressVisible());
  EXPECT_EQ(w.ProgressPosition(), 0);
  pump_until_closed(w);
  EXPECT_EQ(w.modal_result(), ModalResult::Ok);
  EXPECT_FALSE(w.ProgressVisible());
  std::lock_guard lock(m);
  ASSERT_GE(positions.size(), 23u);
  for (std::size_t i = 0; i < positions.size(); ++i) {
    int previous = i ? positions[i - 1] : 0;
    EXPECT_EQ(positions[i], previous + 5 >= 100 ? 0 : previous + 5) << i;
    EXPECT_EQ(threads[i], std::this_thread::get_id());
  }
  EXPECT_EQ(positions[18], 95);
  EXPECT_EQ(positions[19], 0) << "the bar wraps at 100";
}

// Holds the wizard's worker before its key generation until the wizard stops it, and keeps
// how the generation ended. It must outlive the wizard.
struct HeldWorker {
  void hold(W& w) {
    WizardTesting::before_generation(w, [this](std::stop_token stop) {
      std::unique_lock lock(m);
      held = true;
      cv.notify_all();
      cv.wait(lock, stop, [] { return false; });
    });
    WizardTesting::after_generation(w, [this](std::exception_ptr e) {
      std::lock_guard lock(m);
      ended = true;
      error = e;
    });
  }
  // Waits until the worker is inside the hook (the wizard's own thread, not a timer).
  void wait_held() {
    std::unique_lock lock(m);
    cv.wait(lock, [&] { return held; });
  }
  bool ended_cancelled() {
    std::lock_guard lock(m);
    if (!ended || !error) return false;
    try {
      std::rethrow_exception(error);
    } catch (const crypto::GenerationCancelled&) {
      return true;
    } catch (...) {
      return false;
    }
  }

  std::mutex m;
  std::condition_variable_any cv;
  bool held = false, ended = false;
  std::exception_ptr error;
};

TEST_F(Wizard, ClosingDuringGenerationStopsTheWorkerAndStoresNothing) {
  int threads_before = thread_count();
  {
    HeldWorker held;
    W w;
    fill(w);
    w.btnNextClick();
    w.btnNextClick();
    held.hold(w);
    w.btnGenerateClick();
    held.wait_held();
    w.ProcessMessages();
    EXPECT_TRUE(WizardTesting::worker_running(w));
    EXPECT_TRUE(w.Generating());
    w.btnCancelClick();  // disabled while generating: no question, no effect
    EXPECT_EQ(w.modal_result(), ModalResult::None);
    w.close_box();
    EXPECT_EQ(w.modal_result(), ModalResult::Cancel);
    EXPECT_FALSE(WizardTesting::worker_running(w));
    EXPECT_FALSE(w.Generating());
    EXPECT_FALSE(w.Busy());
    EXPECT_EQ(ui_->busy_log, (std::vector<bool>{true, false}));
    EXPECT_FALSE(w.ProgressVisible());
    // The key generation itself saw the stop: it ended cancelled, not with a key.
    EXPECT_TRUE(held.ended_cancelled());
    EXPECT_EQ(w.cert_commonName(), "");
    EXPECT_TRUE(w.generated_certificate().empty());
    w.ProcessMessages();  // a completion posted by the stopped worker changes nothing
    EXPECT_EQ(w.modal_result(), ModalResult::Cancel);
  }
  HeldWorker held;
  {
    W destroyed_while_running;
    fill(destroyed_while_running);
    destroyed_while_running.btnNextClick();
    destroyed_while_running.btnNextClick();
    held.hold(destroyed_while_running);
    destroyed_while_running.btnGenerateClick();
    held.wait_held();
  }
  EXPECT_TRUE(held.ended_cancelled());
  EXPECT_EQ(thread_count(), threads_before);
  EXPECT_TRUE(open_store(store_.path())->certificates().empty());
  EXPECT_TRUE(ui_->messages().empty());
}

TEST_F(Wizard, AStoreThatCannotBeWrittenIsReportedAndTheWizardStaysOpen) {
  test::TempDir d;
  test::write_file(d / "not-a-folder", "x");
  W w(open_store(d / "not-a-folder/MY"));
  fill(w);
  w.btnNextClick();
  w.btnNextClick();
  w.btnGenerateClick();
  auto end = std::chrono::steady_clock::now() + 60s;
  while (w.Generating() && std::chrono::steady_clock::now() < end)
    w.ProcessMessages(50ms);
  EXPECT_EQ(w.modal_result(), ModalResult::None);
  ASSERT_EQ(ui_->messages().size(), 1u);
  EXPECT_EQ(ui_->messages()[0].kind, MessageKind::Error);
  EXPECT_EQ(ui_->messages()[0].text.rfind("Error: ", 0), 0u);
  EXPECT_TRUE(w.CancelEnabled());
  EXPECT_TRUE(w.GenerateEnabled());
  EXPECT_FALSE(w.Busy());
  EXPECT_EQ(w.cert_commonName(), "");
}

TEST(WizardNames, DisplayNameFallsBackFromCommonNameToOrganizationToEmail) {
  test::CertParams s;
  s.kind = KeyKind::Ec;
  s.bits = 256;
  s.cn = "Solo";
  s.org = "Org";
  EXPECT_EQ(CertificateDisplayName(test::make_cert(s).cert), "Solo");
  s.cn = "";
  EXPECT_EQ(CertificateDisplayName(test::make_cert(s).cert), "Org");
  s.org = "";
  s.email = "only@example.org";
  EXPECT_EQ(CertificateDisplayName(test::make_cert(s).cert), "only@example.org");
}

struct Typed {
  std::string result;  // what DoCreateCertificate returned
  std::string screen;  // everything the terminal showed
};

// Runs the wizard on a pseudo-terminal with `keys` typed ahead, until it is done.
Typed type_into_wizard(const std::string& keys) {
  int master = -1, slave = -1;
  if (openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) {
    ADD_FAILURE() << "openpty";
    return {};
  }
  test::ScopedUi scoped(std::make_shared<TerminalUi>(slave, slave, false));
  Typed typed;
  std::thread t([&] { typed.result = W::DoCreateCertificate(); });
  EXPECT_EQ(::write(master, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  char buf[8192];
  auto end = std::chrono::steady_clock::now() + 60s;
  while (std::chrono::steady_clock::now() < end) {
    pollfd p{master, POLLIN, 0};
    if (poll(&p, 1, 100) > 0) {
      ssize_t n = ::read(master, buf, sizeof buf);
      if (n > 0) typed.screen.append(buf, static_cast<std::size_t>(n));
    } else if (!typed.result.empty()) {
      break;
    }
  }
  // A wizard still waiting for an answer reads the end of input and closes.
  ::close(master);
  t.join();
  ::close(slave);
  return typed;
}

TEST(WizardTerminal, CompletedByTyping) {
  test::ScopedStore store;
  // Subject page: an empty e-mail first (refused), then complete; the period page keeps
  // its dates; the last page generates.
  auto typed = type_into_wizard(
      "Anna Rossi\nTorino\n\nItaly\nItalia\nRossi Srl\n\na\n"
      "\n\n\n\n\nanna@example.org\na\n"
      "\n\na\n"
      "g\n");
  const std::string& screen = typed.screen;
  EXPECT_EQ(typed.result, "Anna Rossi") << screen;
  EXPECT_NE(screen.find("Compilare tutti i campi con l'asterisco."), std::string::npos);
  // The asterisks mark the fields the message asks for, and only those.
  for (const char* required :
       {"* Nome certificato:", "* Città: ", "* Nazione:", "* Nome Organizzazione:", "* Email:"})
    EXPECT_NE(screen.find(required), std::string::npos) << required;
  EXPECT_NE(screen.find("  Provincia:"), std::string::npos);
  EXPECT_EQ(screen.find("* Provincia:"), std::string::npos);
  EXPECT_NE(screen.find("not in the list"), std::string::npos);
  auto certs = open_store(store.path())->certificates();
  ASSERT_EQ(certs.size(), 1u);
  EXPECT_EQ(certs[0].subject_values(oid::kCountryName), std::vector<std::string>{"IT"});
}

// 245 names are too many to type exactly: the first letters find them.
TEST(WizardTerminal, CountryIsFoundByItsFirstLetters) {
  test::TempDir tmp;
  W model(open_store(tmp.path()));
  EXPECT_TRUE(model.countries_starting_with("").empty());
  ASSERT_EQ(model.countries_starting_with("GER").size(), 2u);
  auto italia = model.countries_starting_with("ital");
  ASSERT_EQ(italia.size(), 1u);
  EXPECT_EQ(model.cbCountryItems[static_cast<std::size_t>(italia[0])], "Italia");

  test::ScopedStore store;
  // "ger" is ambiguous: the matches are listed and one is chosen by its number.
  auto typed =
      type_into_wizard("Hans Weber\nBerlin\n\nger\n2\nWeber GmbH\nhans@example.org\na\n\n\na\ng\n");
  EXPECT_EQ(typed.result, "Hans Weber") << typed.screen;
  EXPECT_NE(typed.screen.find("[2] Germany"), std::string::npos) << typed.screen;
  auto certs = open_store(store.path())->certificates();
  ASSERT_EQ(certs.size(), 1u);
  EXPECT_EQ(certs[0].subject_values(oid::kCountryName), std::vector<std::string>{"DE"});
}

// The period is typed dd/mm/yyyy; a day that does not exist or a word is asked for again,
// and the dates typed are the certificate's first and last day.
TEST(WizardTerminal, TypedDatesBecomeTheValidityAndANonDateIsAskedAgain) {
  test::ScopedStore store;
  auto typed = type_into_wizard(
      "Carla Verdi\nRoma\nRM\n\nStudio Verdi\ncarla@example.org\na\n"
      "31/02/2031\nsoon\n15/03/2031\n14/03/2035\na\n"
      "g\n");
  EXPECT_EQ(typed.result, "Carla Verdi") << typed.screen;
  std::size_t refused = 0;
  for (auto at = typed.screen.find("(not a date: dd/mm/yyyy)"); at != std::string::npos;
       at = typed.screen.find("(not a date: dd/mm/yyyy)", at + 1))
    ++refused;
  EXPECT_EQ(refused, 2u) << typed.screen;
  auto certs = open_store(store.path())->certificates();
  ASSERT_EQ(certs.size(), 1u);
  EXPECT_EQ(certs[0].not_before(), SysFromDateTime(EncodeDateTime({2031, 3, 15})));
  EXPECT_EQ(certs[0].not_after(), SysFromDateTime(EncodeDateTime({2035, 3, 14})));
}

}  // namespace
}  // namespace tessarel
