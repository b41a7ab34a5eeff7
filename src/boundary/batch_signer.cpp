#include "boundary/batch_signer.h"

#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "boundary/cert_lookup.h"
#include "cms/cms.h"
#include "platform/asn1/ber.h"
#include "platform/asn1/der.h"
#include "platform/crypto/digest.h"
#include "platform/runtime/datetime.h"
#include "platform/runtime/strings.h"

namespace tessarel {

namespace {

// Files that may be in flight between the workers and the caller, per thread, and the
// bytes they may hold (a file counts with its envelope). One file always may, whatever
// its size, so a file up to the streaming threshold never waits forever.
constexpr std::size_t kFilesAheadPerThread = 32;
constexpr std::uint64_t kBytesInFlight = 128ull << 20;

std::uint64_t cost_of(std::uint64_t size) {
  return 2 * size + 4096;
}

std::string progress_text(int i, int count, const std::string& input) {
  char counter[64];
  std::snprintf(counter, sizeof counter, "%d/%d ", i + 1, count);
  return counter + input;
}

// One file the way the sequential loop signs it: read whole into content (or streamed
// when large) and signed. False when the envelope yields no signature.
bool sign_message(TElSignedCMSMessage& message, Bytes& content, const std::string& input,
                  const Certificate& cert, const SigningKey* key,
                  const std::function<void(std::uint64_t, std::uint64_t)>& bytes_progress) {
  // Small files are read whole; large ones are read from disk while hashing and writing.
  auto file = std::make_shared<asn1::FileSource>(input);
  if (file->size() <= kStreamingThreshold) {
    content.resize(static_cast<std::size_t>(file->size()));
    if (!content.empty()) file->file().pread_exact(content.data(), content.size(), 0);
    message.CreateNew(content.data(), content.size());
  } else {
    message.CreateNew(file, 0, file->size());
  }
  int index = message.AddSignature();
  TElCMSSignature* sig = message.GetSignature(index);
  if (!sig) return false;
  SetBatchSignerSettings(*sig);
  if (bytes_progress && file->size() > kStreamingThreshold)
    sig->OnProgress = [&](std::uint64_t done, std::uint64_t total) {
      bytes_progress(done, total);
      return true;
    };
  sig->Sign(cert, key);
  return true;
}

void write_message(TElSignedCMSMessage& message, const std::string& input, const std::string& out,
                   WrittenFiles* written) {
  // A new or lone envelope file is written under a temporary name and renamed into place,
  // so a failure leaves no half envelope and an older envelope as it was; an envelope name
  // that leads back to the file being signed (a link) is refused, since writing would
  // destroy what is signed. Links, devices and hard-linked files keep what they are.
  {
    OutputReplacement writer(out, {{input, "the file being signed"}});
    message.SaveToFile(writer.fd(), out);
    if (written) written->add(writer.fd());
    writer.commit();
  }
  message.Clear();
}

void show_add_signature_error(const std::string& fpath) {
  currentUi().message_box(MessageKind::Error, MessageButtons::Ok,
                          "Errore nella funzione AddSignature  " + fpath);
}

std::optional<std::string> result_of(const StringList& outputs) {
  if (outputs.Count() < 2) return outputs.Count() == 0 ? std::string() : outputs[0];
  return outputs.Text();
}

}  // namespace

unsigned SigningThreads() {
  if (const char* env = std::getenv("TESSAREL_THREADS")) {
    char* end = nullptr;
    long n = std::strtol(env, &end, 10);
    if (end != env && *end == '\0' && n > 0) return static_cast<unsigned>(std::min(n, 256L));
  }
  cpu_set_t set;
  CPU_ZERO(&set);
  if (::sched_getaffinity(0, sizeof set, &set) == 0 && CPU_COUNT(&set) > 0)
    return static_cast<unsigned>(CPU_COUNT(&set));
  unsigned n = std::thread::hardware_concurrency();
  return n ? n : 1;
}

void SetBatchSignerSettings(TElCMSSignature& sig) {
  sig.FFingerprintAlgorithm = DigestAlgorithm::SHA256;
  sig.SetDigestAlgorithm(DigestAlgorithm::SHA256);
  sig.FUsePSS = false;
  sig.FSigningOptions = kCadesBesSigningOptions;
  sig.FSigningTime = UTCNow();
  sig.FContentType = asn1::encode_oid(cms_oid::kData);
}

// ---- WrittenFiles ----

void WrittenFiles::add(int fd) {
  FileStamp s = StampOfFd(fd);
  if (s.exists) written_.insert({s.device, s.inode});
}

bool WrittenFiles::stale(const std::string& path, const FileStamp& read) const {
  return written_.count({read.device, read.inode}) || StampOf(path) != read;
}

void WriteEnvelope(const std::string& input, const std::string& out, const Bytes& envelope,
                   WrittenFiles& written) {
  OutputReplacement writer(out, {{input, "the file being signed"}});
  writer.write(envelope.data(), envelope.size());
  written.add(writer.fd());
  writer.commit();
}

// ---- SigningPipeline ----

struct SigningPipeline::Slot {
  bool done = false;
  std::uint64_t reserved = 0;
  SignedFile result;
};

SigningPipeline::SigningPipeline(std::vector<std::string> inputs, Certificate cert,
                                 std::shared_ptr<SigningKey> key, Settings settings)
    : inputs_(std::move(inputs)),
      cert_(std::move(cert)),
      key_(std::move(key)),
      settings_(settings),
      key_in_workers_(key_ && key_->signs_concurrently()),
      window_(std::max<std::size_t>(1, settings.threads) * kFilesAheadPerThread),
      slots_(window_) {
  try {
    for (unsigned t = 0; t < std::max(1u, settings.threads); ++t)
      workers_.emplace_back([this] { work(); });
  } catch (const std::system_error&) {
    // Fewer threads than asked for (or none: then the caller signs each file itself).
  }
}

SigningPipeline::~SigningPipeline() {
  {
    std::lock_guard lock(mutex_);
    stop_ = true;
  }
  changed_.notify_all();
  for (auto& t : workers_)
    t.join();
}

void SigningPipeline::work() {
  for (;;) {
    std::size_t i;
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [&] {
        return stop_ || next_claim_ >= inputs_.size() || next_claim_ < next_take_ + window_;
      });
      if (stop_ || next_claim_ >= inputs_.size()) return;
      i = next_claim_++;
    }
    Slot& slot = slots_[i % window_];
    process(i, slot);
    {
      std::lock_guard lock(mutex_);
      slot.done = true;
    }
    changed_.notify_all();
  }
}

