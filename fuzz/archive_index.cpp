// Fuzzes the index records reader behind ListArchive and VerifyArchive: the input is an
// archive's index.xml; the archive folder holds one data file that records may point at,
// so links, sizes, digests and the path checks run on real files.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "tessarel/archive.h"
#include "tessarel/errors.h"
#include "tessarel/store.h"

namespace {

void put(const std::string& path, const void* data, std::size_t size) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0 || ::write(fd, data, size) != static_cast<ssize_t>(size)) std::abort();
  ::close(fd);
}

std::string archive() {
  static std::string folder = [] {
    const char* tmp = std::getenv("TMPDIR");
    std::string t = std::string(tmp && *tmp ? tmp : "/tmp") + "/tessarel-fuzz-archive-XXXXXX";
    if (!::mkdtemp(t.data())) std::abort();
    // An empty personal store, so that the signer check never looks at the user's own.
    ::mkdir((t + "/store").c_str(), 0700);
    ::setenv("TESSAREL_STORE", (t + "/store").c_str(), 1);
    tessarel::set_warning_handler([](const std::string&) {});
    std::string a = t + "/archive";
    for (const char* d : {"", "/T", "/T/2024", "/T/2024/01"})
      ::mkdir((a + d).c_str(), 0700);
    // T\2024\01\a.txt: 5 bytes, SHA-256 A39BF0D3...
    put(a + "/T/2024/01/a.txt", "fuzz\n", 5);
    return a;
  }();
  return folder;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tessarel;
  std::string folder = archive();
  put(folder + "/index.xml", data, size);
  try {
    for (const auto& r : ListArchive(folder))
      (void)r.name.size();
  } catch (const Exception&) {
  }
  ArchiveCheckReport report = VerifyArchive(folder);
  (void)report.problems.size();
  return 0;
}
