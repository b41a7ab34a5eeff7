// The worker that generates a certificate while the wizard stays responsive.
#pragma once

#include <atomic>
#include <exception>
#include <functional>
#include <stop_token>
#include <thread>

#include "certgen/x509_certificate_ex.h"

namespace tessarel {

class TCertificateGenerationThread {
 public:
  // Created suspended: the owner fills the fields and OnTerminate, then calls Resume().
  TCertificateGenerationThread(TElX509CertificateEx* ca_cert, TElX509CertificateEx* cert)
      : FCACert(ca_cert), FCert(cert) {}
  // Stops a generation still running and waits for it: no thread outlives its object.
  ~TCertificateGenerationThread();
  TCertificateGenerationThread(const TCertificateGenerationThread&) = delete;
  TCertificateGenerationThread& operator=(const TCertificateGenerationThread&) = delete;

  TElX509CertificateEx* FCACert;
  TElX509CertificateEx* FCert;
  TElAlgorithmIdentifier FKeyAlgorithm =
      TElAlgorithmIdentifier::CreateByAlgorithm(CertAlgorithm::Rsa);
  TElAlgorithmIdentifier FSignatureAlgorithm =
      TElAlgorithmIdentifier::CreateByAlgorithm(CertAlgorithm::Sha512WithRsa);
  std::int32_t FBits = 1024;
  // Called on the worker thread once the work has ended, whatever its outcome; the owner
  // hands it over to its own thread.
  std::function<void()> OnTerminate;
  // Run on the worker before the key generation and after the work, with its failure (null
  // when it succeeded). The token is stopped by Terminate(), so that a hook that waits can
  // also see the generation being stopped. Tests hold the worker and watch its end with them.
  std::function<void(std::stop_token)> BeforeGeneration;
  std::function<void(std::exception_ptr)> AfterGeneration;

  void Resume();
  // Asks the generation to stop; it ends with a GenerationCancelled error.
  void Terminate() {
    cancel_ = true;
    stop_.request_stop();
  }
  void WaitFor();
  bool Running() const { return running_; }
  // The failure of the generation, if it failed.
  std::exception_ptr error() const { return error_; }
  bool cancelled() const { return cancel_; }

 private:
  void Execute();
  std::thread thread_;
  std::atomic<bool> cancel_{false};
  std::atomic<bool> running_{false};
  std::stop_source stop_;
  std::exception_ptr error_;
};

}  // namespace tessarel