bool SigningPipeline::reserve(std::size_t i, std::uint64_t bytes) {
  std::unique_lock lock(mutex_);
  changed_.wait(
      lock, [&] { return stop_ || i == next_take_ || bytes_in_flight_ + bytes <= kBytesInFlight; });
  if (stop_) return false;
  bytes_in_flight_ += bytes;
  slots_[i % window_].reserved = bytes;
  return true;
}

namespace {

// Reads a file to be signed in memory into r.content. False (with r.state set) when it is
// not: missing, to be signed by the caller, or reserve refused the room for it.
bool read_for_signing(const std::string& input, SignedFile& r,
                      const std::function<bool(std::uint64_t)>& reserve) {
  struct stat st {};
  if (input.empty() || ::stat(input.c_str(), &st) != 0 || S_ISDIR(st.st_mode)) {
    r.state = SignedFile::State::Missing;
    return false;
  }
  // Pipes and devices are opened when their turn comes, as one file after the other
  // would: whoever feeds them may be waiting for that.
  auto size = static_cast<std::uint64_t>(st.st_size);
  r.state = SignedFile::State::Inline;
  if (!S_ISREG(st.st_mode) || size > kStreamingThreshold) return false;
  if (reserve && !reserve(cost_of(size))) return false;
  InputFile in(input);
  r.stamp = StampOfFd(in.fd());
  if (r.stamp.size != size) return false;
  r.content.resize(static_cast<std::size_t>(size));
  if (size) in.pread_exact(r.content.data(), r.content.size(), 0);
  return true;
}

// A new message over r.content with one signature set up as the batch signer sets it.
TElCMSSignature* new_signature(std::unique_ptr<TElSignedCMSMessage>& message, SignedFile& r,
                               bool detached) {
  message = std::make_unique<TElSignedCMSMessage>();
  message->FDetached = detached;
  message->CreateNew(r.content.data(), r.content.size());
  TElCMSSignature* sig = message->GetSignature(message->AddSignature());
  if (sig) SetBatchSignerSettings(*sig);
  return sig;
}

void finish(SignedFile& r, TElSignedCMSMessage& message, bool envelope_digest) {
  r.content_digest = message.GetSignature(0)->FMessageDigest;
  r.envelope = message.SaveToBytes();
  if (envelope_digest) r.envelope_digest = crypto::digest(DigestAlgorithm::SHA256, r.envelope);
  r.state = SignedFile::State::Signed;
}

}  // namespace

SignedFile SignFileInMemory(const std::string& input, const Certificate& cert,
                            const SigningKey* key, bool detached, bool envelope_digest) {
  SignedFile r;
  try {
    if (!read_for_signing(input, r, nullptr)) return r;
    std::unique_ptr<TElSignedCMSMessage> message;
    TElCMSSignature* sig = new_signature(message, r, detached);
    if (!sig) {
      r.state = SignedFile::State::Inline;
      return r;
    }
    sig->Sign(cert, key);
    finish(r, *message, envelope_digest);
  } catch (...) {
    r.state = SignedFile::State::Failed;
    r.error = std::current_exception();
  }
  return r;
}

