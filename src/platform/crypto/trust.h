// Trust anchors and chain building over OpenSSL's certificate store and path validation.
#pragma once

#include <chrono>
#include <memory>
#include <vector>

#include "tessarel/certificate.h"
#include "tessarel/trust.h"

namespace tessarel::crypto {

// The anchors and intermediates of a set of trust options, loaded once and used for many
// checks.
class TrustStore {
 public:
  // Raises tessarel::Exception when a file or folder cannot be read or a named file holds
  // no certificate.
  explicit TrustStore(const TrustOptions& options);
  ~TrustStore();
  TrustStore(const TrustStore&) = delete;
  TrustStore& operator=(const TrustStore&) = delete;

  TrustReport check(const Certificate& signer, const std::vector<Certificate>& certificates,
                    std::chrono::sys_seconds at, TrustPurpose purpose) const;
  std::size_t anchor_count() const { return anchors_; }

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
  std::size_t anchors_ = 0;
};

// "YYYY-MM-DDThh:mm:ssZ".
std::string iso_time(std::chrono::sys_seconds t);

}  // namespace tessarel::crypto
