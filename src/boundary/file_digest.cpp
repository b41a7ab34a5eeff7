#include "boundary/file_digest.h"

#include <fcntl.h>

#include <vector>

#include "platform/crypto/digest.h"
#include "platform/runtime/files.h"
#include "platform/runtime/hex.h"
#include "tessarel/errors.h"

namespace tessarel {

std::string MissingSourceFileMessage(const std::string& fname) {
  return "File origine dei dati non trovato: " + fname +
         "\r\nIl file deve risiedere nella stessa cartella del file di firma";
}

void HashFile(const std::string& fname, std::string& digest, std::int64_t& size) {
  digest.clear();
  size = 0;
  if (!FileExists(fname)) throw Exception(MissingSourceFileMessage(fname));
  crypto::Hasher hasher(DigestAlgorithm::SHA256);
  // Only read, so opened read-only: read-only files and media digest like any other.
  InputFile in(fname);
  ::posix_fadvise(in.fd(), 0, 0, POSIX_FADV_SEQUENTIAL);
  std::int64_t file_size = static_cast<std::int64_t>(in.size());
  // 256 KiB keeps the buffer in L2 while amortising the system calls.
  std::vector<unsigned char> buffer(256 * 1024);
  while (std::size_t n = in.read(buffer.data(), buffer.size()))
    hasher.update(buffer.data(), n);
  digest = BinaryToString(hasher.finish());
  size = file_size;
}

std::string HashFileSHA256(const std::string& fname) {
  std::string digest;
  std::int64_t size = 0;
  HashFile(fname, digest, size);
  return digest;
}

}  // namespace tessarel
