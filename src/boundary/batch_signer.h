// Signing a list of files, each into its own envelope beside it.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "tessarel/ui.h"

namespace tessarel {

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
std::optional<std::string> FirmaFiles(
    const std::string& fpath, const std::string& outPaths, const std::string& idCert, bool detached,
    Ui* progress, const std::function<void(std::uint64_t, std::uint64_t)>& bytes_progress = {});

}  // namespace tessarel
