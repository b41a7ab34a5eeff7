#include "frontends/terminal_ui.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>

#include "platform/runtime/datetime.h"
#include "platform/runtime/strings.h"
#include "platform/ui/none_ui.h"
#include "tessarel/errors.h"
#include "tessarel/picker.h"
#include "tessarel/types.h"
#include "tessarel/wizard.h"

namespace tessarel {

namespace {
// Restores the terminal if the process is interrupted while echo is off.
int g_echo_fd = -1;
termios g_saved{};
void restore_on_signal(int sig) {
  if (g_echo_fd >= 0) tcsetattr(g_echo_fd, TCSAFLUSH, &g_saved);
  std::signal(sig, SIG_DFL);
  std::raise(sig);
}

class EchoOff {
 public:
  explicit EchoOff(int fd) : fd_(fd) {
    if (tcgetattr(fd, &saved_) != 0) return;
    termios t = saved_;
    t.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    t.c_lflag |= ECHONL;
    g_saved = saved_;
    g_echo_fd = fd;
    old_int_ = std::signal(SIGINT, restore_on_signal);
    old_term_ = std::signal(SIGTERM, restore_on_signal);
    active_ = tcsetattr(fd, TCSAFLUSH, &t) == 0;
  }
  ~EchoOff() {
    if (!active_) return;
    tcsetattr(fd_, TCSAFLUSH, &saved_);
    g_echo_fd = -1;
    std::signal(SIGINT, old_int_);
    std::signal(SIGTERM, old_term_);
  }

 private:
  int fd_;
  termios saved_{};
  bool active_ = false;
  void (*old_int_)(int) = SIG_DFL;
  void (*old_term_)(int) = SIG_DFL;
};
}  // namespace

std::shared_ptr<TerminalUi> TerminalUi::open() {
  int fd = ::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return nullptr;
  return std::make_shared<TerminalUi>(fd, fd, true);
}

TerminalUi::TerminalUi(int in_fd, int out_fd, bool owns) : in_(in_fd), out_(out_fd), owns_(owns) {}

TerminalUi::~TerminalUi() {
  if (!owns_) return;
  ::close(in_);
  if (out_ != in_) ::close(out_);
}

void TerminalUi::write(const std::string& text) {
  const char* p = text.data();
  std::size_t n = text.size();
  while (n) {
    ssize_t w = ::write(out_, p, n);
    if (w < 0) {
      if (errno == EINTR) continue;
      return;
    }
    p += w;
    n -= static_cast<std::size_t>(w);
  }
}

std::optional<std::string> TerminalUi::read_line(bool echo) {
  std::optional<EchoOff> guard;
  if (!echo) guard.emplace(in_);
  std::string line;
  while (true) {
    char c;
    ssize_t r = ::read(in_, &c, 1);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) {
      if (line.empty()) return std::nullopt;
      break;
    }
    if (c == '\n') break;
    if (c != '\r') line.push_back(c);
  }
  return line;
}

std::optional<ModalResult> TerminalUi::ask_buttons(MessageButtons buttons) {
  while (true) {
    switch (buttons) {
      case MessageButtons::Ok:
        return ModalResult::Ok;
      case MessageButtons::OkCancel:
        write("[O]K / [C]ancel: ");
        break;
      case MessageButtons::YesNo:
        write("[Y]es / [N]o: ");
        break;
    }
    auto line = read_line();
    if (!line) return std::nullopt;
    std::string a = lower_ascii(trim(*line));
    if (buttons == MessageButtons::OkCancel) {
      if (a.empty() || a == "o" || a == "ok") return ModalResult::Ok;
      if (a == "c" || a == "cancel") return ModalResult::Cancel;
    } else {
      if (a.empty() || a == "y" || a == "yes" || a == "s" || a == "si") return ModalResult::Yes;
      if (a == "n" || a == "no") return ModalResult::No;
    }
  }
}

ModalResult TerminalUi::message_box(MessageKind kind, MessageButtons buttons,
                                    const std::string& text) {
  write(message_line(kind, text) + "\n");
  auto r = ask_buttons(buttons);
  if (r) return *r;
  return buttons == MessageButtons::YesNo ? ModalResult::No : ModalResult::Cancel;
}

