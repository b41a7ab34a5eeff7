#include "certgen/generation_thread.h"

namespace tessarel {

TCertificateGenerationThread::~TCertificateGenerationThread() {
  Terminate();
  WaitFor();
}

void TCertificateGenerationThread::Resume() {
  running_ = true;
  thread_ = std::thread([this] { Execute(); });
}

void TCertificateGenerationThread::WaitFor() {
  if (thread_.joinable()) thread_.join();
}

void TCertificateGenerationThread::Execute() {
  try {
    if (BeforeGeneration) BeforeGeneration(stop_.get_token());
    if (FCACert)
      FCert->Generate(*FCACert, FKeyAlgorithm, FSignatureAlgorithm, FBits, &cancel_);
    else
      FCert->Generate(FKeyAlgorithm, FSignatureAlgorithm, FBits, &cancel_);
  } catch (...) {
    error_ = std::current_exception();
  }
  if (AfterGeneration) AfterGeneration(error_);
  running_ = false;
  if (OnTerminate) OnTerminate();
}

}  // namespace tessarel
