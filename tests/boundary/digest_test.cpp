// File digests: exact texts, streaming of large files, every way a file can be missing or
// unreadable.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "boundary/file_digest.h"
#include "tessarel/errors.h"
#include "tessarel/exports.h"
#include "test_support.h"

namespace tessarel {
namespace {

std::string export_digest(const std::string& path, const char* previous = nullptr) {
  char* result = previous ? strdup(previous) : nullptr;
  try {
    GetHashFileSHA256(&result, path.c_str());
  } catch (...) {
    std::string left = result ? result : "<null>";
    std::free(result);
    throw std::runtime_error("threw; result holds '" + left + "'");
  }
  std::string out = result;
  std::free(result);
  return out;
}

TEST(Digest, EmptyFileIsTheDigestOfNothingInUpperCase) {
  test::TempDir dir;
  test::write_file(dir / "empty", "");
  EXPECT_EQ(export_digest(dir / "empty"),
            "E3B0C44298FC1C149AFBF4C8996FB92427AE41E4649B934CA495991B7852B855");
  std::string digest = "x";
  std::int64_t size = 7;
  HashFile(dir / "empty", digest, size);
  EXPECT_EQ(size, 0);
  EXPECT_EQ(digest.size(), 64u);
}

TEST(Digest, LargeFileMatchesAnIndependentImplementation) {
  test::TempDir dir;
  std::string path = dir / "big.bin";
  {
    std::ofstream out(path, std::ios::binary);
    std::string block(1 << 20, '\0');
    for (int i = 0; i < 9; ++i) {
      for (std::size_t j = 0; j < block.size(); ++j)
        block[j] = static_cast<char>((j * 31 + static_cast<std::size_t>(i) * 7) & 0xFF);
      out.write(block.data(), static_cast<std::streamsize>(block.size()));
    }
    out.write("tail", 4);  // not a multiple of any buffer size
  }
  auto r = test::run({"sha256sum", path});
  ASSERT_EQ(r.exit_code, 0);
  std::string expected = r.out.substr(0, 64);
  for (auto& c : expected)
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  std::string digest;
  std::int64_t size = 0;
  HashFile(path, digest, size);
  EXPECT_EQ(digest, expected);
  EXPECT_EQ(size, 9 * (1 << 20) + 4);
}

TEST(Digest, MissingFileRaisesTheExactTwoLineMessageAndEmptiesTheResult) {
  test::TempDir dir;
  std::string path = dir / "assente.xml";
  char* result = strdup("previous text");
  try {
    GetHashFileSHA256(&result, path.c_str());
    FAIL() << "no exception for a missing file";
  } catch (const Exception& e) {
    EXPECT_EQ(std::string(e.what()),
              "File origine dei dati non trovato: " + path +
                  "\r\nIl file deve risiedere nella stessa cartella del file di firma");
  }
  ASSERT_NE(result, nullptr);
  EXPECT_STREQ(result, "");
  std::free(result);
}

TEST(Digest, AFolderIsNotAFile) {
  test::TempDir dir;
  try {
    HashFileSHA256(dir.path());
    FAIL() << "a folder was digested";
  } catch (const Exception& e) {
    EXPECT_NE(std::string(e.what()).find("File origine dei dati non trovato: " + dir.path()),
              std::string::npos);
  }
}

TEST(Digest, ReadOnlyFileAndSymlinkAreDigested) {
  test::TempDir dir;
  test::write_file(dir / "ro.txt", "abc");
  ASSERT_EQ(::chmod((dir / "ro.txt").c_str(), 0444), 0);
  ASSERT_EQ(::symlink((dir / "ro.txt").c_str(), (dir / "link").c_str()), 0);
  const std::string abc = "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD";
  EXPECT_EQ(HashFileSHA256(dir / "ro.txt"), abc);
  EXPECT_EQ(HashFileSHA256(dir / "link"), abc);
}

// Root reads everything, so unreadability is checked in a child that gave up root.
TEST(Digest, UnreadableFileGivesAnOpenErrorNamingThePath) {
  test::TempDir dir;
  std::string path = dir / "secret.txt";
  test::write_file(path, "private");
  ASSERT_EQ(::chmod(path.c_str(), 0000), 0);
  ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    if (geteuid() == 0) {
      passwd* nobody = getpwnam("nobody");
      if (!nobody || setgid(nobody->pw_gid) != 0 || setuid(nobody->pw_uid) != 0) _exit(3);
    }
    try {
      HashFileSHA256(path);
      _exit(1);  // read what it must not
    } catch (const EFOpenError& e) {
      std::string m = e.what();
      _exit(m.find(path) != std::string::npos && m.find("Permission denied") != std::string::npos
                ? 0
                : 2);
    } catch (...) {
      _exit(4);
    }
  }
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0)
      << "1: read it, 2: message without path/reason, 3: no user nobody, 4: other error";
}

TEST(Digest, ReadErrorInTheMiddleIsAnInOutError) {
  // /proc/self/mem exists and opens, but reading at offset 0 fails.
  try {
    HashFileSHA256("/proc/self/mem");
    FAIL() << "reading /proc/self/mem succeeded";
  } catch (const EInOutError& e) {
    EXPECT_NE(std::string(e.what()).find("/proc/self/mem"), std::string::npos);
  }
}

}  // namespace
}  // namespace tessarel
