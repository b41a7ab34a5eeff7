// The certificate picker: its list, filter, info panel, removal, warning and the result of
// the SelezionaCertificato entry point; driven by the scripted front end and by typing on a
// pseudo-terminal.
#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <thread>

#include "frontends/scripted_ui.h"
#include "frontends/terminal_ui.h"
#include "tessarel/exports.h"
#include "tessarel/picker.h"
#include "test_support.h"

namespace tessarel {
namespace {

constexpr std::uint16_t bit(KeyUsageBit b) {
  return static_cast<std::uint16_t>(1u << b);
}

class Picker : public ::testing::Test {
 protected:
  test::TestCert add(const std::string& cn, Bytes serial, std::optional<std::uint16_t> ku,
                     bool key = true, const std::string& org = "") {
    test::CertParams s;
    s.cn = cn;
    s.org = org;
    s.serial = std::move(serial);
    s.key_usage = ku;
    s.kind = KeyKind::Ec;
    s.bits = 256;
    auto tc = test::make_cert(s);
    store_.add(tc, key);
    return tc;
  }
  std::string pick(bool show_ca, std::function<void(TfrmSelWinCert&)> action,
                   const char* previous = "kept") {
    ui_->answer_picker(std::move(action));
    char* result = strdup(previous);
    SelezionaCertificato(&result, show_ca);
    std::string out = result;
    std::free(result);
    return out;
  }
  test::ScopedStore store_;
  std::shared_ptr<ScriptedUi> ui_ = std::make_shared<ScriptedUi>();
  test::ScopedUi scoped_{ui_};
};

TEST_F(Picker, RowsShowSerialHolderIssuerValidityAndKey) {
  add("Mario Rossi", {0x1A, 0x2B, 0x3C}, bit(kDigitalSignature) | bit(kNonRepudiation));
  add("", {0x44}, std::nullopt, false, "Rossi SpA");  // no CN: the organization is shown
  TfrmSelWinCert form;
  form.FormShow();
  ASSERT_EQ(form.rows().size(), 2u);
  const auto& r0 = form.rows()[0].cells;
  EXPECT_EQ(r0[0], "1A 2B 3C");
  EXPECT_EQ(r0[1], "Mario Rossi");
  EXPECT_EQ(r0[2], "Mario Rossi");  // self-signed
  EXPECT_EQ(r0[3].size() >= 10, true);
  EXPECT_EQ(r0[3].substr(2, 1), "/");
  EXPECT_EQ(r0[5], "Yes");
  const auto& r1 = form.rows()[1].cells;
  EXPECT_EQ(r1[0], "44");
  EXPECT_EQ(r1[1], "Rossi SpA");
  EXPECT_EQ(r1[2], "Rossi SpA");
  EXPECT_EQ(r1[5], "No");
  EXPECT_STREQ(TfrmSelWinCert::kColumns[0].caption, "Certificato ID");
  EXPECT_STREQ(TfrmSelWinCert::kColumns[5].caption, "Chiave priv.");

  // Info panel: "None" twice until a row is selected.
  EXPECT_EQ(form.dlbPrivateKey(), "None");
  EXPECT_EQ(form.dlbUsage(), "None");
  form.lvCerificatesChange(0);
  EXPECT_EQ(form.dlbPrivateKey(), "Available");
  EXPECT_EQ(form.dlbUsage(), "Digital Signitare, Non-repudiation");
  form.lvCerificatesChange(1);
  EXPECT_EQ(form.dlbPrivateKey(), "None");
  EXPECT_EQ(form.dlbUsage(), "");  // no key-usage extension
  form.lvCerificatesChange(-1);
  EXPECT_EQ(form.dlbPrivateKey(), "None");
  EXPECT_FALSE(form.FCertificate());
}

TEST_F(Picker, UsageTextFollowsTheBitOrderAndDropsTheLastSeparator) {
  auto tc = add("All", {0x50}, 0x1FF);
  EXPECT_EQ(TfrmSelWinCert::UsageText(tc.cert),
            "Digital Signitare, Non-repudiation, Key Transport, Data Encipherment, Key Agreement, "
            "Certificate Signing, CRL Signing, Encipher only, Decipher only");
}

TEST_F(Picker, ShowCaListsOnlyDigitalSignaturePlusKeyEncipherment) {
  add("No usage", {0x01}, std::nullopt);
  add("Sign and encipher", {0x02}, bit(kDigitalSignature) | bit(kKeyEncipherment));
  add("Sign only", {0x03}, bit(kDigitalSignature));
  TfrmSelWinCert all;
  all.FormShow();
  EXPECT_EQ(all.rows().size(), 3u);
  TfrmSelWinCert ca;
  ca.showCA = true;
  ca.FormShow();
  ASSERT_EQ(ca.rows().size(), 1u);
  EXPECT_EQ(ca.rows()[0].cells[1], "Sign and encipher");
}

TEST_F(Picker, ConfirmedChoiceComesBackAsTheIdentifier) {
  add("Primo", {0x0F, 0x01}, std::nullopt);
  add("Secondo", {0x0F, 0x02}, std::nullopt);
  std::string id = pick(false, [](TfrmSelWinCert& f) {
    f.lvCerificatesChange(1);
    f.btnOKClick();
  });
  EXPECT_EQ(id, "0F02");
  char* name = nullptr;
  SelezionaCommonName(&name, id.c_str());
  EXPECT_STREQ(name, "Secondo");
  std::free(name);
  EXPECT_TRUE(ui_->messages().empty());  // no key usage extension: no warning
}

TEST_F(Picker, CancelCloseBoxOrNothingSelectedLeaveTheResultUnchanged) {
  add("Primo", {0x0F, 0x01}, std::nullopt);
  EXPECT_EQ(pick(false,
                 [](TfrmSelWinCert& f) {
                   f.lvCerificatesChange(0);
                   f.btnCancelClick();
                 }),
            "kept");
  EXPECT_EQ(pick(false, [](TfrmSelWinCert& f) { f.lvCerificatesChange(0); }), "kept");  // close box
  EXPECT_EQ(pick(false, [](TfrmSelWinCert& f) { f.btnOKClick(); }), "kept");  // OK, no row
}

TEST_F(Picker, MissingNonRepudiationWarnsOnceUnlessShowCa) {
  add("Firma", {0x21}, bit(kDigitalSignature) | bit(kKeyEncipherment));
  EXPECT_EQ(pick(false,
                 [](TfrmSelWinCert& f) {
                   f.lvCerificatesChange(0);
                   f.btnOKClick();
                 }),
            "21");
  ASSERT_EQ(ui_->messages().size(), 1u);
  EXPECT_EQ(ui_->messages()[0].text, "Attenzione il certificato non prevede il diritto di repudio");
  EXPECT_EQ(ui_->messages()[0].kind, MessageKind::Plain);

  EXPECT_EQ(pick(true,
                 [](TfrmSelWinCert& f) {
                   f.lvCerificatesChange(0);
                   f.btnOKClick();
                 }),
            "21");
  EXPECT_EQ(ui_->messages().size(), 1u);  // none with showCA
}

TEST_F(Picker, RemovalTakesTheCertificateOutOfTheStoreAndClearsTheSelection) {
  auto a = add("A", {0x31}, std::nullopt);
  auto b = add("B", {0x32}, std::nullopt);
  auto c = add("C", {0x33}, std::nullopt);
  std::string id = pick(false, [](TfrmSelWinCert& f) {
    f.lvCerificatesChange(1);
    f.RimuoviCertificato1Click();
    EXPECT_EQ(f.rows().size(), 2u);
    EXPECT_FALSE(f.FCertificate());
    EXPECT_EQ(f.dlbPrivateKey(), "None");
    EXPECT_EQ(f.dlbUsage(), "None");
    f.btnOKClick();
  });
  EXPECT_EQ(id, "kept");
  auto left = open_store(store_.path())->certificates();
  ASSERT_EQ(left.size(), 2u);
  EXPECT_EQ(left[0], a.cert);
  EXPECT_EQ(left[1], c.cert);
  // Removing with nothing selected does nothing.
  TfrmSelWinCert form;
  form.FormShow();
  form.RimuoviCertificato1Click();
  EXPECT_EQ(open_store(store_.path())->certificates().size(), 2u);
}

// The caption above the list names where the certificates come from: the folder of the
// personal store, the home folder written as "~".
TEST_F(Picker, TheCaptionNamesTheStoresFolder) {
  TfrmSelWinCert form;
  EXPECT_EQ(form.Label1(),
            "Certificati installati nell'archivio personale Tessarel (" + store_.path() + ")");
  const char* old_home = std::getenv("HOME");
  const std::string saved = old_home ? old_home : "";
  const std::string parent = store_.path().substr(0, store_.path().rfind('/'));
  setenv("HOME", parent.c_str(), 1);
  std::string at_home = form.Label1();
  setenv("HOME", (parent + "/M").c_str(), 1);  // a prefix of the path, not a folder above it
  std::string not_home = form.Label1();
  if (old_home)
    setenv("HOME", saved.c_str(), 1);
  else
    unsetenv("HOME");
  EXPECT_EQ(at_home, "Certificati installati nell'archivio personale Tessarel (~/MY)");
  EXPECT_EQ(not_home,
            "Certificati installati nell'archivio personale Tessarel (" + store_.path() + ")");
}

TEST(PickerTerminal, ChosenByTypingOnATerminal) {
  test::ScopedStore store;
  test::CertParams s;
  s.kind = KeyKind::Ec;
  s.bits = 256;
  s.cn = "Uno";
  s.serial = {0x61};
  store.add(test::make_cert(s));
  s.cn = "Due";
  s.serial = {0x62};
  store.add(test::make_cert(s));
  int master = -1, slave = -1;
  ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
  test::ScopedUi scoped(std::make_shared<TerminalUi>(slave, slave, false));
  std::string result;
  std::thread t([&] {
    char* r = nullptr;
    SelezionaCertificato(&r, false);
    result = r ? r : "";
    std::free(r);
  });
  const std::string keys = "\n1\nok\n";  // Enter alone closes nothing
  ASSERT_EQ(::write(master, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  t.join();
  std::string screen = test::read_terminal(master);
  ::close(master);
  ::close(slave);
  EXPECT_EQ(result, "62");
  EXPECT_NE(screen.find("Seleziona certificato"), std::string::npos);
  EXPECT_NE(
      screen.find("Certificati installati nell'archivio personale Tessarel (" + store.path() + ")"),
      std::string::npos)
      << screen;
  EXPECT_NE(screen.find("Rilasciato a"), std::string::npos);
  EXPECT_NE(screen.find("Ha chiave privata: Available"), std::string::npos);
}

}  // namespace
}  // namespace tessarel