void SigningPipeline::process(std::size_t i, Slot& slot) {
  SignedFile& r = slot.result;
  r = SignedFile();
  slot.reserved = 0;
  try {
    if (!read_for_signing(inputs_[i], r, [&](std::uint64_t bytes) { return reserve(i, bytes); }))
      return;
    std::unique_ptr<TElSignedCMSMessage> message;
    TElCMSSignature* sig = new_signature(message, r, settings_.detached);
    if (!sig) {
      // The caller's own loop shows what the sequential one shows.
      r.state = SignedFile::State::Inline;
      return;
    }
    if (key_in_workers_) {
      sig->Sign(cert_, key_.get());
      finish(r, *message, settings_.envelope_digests);
    } else {
      r.to_sign = sig->PrepareSign(cert_, key_.get());
      r.pending = std::move(message);
      r.state = SignedFile::State::Signed;
    }
  } catch (...) {
    r.state = SignedFile::State::Failed;
    r.error = std::current_exception();
    r.pending.reset();
  }
}

SignedFile SigningPipeline::take(std::size_t i) {
  if (workers_.empty()) {
    SignedFile r;
    r.state = SignedFile::State::Inline;
    return r;
  }
  Slot& slot = slots_[i % window_];
  SignedFile r;
  {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return slot.done; });
    r = std::move(slot.result);
    bytes_in_flight_ -= slot.reserved;
    slot.reserved = 0;
    slot.done = false;
    next_take_ = i + 1;
  }
  changed_.notify_all();
  return r;
}

void SigningPipeline::complete(SignedFile& r) {
  if (!r.pending || r.state != SignedFile::State::Signed) return;
  std::shared_ptr<TElSignedCMSMessage> message = std::move(r.pending);
  try {
    message->GetSignature(0)->CompleteSign(cert_, key_.get(), r.to_sign);
    finish(r, *message, settings_.envelope_digests);
  } catch (...) {
    r.state = SignedFile::State::Failed;
    r.error = std::current_exception();
  }
}

// ---- FirmaFiles ----

std::optional<std::string> FirmaFiles(
    const std::string& fpath, const std::string& outPaths, const std::string& idCert, bool detached,
    Ui* progress, const std::function<void(std::uint64_t, std::uint64_t)>& bytes_progress) {
  StringList inputs(fpath);
  StringList outputs(outPaths);
  const Certificate* found = TrovaCertificato(idCert);
  if (!found) return std::nullopt;
  Certificate cert = *found;
  // The key is loaded once for the whole batch.
  std::shared_ptr<SigningKey> key = ChiaveDiFirma(cert);
  if (!key) return std::nullopt;

  TElSignedCMSMessage message;
  message.FDetached = detached;
  const char* extension = detached ? ".p7s" : ".p7m";
  // Input i signed on this thread, its envelope written beside it; false (and the message
  // shown) when the signature could not be made.
  auto sign_in_turn = [&](int i, WrittenFiles* written) {
    Bytes content;
    if (!sign_message(message, content, inputs[i], cert, key.get(), bytes_progress)) {
      show_add_signature_error(fpath);
      return false;
    }
    std::string& out = outputs.at(i);
    out += extension;
    write_message(message, inputs[i], out, written);
    return true;
  };
  unsigned threads = SigningThreads();
  if (threads <= 1 || inputs.Count() < 2) {
    for (int i = 0; i < inputs.Count(); ++i) {
      const std::string& input = inputs[i];
      if (!FileExists(input)) continue;
      if (progress) progress->progress_text(progress_text(i, inputs.Count(), input));
      if (!sign_in_turn(i, nullptr)) return std::nullopt;
    }
  } else {
    SigningPipeline pipeline(inputs.items(), cert, key, {detached, false, threads});
    WrittenFiles written;
    for (int i = 0; i < inputs.Count(); ++i) {
      const std::string& input = inputs[i];
      SignedFile item = pipeline.take(static_cast<std::size_t>(i));
      using State = SignedFile::State;
      // A file that this batch created or changed after a worker looked at it is read now,
      // as one file after the other would read it.
      bool again = item.state == State::Inline || item.state == State::Missing ||
                   (item.stamp.exists && written.stale(input, item.stamp));
      if (again && !FileExists(input)) continue;
      if (progress) progress->progress_text(progress_text(i, inputs.Count(), input));
      if (again) {
        if (!sign_in_turn(i, &written)) return std::nullopt;
      } else {
        pipeline.complete(item);
        if (item.state == State::Failed) std::rethrow_exception(item.error);
        std::string& out = outputs.at(i);
        out += extension;
        WriteEnvelope(input, out, item.envelope, written);
      }
    }
  }
  if (progress) progress->progress_text("Firma Terminata");
  return result_of(outputs);
}

}  // namespace tessarel
