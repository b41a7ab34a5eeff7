#include "tessarel/wizard.h"

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <mutex>

#include "certgen/countries.h"
#include "certgen/generation_thread.h"
#include "certgen/wizard_internal.h"
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

struct TfrmGenerateCert::Impl {
  std::mutex m;
  std::condition_variable cv;
  bool completion_posted = false;
  bool timer_enabled = false;
  std::chrono::steady_clock::time_point next_tick;
  std::unique_ptr<TElX509CertificateEx> cert;
  std::unique_ptr<TCertificateGenerationThread> worker;
  std::function<void()> before_generation;
  bool generating = false;
};

TfrmGenerateCert::TfrmGenerateCert() : TfrmGenerateCert(personal_store()) {}

TfrmGenerateCert::TfrmGenerateCert(std::shared_ptr<CertStore> store)
    : store_(std::move(store)), impl_(std::make_unique<Impl>()) {
  cbCountryIndex = FillCountryList(cbCountryItems);
  dtp_from_ = Date();
  dtp_to_ = IncMonth(dtp_from_, 48);
  lbl_info_ = kHintEnterFields;
}

TfrmGenerateCert::~TfrmGenerateCert() {
  // Closing while a key is being generated stops the job; nothing is stored.
  if (impl_->worker) {
    impl_->worker->Terminate();
    impl_->worker->WaitFor();
  }
}

bool TfrmGenerateCert::Generating() const {
  return impl_->generating;
}

bool TfrmGenerateCert::worker_running() const {
  return impl_->worker && impl_->worker->Running();
}

void TfrmGenerateCert::set_before_generation(std::function<void()> hook) {
  impl_->before_generation = std::move(hook);
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
  dtp_from_ = std::clamp(std::trunc(d), kMinDate, kMaxDate);
}
void TfrmGenerateCert::set_dtpTo(DateTime d) {
  dtp_to_ = std::clamp(std::trunc(d), kMinDate, kMaxDate);
}

void TfrmGenerateCert::pcMainChange() {
  switch (page_) {
    case Page::tsEnterFields:
      lbl_info_ = kHintEnterFields;
      break;
    case Page::tsSpecifyPeriod:
      lbl_info_ = kHintSpecifyPeriod;
      break;
    case Page::tsGenerate:
      lbl_info_ = kHintGenerate;
      break;
  }
}

bool TfrmGenerateCert::SubjectValid() {
  for (const SubjectField& f : kSubjectFields) {
    const bool filled = f.text ? !(this->*f.text).empty() : cbCountryIndex >= 0;
    if (f.required && !filled) {
      currentUi().message_box(MessageKind::Plain, MessageButtons::Ok, kMissingFields);
      return false;
    }
  }
  for (const SubjectField& f : kSubjectFields) {
    if (f.text && utf8_length(this->*f.text) > f.max_length) {
      currentUi().message_box(MessageKind::Error, MessageButtons::Ok,
                              "Campo troppo lungo: " + trim(f.label) + " (al massimo " +
                                  std::to_string(f.max_length) + " caratteri).");
      return false;
    }
  }
  return true;
}

void TfrmGenerateCert::btnNextClick() {
  if (!next_enabled_ || modal_result_ != ModalResult::None) return;
  if (page_ == Page::tsEnterFields) {
    if (SubjectValid()) page_ = Page::tsSpecifyPeriod;
  } else if (page_ == Page::tsSpecifyPeriod) {
    if (dtp_to_ < dtp_from_) {
      currentUi().message_box(MessageKind::Error, MessageButtons::Ok, kPeriodReversed);
      return;
    }
    lb_generate_ = kGenerateText;
    page_ = Page::tsGenerate;
    next_enabled_ = false;
  }
}

void TfrmGenerateCert::btnCancelClick() {
  if (!cancel_enabled_ || modal_result_ != ModalResult::None) return;
  if (currentUi().message_box(MessageKind::Confirmation, MessageButtons::YesNo, kConfirmCancel) ==
      ModalResult::Yes)
    FinishClosed(ModalResult::Cancel);
}

void TfrmGenerateCert::close_box() {
  if (modal_result_ != ModalResult::None) return;
  if (impl_->worker) {
    impl_->worker->Terminate();
    impl_->worker->WaitFor();
    impl_->worker.reset();
    impl_->generating = false;
    StopProgress();
  }
  FinishClosed(ModalResult::Cancel);
}

void TfrmGenerateCert::FinishClosed(ModalResult r) {
  modal_result_ = r;
  if (busy_) {
    busy_ = false;
    currentUi().busy_cursor(false);
  }
}

void TfrmGenerateCert::btnGenerateClick() {
  if (!generate_enabled_ || page_ != Page::tsGenerate || modal_result_ != ModalResult::None) return;
  StartGeneration();
}