ModalResult TerminalUi::password(TPasswordRequestForm& form) {
  write("== " + form.Caption + " ==\n");
  // Echo goes off before the prompt shows, so nothing typed after it is ever displayed.
  EchoOff no_echo(in_);
  write(std::string(TPasswordRequestForm::kLabel) + " ");
  auto line = read_line(true);
  if (!line) {
    form.btnCancelClick();
  } else {
    form.edtPassword = std::move(*line);
    wipe(*line);
    form.edtPasswordKeyPress(13);  // the line was ended with Enter
  }
  return form.modal_result();
}

void TerminalUi::overwrite_choice(TSignFileOverriteDlg& dlg) {
  write(std::string("== ") + TSignFileOverriteDlg::kCaption + " ==\n" +
        TSignFileOverriteDlg::kLabel + "\n" + TSignFileOverriteDlg::kGroupTitle + ":\n");
  for (std::size_t i = 0; i < TSignFileOverriteDlg::kItems.size(); ++i)
    write("  " + std::string(static_cast<int>(i) == dlg.ItemIndex ? "*" : " ") + "[" +
          std::to_string(i) + "] " + TSignFileOverriteDlg::kItems[i] + "\n");
  while (true) {
    write("[" + std::to_string(dlg.ItemIndex) + "]: ");
    auto line = read_line();
    if (!line) {
      dlg.close_box();
      return;
    }
    std::string a = trim(*line);
    if (a.empty()) break;
    if (a.size() == 1 && a[0] >= '0' && a[0] <= '4') {
      dlg.select(a[0] - '0');
      break;
    }
  }
  dlg.OKBtnClick();
}

ModalResult TerminalUi::record_deletion(TSignCancRegDlg& dlg) {
  write(std::string("== ") + TSignCancRegDlg::kCaption + " ==\n");
  for (std::size_t i = 0; i < dlg.ComboBox1.size(); ++i)
    write("  [" + std::to_string(i) + "] " + dlg.ComboBox1[i] + "\n");
  while (true) {
    write(std::string(TSignCancRegDlg::kTypeLabel) + " [" + dlg.selected_type() + "]: ");
    auto line = read_line();
    if (!line) {
      dlg.escape();
      return dlg.modal_result();
    }
    std::string a = trim(*line);
    if (a.empty()) break;
    bool found = false;
    for (std::size_t i = 0; i < dlg.ComboBox1.size(); ++i) {
      if (dlg.ComboBox1[i] == a || std::to_string(i) == a) {
        dlg.select(static_cast<int>(i));
        found = true;
        break;
      }
    }
    if (found) break;
  }
  write(std::string(TSignCancRegDlg::kIdLabel) + ": ");
  auto id = read_line();
  if (!id) {
    dlg.escape();
    return dlg.modal_result();
  }
  dlg.Edit1 = *id;
  auto r = ask_buttons(MessageButtons::OkCancel);
  if (r == ModalResult::Ok)
    dlg.OKBtnClick();
  else
    dlg.CancelBtnClick();
  return dlg.modal_result();
}

namespace {
std::string pad(const std::string& s, std::size_t width) {
  // Display width in characters, not bytes (UTF-8 continuation bytes take no column).
  std::size_t cols = 0;
  for (unsigned char c : s)
    if ((c & 0xC0) != 0x80) ++cols;
  return cols >= width ? s : s + std::string(width - cols, ' ');
}
}  // namespace

