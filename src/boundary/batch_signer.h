// Signing a list of files, each into its own envelope beside it.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/runtime/files.h"
#include "tessarel/certificate.h"
#include "tessarel/store.h"
#include "tessarel/ui.h"

namespace tessarel {

class TElSignedCMSMessage;

// Files above this size are streamed from disk instead of being read into memory; the
// envelope is byte for byte the same either way.
constexpr std::uint64_t kStreamingThreshold = 64ull << 20;

// fpath and outPaths are texts with one path per line (CR LF, CR or LF); entry i of
// outPaths is the base of the envelope of entry i of fpath, which gets ".p7s" (detached)
// or ".p7m" (attached). Missing input files are skipped. progress, when given, receives
// "i/n path" before each file and "Firma Terminata" at the end.
// Returns the final output path (one entry) or the whole output list (each entry followed
// by CR LF); nullopt when nothing was assigned (no certificate, no usable key, or the
// envelope could not take a signature).
// bytes_progress, when given, also follows the hashing of large files (done, total).
//
// Several files are read, digested and signed on SigningThreads() threads; what is shown,
// written and returned, and in which order, is what one file after the other gives.
std::optional<std::string> FirmaFiles(
    const std::string& fpath, const std::string& outPaths, const std::string& idCert, bool detached,
    Ui* progress, const std::function<void(std::uint64_t, std::uint64_t)>& bytes_progress = {});

// Threads that sign a batch: TESSAREL_THREADS when it holds a positive number, else the
// processors this process may run on. 1 signs one file after the other on the caller's thread.
unsigned SigningThreads();

// The signer settings of the batch signer on a signature about to be signed.
class TElCMSSignature;
void SetBatchSignerSettings(TElCMSSignature& signature);

// A file read and signed in memory, not yet written anywhere.
struct SignedFile {
  enum class State {
    Missing,  // no file by that name (or a folder) when it was looked at
    Inline,   // the caller signs it itself: a large file (streamed), or not a regular file
    Signed,
    Failed,  // error holds what opening, reading or signing raised
  };
  State state = State::Missing;
  Bytes content;          // the file's bytes
  Bytes envelope;         // the whole envelope, DER
  Bytes content_digest;   // SHA-256 of content (the envelope's message digest)
  Bytes envelope_digest;  // SHA-256 of envelope, when the pipeline was asked for it
  FileStamp stamp;        // the file as it was read
  std::exception_ptr error;
  // Signed but for the private-key operation, which SigningPipeline::complete makes.
  std::shared_ptr<TElSignedCMSMessage> pending;
  Bytes to_sign;
};

// Reads a small regular file whole and signs it into an envelope in memory, as the batch
// signer would (the whole envelope with envelope_digest). Errors are kept in the result.
SignedFile SignFileInMemory(const std::string& input, const Certificate& cert,
                            const SigningKey* key, bool detached, bool envelope_digest);

// Reads, digests and signs a list of files on worker threads, a bounded window (files and
// bytes) ahead of the caller, who takes the results in list order and writes them. Nothing
// is written by the workers, so whatever the caller stops at leaves no trace of later files.
// Keys that cannot sign on several threads at once sign on the caller's thread, in complete().
class SigningPipeline {
 public:
  struct Settings {
    bool detached = false;
    bool envelope_digests = false;
    unsigned threads = 2;
  };
  SigningPipeline(std::vector<std::string> inputs, Certificate cert,
                  std::shared_ptr<SigningKey> key, Settings settings);
  // Stops the workers; results not taken are dropped.
  ~SigningPipeline();
  SigningPipeline(const SigningPipeline&) = delete;
  SigningPipeline& operator=(const SigningPipeline&) = delete;

  // The result for entry i, waiting for it. Entries are taken once each, in order.
  SignedFile take(std::size_t i);
  // Makes the signature value of a file taken (keys that sign on the caller's thread only,
  // so that a PIN is asked where one file alone would ask it); errors go into item.
  void complete(SignedFile& item);

 private:
  struct Slot;
  void work();
  void process(std::size_t i, Slot& slot);
  bool reserve(std::size_t i, std::uint64_t bytes);

  std::vector<std::string> inputs_;
  Certificate cert_;
  std::shared_ptr<SigningKey> key_;
  Settings settings_;
  bool key_in_workers_;
  std::size_t window_;
  std::vector<Slot> slots_;  // a ring: entry i lives in slot i % window_
  std::mutex mutex_;
  std::condition_variable changed_;
  std::size_t next_claim_ = 0;
  std::size_t next_take_ = 0;
  std::uint64_t bytes_in_flight_ = 0;
  bool stop_ = false;
  std::vector<std::thread> workers_;
};

// What a batch writes, so that a later entry read before one of these writes is read again.
class WrittenFiles {
 public:
  void add(int fd);
  // True when the file was read before this batch wrote it, or is no longer the file read.
  bool stale(const std::string& path, const FileStamp& read) const;

 private:
  std::set<std::pair<std::uint64_t, std::uint64_t>> written_;
};

// Writes an envelope made in memory to out as the batch signer does: never onto the file it
// signs, and a new or lone file replaced whole or not at all.
void WriteEnvelope(const std::string& input, const std::string& out, const Bytes& envelope,
                   WrittenFiles& written);

}  // namespace tessarel
