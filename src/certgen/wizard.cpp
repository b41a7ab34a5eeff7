#include "tessarel/wizard.h"

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <mutex>

#include "certgen/countries.h"
#include "certgen/generation_thread.h"
#include "certgen/wizard_internal.h"
#include "certgen/wizard_testing.h"
#include "platform/asn1/der.h"
#include "platform/runtime/datetime.h"
#include "platform/runtime/scope.h"
#include "platform/runtime/strings.h"
#include "tessarel/errors.h"
#include "tessarel/ui.h"

namespace tessarel {

const DateTime TfrmGenerateCert::kMinDate = EncodeDateTime({1999, 12, 31});
const DateTime TfrmGenerateCert::kMaxDate = EncodeDateTime({2100, 12, 31});

const std::array<TfrmGenerateCert::SubjectField, 6> TfrmGenerateCert::kSubjectFields = {{
    {"edtCommonName", kLabelCommonName, true, &TfrmGenerateCert::edtCommonName, kMaxCommonName},
    {"edtLocality", kLabelLocality, true, &TfrmGenerateCert::edtLocality, kMaxLocality},
    {"edtState", kLabelState, false, &TfrmGenerateCert::edtState, kMaxState},
    {"cbCountry", kLabelCountry, true, nullptr, 0},
    {"edtOrganization", kLabelOrganization, true, &TfrmGenerateCert::edtOrganization,
     kMaxOrganization},
    {"EdtEmail", kLabelEmail, true, &TfrmGenerateCert::EdtEmail, kMaxEmail},
}};

TfrmGenerateCert::Day TfrmGenerateCert::ToDay(DateTime d) {
  CivilTime c = DecodeDateTime(d);
  return {c.year, c.month, c.day};
}

DateTime TfrmGenerateCert::FromDay(const Day& d) {
  return EncodeDateTime({d.year, d.month, d.day});
}

namespace {

constexpr auto kTick = std::chrono::milliseconds(200);

// Calendar months later; the day is clamped to the month's last day.
DateTime IncMonth(DateTime d, int months) {
  CivilTime c = DecodeDateTime(d);
  int m = c.month - 1 + months;
  c.year += m / 12;
  c.month = m % 12 + 1;
  static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  bool leap = (c.year % 4 == 0 && c.year % 100 != 0) || c.year % 400 == 0;
  int last = kDays[c.month - 1] + (c.month == 2 && leap ? 1 : 0);
  c.day = std::min(c.day, last);
  c.hour = c.minute = c.second = c.millisecond = 0;
  return EncodeDateTime(c);
}

std::size_t utf8_length(const std::string& s) {
  return static_cast<std::size_t>(
      std::count_if(s.begin(), s.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

std::string join_values(const Certificate& c, const char* oid) {
  return join(c.subject_values(oid), " / ");
}

}  // namespace

std::string CertificateDisplayName(const Certificate& c) {
  std::string name = join_values(c, oid::kCommonName);
  if (name.empty()) name = join_values(c, oid::kOrganizationName);
  if (name.empty()) name = join_values(c, oid::kEmailAddress);
  return name;
}

// Hidden: only the class's interface is exported.
struct __attribute__((visibility("hidden"))) TfrmGenerateCert::Impl {
  Impl(TfrmGenerateCert& owner, std::shared_ptr<CertStore> s) : self(owner), store(std::move(s)) {}

  bool SubjectValid();
  void StartGeneration();
  void StopWorker();
  void StopProgress();
  void OnGenerationDone();
  void FinishClosed(ModalResult r);

  TfrmGenerateCert& self;
  std::shared_ptr<CertStore> store;
  Page page = Page::tsEnterFields;
  std::string lbl_info;
  std::string lb_generate;
  DateTime dtp_from = 0, dtp_to = 0;
  bool back_enabled = false, next_enabled = true, cancel_enabled = true, generate_enabled = true;
  bool progress_visible = false;
  int progress_position = 0;
  bool busy = false;
  ModalResult modal_result = ModalResult::None;
  std::string cert_common_name;
  Bytes generated_der;

  // What the worker shares with the dialog's thread.
  std::mutex m;
  std::condition_variable cv;
  bool completion_posted = false;
  bool timer_enabled = false;
  std::chrono::steady_clock::time_point next_tick;
  std::unique_ptr<TElX509CertificateEx> cert;
  std::unique_ptr<TCertificateGenerationThread> worker;
  bool generating = false;

  // Changed only by tests (WizardTesting).
  std::chrono::milliseconds tick = kTick;
  std::function<void(std::stop_token)> before_generation;
  std::function<void(std::exception_ptr)> after_generation;
};

TfrmGenerateCert::TfrmGenerateCert() : TfrmGenerateCert(personal_store()) {}

TfrmGenerateCert::TfrmGenerateCert(std::shared_ptr<CertStore> store)
    : impl_(std::make_unique<Impl>(*this, std::move(store))) {
  cbCountryIndex = FillCountryList(cbCountryItems);
  impl_->dtp_from = Date();
  impl_->dtp_to = IncMonth(impl_->dtp_from, 48);
  impl_->lbl_info = kHintEnterFields;
}

TfrmGenerateCert::~TfrmGenerateCert() {
  // Closing while a key is being generated stops the job; nothing is stored.
  if (impl_->worker) {
    impl_->worker->Terminate();
    impl_->worker->WaitFor();
  }
}

DateTime TfrmGenerateCert::dtpFrom() const {
  return impl_->dtp_from;
}
DateTime TfrmGenerateCert::dtpTo() const {
  return impl_->dtp_to;
}
TfrmGenerateCert::Page TfrmGenerateCert::page() const {
  return impl_->page;
}
const std::string& TfrmGenerateCert::lblInfo() const {
  return impl_->lbl_info;
}
const std::string& TfrmGenerateCert::lbGenerate() const {
  return impl_->lb_generate;
}
bool TfrmGenerateCert::BackEnabled() const {
  return impl_->back_enabled;
}
bool TfrmGenerateCert::NextEnabled() const {
  return impl_->next_enabled;
}
bool TfrmGenerateCert::CancelEnabled() const {
  return impl_->cancel_enabled;
}
bool TfrmGenerateCert::GenerateEnabled() const {
  return impl_->generate_enabled;
}
bool TfrmGenerateCert::Generating() const {
  return impl_->generating;
}
bool TfrmGenerateCert::ProgressVisible() const {
  return impl_->progress_visible;
}
int TfrmGenerateCert::ProgressPosition() const {
  return impl_->progress_position;
}
bool TfrmGenerateCert::Busy() const {
  return impl_->busy;
}
ModalResult TfrmGenerateCert::modal_result() const {
  return impl_->modal_result;
}
const std::string& TfrmGenerateCert::cert_commonName() const {
  return impl_->cert_common_name;
}
const Bytes& TfrmGenerateCert::generated_certificate() const {
  return impl_->generated_der;
}

bool TfrmGenerateCert::select_country(const std::string& name) {
  for (std::size_t i = 0; i < cbCountryItems.size(); ++i) {
    if (cbCountryItems[i] == name) {
      cbCountryIndex = static_cast<int>(i);
      return true;
    }
  }
  return false;
}

std::vector<int> TfrmGenerateCert::countries_starting_with(const std::string& prefix) const {
  std::vector<int> out;
  if (prefix.empty()) return out;
  const std::string p = lower_ascii(prefix);
  for (std::size_t i = 0; i < cbCountryItems.size(); ++i)
    if (lower_ascii(cbCountryItems[i]).rfind(p, 0) == 0) out.push_back(static_cast<int>(i));
  return out;
}

std::string TfrmGenerateCert::country_text() const {
  if (cbCountryIndex < 0 || cbCountryIndex >= static_cast<int>(cbCountryItems.size())) return "";
  return cbCountryItems[static_cast<std::size_t>(cbCountryIndex)];
}

void TfrmGenerateCert::set_dtpFrom(DateTime d) {
  impl_->dtp_from = std::clamp(std::trunc(d), kMinDate, kMaxDate);
}
void TfrmGenerateCert::set_dtpTo(DateTime d) {
  impl_->dtp_to = std::clamp(std::trunc(d), kMinDate, kMaxDate);
}

void TfrmGenerateCert::pcMainChange() {
  switch (impl_->page) {
    case Page::tsEnterFields:
      impl_->lbl_info = kHintEnterFields;
      break;
    case Page::tsSpecifyPeriod:
      impl_->lbl_info = kHintSpecifyPeriod;
      break;
    case Page::tsGenerate:
      impl_->lbl_info = kHintGenerate;
      break;
  }
}

bool TfrmGenerateCert::Impl::SubjectValid() {
  for (const SubjectField& f : kSubjectFields) {
    const bool filled = f.text ? !(self.*f.text).empty() : self.cbCountryIndex >= 0;
    if (f.required && !filled) {
      currentUi().message_box(MessageKind::Plain, MessageButtons::Ok, kMissingFields);
      return false;
    }
  }
  for (const SubjectField& f : kSubjectFields) {
    if (f.text && utf8_length(self.*f.text) > f.max_length) {
      currentUi().message_box(MessageKind::Error, MessageButtons::Ok,
                              "Campo troppo lungo: " + trim(f.label) + " (al massimo " +
                                  std::to_string(f.max_length) + " caratteri).");
      return false;
    }
  }
  return true;
}

void TfrmGenerateCert::btnNextClick() {
  Impl& d = *impl_;
  if (!d.next_enabled || d.modal_result != ModalResult::None) return;
  if (d.page == Page::tsEnterFields) {
    if (d.SubjectValid()) d.page = Page::tsSpecifyPeriod;
  } else if (d.page == Page::tsSpecifyPeriod) {
    if (d.dtp_to < d.dtp_from) {
      currentUi().message_box(MessageKind::Error, MessageButtons::Ok, kPeriodReversed);
      return;
    }
    d.lb_generate = kGenerateText;
    d.page = Page::tsGenerate;
    d.next_enabled = false;
  }
}

void TfrmGenerateCert::btnCancelClick() {
  if (!impl_->cancel_enabled || impl_->modal_result != ModalResult::None) return;
  if (currentUi().message_box(MessageKind::Confirmation, MessageButtons::YesNo, kConfirmCancel) ==
      ModalResult::Yes)
    impl_->FinishClosed(ModalResult::Cancel);
}

void TfrmGenerateCert::close_box() {
  if (impl_->modal_result != ModalResult::None) return;
  impl_->StopWorker();
  impl_->FinishClosed(ModalResult::Cancel);
}

void TfrmGenerateCert::Impl::StopWorker() {
  if (!worker) return;
  worker->Terminate();
  worker->WaitFor();
  worker.reset();
  generating = false;
  StopProgress();
}

void TfrmGenerateCert::Impl::FinishClosed(ModalResult r) {
  modal_result = r;
  if (busy) {
    busy = false;
    currentUi().busy_cursor(false);
  }
}

void TfrmGenerateCert::btnGenerateClick() {
  if (!impl_->generate_enabled || impl_->page != Page::tsGenerate ||
      impl_->modal_result != ModalResult::None)
    return;
  impl_->StartGeneration();
}

void TfrmGenerateCert::Impl::StartGeneration() {
  auto signature = TElAlgorithmIdentifier::CreateByAlgorithm(CertAlgorithm::Sha512WithRsa);
  auto key = TElAlgorithmIdentifier::CreateByAlgorithm(
      GetKeyAlgorithmBySigAlgorithm(signature.algorithm()));

  cert = std::make_unique<TElX509CertificateEx>();
  const std::string country = CountryCode(self.country_text());
  const std::pair<const char*, std::string> attributes[] = {
      {oid::kCountryName, country},           {oid::kStateOrProvinceName, self.edtState},
      {oid::kLocalityName, self.edtLocality}, {oid::kOrganizationName, self.edtOrganization},
      {oid::kCommonName, self.edtCommonName}, {oid::kEmailAddress, self.EdtEmail},
  };
  // Each value in a string type that can hold it, so that every X.509 reader parses the
  // name; issuer and subject are the same name.
  for (const auto& [oid, value] : attributes) {
    cert->SubjectRDN.AddText(oid, value);
    cert->IssuerRDN.AddText(oid, value);
  }
  cert->ValidFrom = SysFromDateTime(std::trunc(dtp_from));
  cert->ValidTo = SysFromDateTime(std::trunc(dtp_to));
  try {
    cert->SerialNumber = NewSerialNumber(*store);
  } catch (const std::exception& e) {
    currentUi().message_box(MessageKind::Error, MessageButtons::Ok,
                            std::string("Error: ") + e.what());
    return;
  }

  worker = std::make_unique<TCertificateGenerationThread>(nullptr, cert.get());
  busy = true;
  currentUi().busy_cursor(true);
  generating = true;
  back_enabled = next_enabled = cancel_enabled = generate_enabled = false;
  worker->FKeyAlgorithm = key;
  worker->FSignatureAlgorithm = signature;
  worker->FBits = kKeyBits;
  worker->BeforeGeneration = before_generation;
  worker->AfterGeneration = after_generation;
  worker->OnTerminate = [this] {
    std::lock_guard lock(m);
    completion_posted = true;
    cv.notify_all();
  };
  {
    std::lock_guard lock(m);
    completion_posted = false;
    timer_enabled = true;
    next_tick = std::chrono::steady_clock::now() + tick;
  }
  progress_position = 0;
  progress_visible = true;
  worker->Resume();
}

void TfrmGenerateCert::Impl::StopProgress() {
  std::lock_guard lock(m);
  timer_enabled = false;
  progress_visible = false;
}

void TfrmGenerateCert::ProcessMessages(std::chrono::milliseconds max_wait) {
  Impl& d = *impl_;
  auto deadline = std::chrono::steady_clock::now() + max_wait;
  bool tick = false, done = false;
  {
    std::unique_lock lock(d.m);
    auto wake = d.timer_enabled ? std::min(deadline, d.next_tick) : deadline;
    d.cv.wait_until(lock, wake, [&] { return d.completion_posted; });
    auto now = std::chrono::steady_clock::now();
    if (d.timer_enabled && now >= d.next_tick) {
      tick = true;
      d.next_tick = now + d.tick;
    }
    done = d.completion_posted;
    d.completion_posted = false;
  }
  if (tick) {
    d.progress_position += 5;
    if (d.progress_position >= 100) d.progress_position = 0;
    if (OnProgress) OnProgress(d.progress_position);
  }
  if (done) d.OnGenerationDone();
}

void TfrmGenerateCert::Impl::OnGenerationDone() {
  if (!worker) return;
  worker->WaitFor();
  std::exception_ptr error = worker->error();
  worker.reset();
  generating = false;

  auto fail = [&](const std::string& message) {
    StopProgress();
    if (busy) {
      busy = false;
      currentUi().busy_cursor(false);
    }
    cancel_enabled = generate_enabled = true;
    currentUi().message_box(MessageKind::Error, MessageButtons::Ok, "Error: " + message);
  };
  if (error) {
    try {
      std::rethrow_exception(error);
    } catch (const std::exception& e) {
      fail(e.what());
    }
    return;
  }
  // The certificate goes into the store with its key as one entry.
  Bytes key = cert->private_key().to_pkcs8_der();
  ScopeExit wipe_key([&] { wipe(key); });
  try {
    store->add(cert->certificate(), key);
  } catch (const std::exception& e) {
    fail(e.what());
    return;
  }
  const Certificate& c = cert->certificate();
  cert_common_name = CertificateDisplayName(c);
  generated_der = c.der();
  StopProgress();
  FinishClosed(ModalResult::Ok);
}

void WizardTesting::before_generation(TfrmGenerateCert& w,
                                      std::function<void(std::stop_token)> hook) {
  w.impl_->before_generation = std::move(hook);
}

void WizardTesting::after_generation(TfrmGenerateCert& w,
                                     std::function<void(std::exception_ptr)> hook) {
  w.impl_->after_generation = std::move(hook);
}

void WizardTesting::set_tick(TfrmGenerateCert& w, std::chrono::milliseconds period) {
  w.impl_->tick = period;
}

bool WizardTesting::worker_running(const TfrmGenerateCert& w) {
  return w.impl_->worker && w.impl_->worker->Running();
}

std::string TfrmGenerateCert::DoCreateCertificate() {
  TfrmGenerateCert wizard;
  currentUi().certificate_wizard(wizard);
  return wizard.cert_commonName();
}

}  // namespace tessarel