ModalResult TerminalUi::certificate_picker(TfrmSelWinCert& picker) {
  picker.FormShow();
  while (picker.modal_result() == ModalResult::None) {
    std::array<std::size_t, 6> widths{};
    for (std::size_t c = 0; c < 6; ++c)
      widths[c] = std::string(TfrmSelWinCert::kColumns[c].caption).size();
    for (const auto& row : picker.rows())
      for (std::size_t c = 0; c < 6; ++c)
        widths[c] = std::max(widths[c], row.cells[c].size());
    std::string screen =
        std::string("== ") + TfrmSelWinCert::kCaption + " ==\n" + picker.Label1() + "\n";
    screen += "     ";
    for (std::size_t c = 0; c < 6; ++c)
      screen += pad(TfrmSelWinCert::kColumns[c].caption, widths[c] + 2);
    screen += "\n";
    for (std::size_t r = 0; r < picker.rows().size(); ++r) {
      bool sel = static_cast<int>(r) == picker.selected_row();
      screen += std::string(sel ? "> " : "  ") + pad(std::to_string(r), 3);
      for (std::size_t c = 0; c < 6; ++c)
        screen += pad(picker.rows()[r].cells[c], widths[c] + 2);
      screen += "\n";
    }
    screen += std::string(TfrmSelWinCert::kLbPrivateKey) + picker.dlbPrivateKey() + "\n" +
              TfrmSelWinCert::kLbUsage + picker.dlbUsage() + "\n" +
              "[number] select   r = " + TfrmSelWinCert::kRemoveItem +
              "   o = " + TfrmSelWinCert::kOk + "   c = " + TfrmSelWinCert::kCancel + "\n> ";
    write(screen);
    auto line = read_line();
    if (!line) {
      picker.close_box();
      break;
    }
    std::string a = lower_ascii(trim(*line));
    if (a.empty()) continue;  // Enter does not close the picker
    if (a == "o" || a == "ok") {
      picker.btnOKClick();
    } else if (a == "c" || a == "cancel") {
      picker.btnCancelClick();
    } else if (a == "r") {
      picker.RimuoviCertificato1Click();
    } else {
      try {
        picker.lvCerificatesChange(static_cast<int>(StrToInt(a)));
      } catch (const Exception&) {
        write("?\n");
      }
    }
  }
  return picker.modal_result();
}

