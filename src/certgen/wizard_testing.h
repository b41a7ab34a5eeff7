// Test access to the certificate wizard's worker, kept out of the public class. Exported
// because the Qt tests and the form renderer link the shared library.
#pragma once

#include <chrono>
#include <exception>
#include <functional>
#include <stop_token>

#include "tessarel/export.h"
#include "tessarel/wizard.h"

namespace tessarel {

struct TESSAREL_API WizardTesting {
  // Runs on the worker thread before the key generation. The token is stopped when the
  // wizard stops the generation (close box, destruction), so a hook that holds the worker
  // waits for its own condition or for that (std::condition_variable_any::wait with the
  // token), never for a time.
  static void before_generation(TfrmGenerateCert& w, std::function<void(std::stop_token)> hook);
  // Runs on the worker thread when the generation has ended, with its failure (null when a
  // certificate was made).
  static void after_generation(TfrmGenerateCert& w, std::function<void(std::exception_ptr)> hook);
  // The progress timer's period (200 ms), for the next generation.
  static void set_tick(TfrmGenerateCert& w, std::chrono::milliseconds period);
  static bool worker_running(const TfrmGenerateCert& w);
};

}  // namespace tessarel