void TfrmGenerateCert::StartGeneration() {
  auto signature = TElAlgorithmIdentifier::CreateByAlgorithm(CertAlgorithm::Sha512WithRsa);
  auto key = TElAlgorithmIdentifier::CreateByAlgorithm(
      GetKeyAlgorithmBySigAlgorithm(signature.algorithm()));

  impl_->cert = std::make_unique<TElX509CertificateEx>();
  TElX509CertificateEx& cert = *impl_->cert;
  const std::string country = CountryCode(country_text());
  const std::pair<const char*, std::string> attributes[] = {
      {oid::kCountryName, country},      {oid::kStateOrProvinceName, edtState},
      {oid::kLocalityName, edtLocality}, {oid::kOrganizationName, edtOrganization},
      {oid::kCommonName, edtCommonName}, {oid::kEmailAddress, EdtEmail},
  };
  // Each value in a string type that can hold it, so that every X.509 reader parses the
  // name; issuer and subject are the same name.
  for (const auto& [oid, value] : attributes) {
    cert.SubjectRDN.AddText(oid, value);
    cert.IssuerRDN.AddText(oid, value);
  }
  cert.ValidFrom = SysFromDateTime(std::trunc(dtp_from_));
  cert.ValidTo = SysFromDateTime(std::trunc(dtp_to_));
  try {
    cert.SerialNumber = NewSerialNumber(*store_);
  } catch (const std::exception& e) {
    currentUi().message_box(MessageKind::Error, MessageButtons::Ok,
                            std::string("Error: ") + e.what());
    return;
  }

  impl_->worker = std::make_unique<TCertificateGenerationThread>(nullptr, impl_->cert.get());
  busy_ = true;
  currentUi().busy_cursor(true);
  impl_->generating = true;
  back_enabled_ = next_enabled_ = cancel_enabled_ = generate_enabled_ = false;
  impl_->worker->FKeyAlgorithm = key;
  impl_->worker->FSignatureAlgorithm = signature;
  impl_->worker->FBits = key_bits_;
  impl_->worker->BeforeGeneration = impl_->before_generation;
  impl_->worker->OnTerminate = [impl = impl_.get()] {
    std::lock_guard lock(impl->m);
    impl->completion_posted = true;
    impl->cv.notify_all();
  };
  {
    std::lock_guard lock(impl_->m);
    impl_->completion_posted = false;
    impl_->timer_enabled = true;
    impl_->next_tick = std::chrono::steady_clock::now() + kTick;
  }
  progress_position_ = 0;
  progress_visible_ = true;
  impl_->worker->Resume();
}

void TfrmGenerateCert::StopProgress() {
  std::lock_guard lock(impl_->m);
  impl_->timer_enabled = false;
  progress_visible_ = false;
}

void TfrmGenerateCert::ProcessMessages(std::chrono::milliseconds max_wait) {
  auto deadline = std::chrono::steady_clock::now() + max_wait;
  bool tick = false, done = false;
  {
    std::unique_lock lock(impl_->m);
    auto wake = impl_->timer_enabled ? std::min(deadline, impl_->next_tick) : deadline;
    impl_->cv.wait_until(lock, wake, [&] { return impl_->completion_posted; });
    auto now = std::chrono::steady_clock::now();
    if (impl_->timer_enabled && now >= impl_->next_tick) {
      tick = true;
      impl_->next_tick = now + kTick;
    }
    done = impl_->completion_posted;
    impl_->completion_posted = false;
  }
  if (tick) {
    progress_position_ += 5;
    if (progress_position_ >= 100) progress_position_ = 0;
    if (OnProgress) OnProgress(progress_position_);
  }
  if (done) OnGenerationDone();
}

void TfrmGenerateCert::OnGenerationDone() {
  if (!impl_->worker) return;
  impl_->worker->WaitFor();
  std::exception_ptr error = impl_->worker->error();
  impl_->worker.reset();
  impl_->generating = false;

  auto fail = [&](const std::string& message) {
    StopProgress();
    if (busy_) {
      busy_ = false;
      currentUi().busy_cursor(false);
    }
    cancel_enabled_ = generate_enabled_ = true;
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
  const TElX509CertificateEx& cert = *impl_->cert;
  Bytes key = cert.private_key().to_pkcs8_der();
  ScopeExit wipe_key([&] { wipe(key); });
  try {
    store_->add(cert.certificate(), key);
  } catch (const std::exception& e) {
    fail(e.what());
    return;
  }
  const Certificate& c = cert.certificate();
  cert_common_name_ = CertificateDisplayName(c);
  generated_der_ = c.der();
  StopProgress();
  FinishClosed(ModalResult::Ok);
}

std::string TfrmGenerateCert::DoCreateCertificate() {
  TfrmGenerateCert wizard;
  currentUi().certificate_wizard(wizard);
  return wizard.cert_commonName();
}

}  // namespace tessarel