namespace {
std::optional<DateTime> parse_date(const std::string& text) {
  int d = 0, m = 0, y = 0;
  char tail = 0;
  if (std::sscanf(text.c_str(), "%d/%d/%d%c", &d, &m, &y, &tail) != 3) return std::nullopt;
  try {
    return EncodeDateTime({y, m, d});
  } catch (const Exception&) {
    return std::nullopt;
  }
}

using Wizard = TfrmGenerateCert;

// Asks one field; an empty answer keeps its value. false at end of input.
bool ask_field(TerminalUi& t, const std::string& label, std::string& field) {
  t.write(label + " [" + field + "]: ");
  auto line = t.read_line();
  if (!line) return false;
  if (!line->empty()) field = *line;
  return true;
}

// Back stays disabled on every page: Next or Cancel. false at end of input.
bool navigate(TerminalUi& t, Wizard& w, bool next_enabled) {
  t.write(next_enabled ? "[a] " + std::string(Wizard::kNext) + "   [n] " + Wizard::kCancel + ": "
                       : "[n] " + std::string(Wizard::kCancel) + ": ");
  auto line = t.read_line();
  if (!line) return false;
  std::string a = lower_ascii(trim(*line));
  if (next_enabled && (a.empty() || a == "a"))
    w.btnNextClick();
  else if (a == "n")
    w.btnCancelClick();
  return true;
}

// The country by its name, or by its first letters and then a number among the names
// they match. false at end of input.
bool ask_country(TerminalUi& t, Wizard& w, const std::string& label) {
  std::vector<int> offered;  // the names listed after an ambiguous prefix
  while (true) {
    t.write(label + " [" + w.country_text() + "]: ");
    auto line = t.read_line();
    if (!line) return false;
    std::string a = trim(*line);
    if (a.empty() || w.select_country(a)) return true;
    if (!offered.empty() && a.find_first_not_of("0123456789") == a.npos && a.size() < 4) {
      std::size_t n = std::stoul(a);
      if (n >= 1 && n <= offered.size()) {
        w.cbCountryIndex = offered[n - 1];
        return true;
      }
    }
    offered = w.countries_starting_with(a);
    if (offered.size() == 1) {
      w.cbCountryIndex = offered.front();
      t.write("  " + w.country_text() + "\n");
      return true;
    }
    if (offered.empty()) {
      t.write("  (not in the list: no country starts with \"" + a + "\")\n");
      continue;
    }
    std::string list;
    for (std::size_t i = 0; i < offered.size(); ++i)
      list += "  [" + std::to_string(i + 1) + "] " +
              w.cbCountryItems[static_cast<std::size_t>(offered[i])] + "\n";
    t.write(list + "  (type a number, or more letters)\n");
  }
}

// The subject's fields, top to bottom, then Next or Cancel. false at end of input.
bool subject_page(TerminalUi& t, Wizard& w) {
  t.write(std::string(Wizard::kHeadingFields) + "\n" + Wizard::kGroupSubject + "\n");
  for (const Wizard::SubjectField& f : Wizard::kSubjectFields) {
    const std::string label = std::string(f.required ? "* " : "  ") + f.label;
    if (!(f.text ? ask_field(t, label, w.*f.text) : ask_country(t, w, label))) return false;
  }
  return navigate(t, w, w.NextEnabled());
}

// The first and last day, each asked again until it is a date. false at end of input.
bool period_page(TerminalUi& t, Wizard& w) {
  t.write(std::string(Wizard::kHeadingPeriod) + "\n" + Wizard::kGroupPeriod + " (dd/mm/yyyy)\n");
  for (int which = 0; which < 2; ++which) {
    std::string text = FormatShortDate(which == 0 ? w.dtpFrom() : w.dtpTo());
    if (!ask_field(t, which == 0 ? Wizard::kLabelFrom : Wizard::kLabelTo, text)) return false;
    auto d = parse_date(trim(text));
    if (!d) {
      t.write("  (not a date: dd/mm/yyyy)\n");
      --which;
      continue;
    }
    if (which == 0)
      w.set_dtpFrom(*d);
    else
      w.set_dtpTo(*d);
  }
  return navigate(t, w, w.NextEnabled());
}

// The progress bar, redrawn until the key is made or the wizard closes; a line typed
// meanwhile ("q", or the end of input) closes it.
void follow_generation(TerminalUi& t, int in_fd, Wizard& w) {
  if (w.Generating()) t.write("(q: close the window and stop)\n");
  while (w.Generating() && w.modal_result() == ModalResult::None) {
    w.ProcessMessages(std::chrono::milliseconds(200));
    int pos = w.ProgressPosition();
    t.write("\r[" + std::string(static_cast<std::size_t>(pos / 5), '#') +
            std::string(static_cast<std::size_t>(20 - pos / 5), '.') + "]");
    pollfd p{in_fd, POLLIN, 0};
    if (poll(&p, 1, 0) > 0) {
      auto typed = t.read_line();
      if (!typed || lower_ascii(trim(*typed)) == "q") w.close_box();
    }
  }
  t.write("\n");
}

// Generate or Cancel; any other answer shows the page again. false at end of input.
bool generate_page(TerminalUi& t, int in_fd, Wizard& w) {
  t.write(w.lbGenerate() + "\n\n" + replace_all(Wizard::kGenerateNote, "\r\n", "\n") + "\n\n[g] " +
          Wizard::kGenerateButton + "   [n] " + Wizard::kCancel + ": ");
  auto line = t.read_line();
  if (!line) return false;
  std::string a = lower_ascii(trim(*line));
  if (a == "n") {
    w.btnCancelClick();
    return true;
  }
  if (a != "g") return true;
  w.btnGenerateClick();
  follow_generation(t, in_fd, w);
  return true;
}
}  // namespace

void TerminalUi::certificate_wizard(TfrmGenerateCert& w) {
  while (w.modal_result() == ModalResult::None) {
    write(std::string("\n== ") + Wizard::kCaption + " ==\n" + w.lblInfo() + "\n\n");
    bool ok = true;
    switch (w.page()) {
      case Wizard::Page::tsEnterFields:
        ok = subject_page(*this, w);
        break;
      case Wizard::Page::tsSpecifyPeriod:
        ok = period_page(*this, w);
        break;
      case Wizard::Page::tsGenerate:
        ok = generate_page(*this, in_, w);
        break;
    }
    if (!ok) w.close_box();
  }
}

void TerminalUi::progress_text(const std::string& text) {
  std::fprintf(stderr, "%s\n", text.c_str());
}

void TerminalUi::beep() {
  write("\a");
}

}  // namespace tessarel
