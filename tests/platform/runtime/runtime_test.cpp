// The runtime helpers whose exact behaviour other parts rely on: string lists, the
// day-count date-time, hexadecimal rendering, and files.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "platform/asn1/der.h"
#include "platform/runtime/datetime.h"
#include "platform/runtime/files.h"
#include "platform/runtime/hex.h"
#include "platform/runtime/strings.h"
#include "tessarel/errors.h"
#include "test_support.h"

namespace tessarel {
namespace {

TEST(StringList, LineBreakRules) {
  struct Case {
    const char* text;
    std::vector<std::string> entries;
  };
  const Case cases[] = {
      {"", {}},
      {"a", {"a"}},
      {"a\r\n", {"a"}},  // a final break adds no entry
      {"a\r\nb", {"a", "b"}},
      {"a\rb\nc\r\nd", {"a", "b", "c", "d"}},  // CR, LF and CR LF mixed
      {"a\n\nb", {"a", "", "b"}},              // an empty line is an empty entry
      {"\n", {""}},
      {"a\n\r\n", {"a", ""}},
      {"a\n\r", {"a", ""}},
  };
  for (const auto& c : cases) {
    StringList l(c.text);
    EXPECT_EQ(l.items(), c.entries) << "text: " << ::testing::PrintToString(std::string(c.text));
  }
}

TEST(StringList, TextEndsEveryEntryWithCrLfAndIndexIsChecked) {
  StringList l("x\ny");
  EXPECT_EQ(l.Text(), "x\r\ny\r\n");
  EXPECT_EQ(l[1], "y");
  EXPECT_THROW(l[2], EStringListError);
  EXPECT_THROW(StringList()[0], EStringListError);
}

TEST(StrToInt, AcceptsWholeIntegersOnly) {
  EXPECT_EQ(StrToInt("0"), 0);
  EXPECT_EQ(StrToInt("-12"), -12);
  EXPECT_EQ(StrToInt("+7"), 7);
  for (const char* bad : {"", " 1", "1 ", "1a", "a", "--1", "+-1", "1.0", "99999999999999999999"})
    EXPECT_THROW(StrToInt(bad), EConvertError) << bad;
}

TEST(DateTime, DayCountMatchesTheEpochAndKnownDates) {
  EXPECT_DOUBLE_EQ(EncodeDateTime({1899, 12, 30}), 0.0);
  EXPECT_DOUBLE_EQ(EncodeDateTime({1900, 1, 1}), 2.0);
  EXPECT_DOUBLE_EQ(EncodeDateTime({2021, 3, 3}), 44258.0);
  EXPECT_DOUBLE_EQ(EncodeDateTime({1950, 1, 1}), 18264.0);
  EXPECT_DOUBLE_EQ(EncodeDateTime({2050, 1, 1}), 54789.0);
  EXPECT_DOUBLE_EQ(EncodeDateTime({2021, 3, 3, 12, 0, 0}), 44258.5);
  // Before the epoch the day counts back and the fraction still adds time.
  EXPECT_DOUBLE_EQ(EncodeDateTime({1899, 12, 29, 6, 0, 0}), -1.25);
  CivilTime t = DecodeDateTime(-1.25);
  EXPECT_EQ(t.day, 29);
  EXPECT_EQ(t.hour, 6);
  EXPECT_THROW(EncodeDateTime({2021, 2, 29}), EConvertError);
}

TEST(DateTime, RoundTripsAndFormats) {
  DateTime dt = EncodeDateTime({2024, 2, 29, 23, 59, 58, 0});
  CivilTime c = DecodeDateTime(dt);
  EXPECT_EQ(c.year, 2024);
  EXPECT_EQ(c.month, 2);
  EXPECT_EQ(c.day, 29);
  EXPECT_EQ(c.hour, 23);
  EXPECT_EQ(c.minute, 59);
  EXPECT_EQ(c.second, 58);
  EXPECT_EQ(FormatShortDate(dt), "29/02/2024");
  EXPECT_EQ(FormatTime(dt), "23:59:58");
  EXPECT_EQ(FormatIsoDate(dt), "2024-02-29");
  using namespace std::chrono;
  sys_seconds s = sys_days{year{2049} / 12 / 31} + hours{23} + minutes{59} + seconds{59};
  EXPECT_EQ(SysFromDateTime(DateTimeFromSys(s)), s);
}

TEST(Hex, UpperCaseAndSeparators) {
  Bytes b{0x00, 0x1a, 0xff, 0x7B};
  EXPECT_EQ(BinaryToString(b), "001AFF7B");
  EXPECT_EQ(BeautifyBinaryString("001AFF7B", ' '), "00 1A FF 7B");
  EXPECT_EQ(HexToBinary("001aFF7b"), b);
  EXPECT_THROW(HexToBinary("0G"), EConvertError);
  EXPECT_THROW(HexToBinary("abc"), EConvertError);
}

TEST(Files, ExistenceFollowsSymlinksAndExcludesFolders) {
  test::TempDir dir;
  std::string f = dir / "f.txt";
  test::write_file(f, "x");
  ASSERT_EQ(::symlink(f.c_str(), (dir / "good").c_str()), 0);
  ASSERT_EQ(::symlink((dir / "missing").c_str(), (dir / "dangling").c_str()), 0);
  EXPECT_TRUE(FileExists(f));
  EXPECT_TRUE(FileExists(dir / "good"));
  EXPECT_FALSE(FileExists(dir / "dangling"));
  EXPECT_FALSE(FileExists(dir.path()));
  EXPECT_FALSE(FileExists(""));
  EXPECT_EQ(RemoveLastExt("/a/x.xml.p7m"), "/a/x.xml");
  EXPECT_EQ(ExtractFileName("/a/b/c.txt"), "c.txt");
  EXPECT_EQ(ExtractFileDir("/a/b/c.txt"), "/a/b");
}

TEST(Files, AtomicWriterLeavesOldFileUntilCommitAndNoTempBehind) {
  test::TempDir dir;
  std::string f = dir / "index.xml";
  test::write_file(f, "old");
  {
    AtomicFileWriter w(f);
    w.write(std::string("new content"));
    EXPECT_EQ(test::read_file(f), "old");
    EXPECT_TRUE(FileExists(w.temp_path()));
  }  // abandoned: no commit
  EXPECT_EQ(test::read_file(f), "old");
  {
    AtomicFileWriter w(f);
    w.write(std::string("new content"));
    w.commit();
  }
  EXPECT_EQ(test::read_file(f), "new content");
  int entries = 0;
  for (auto& e : std::filesystem::directory_iterator(dir.path())) {
    (void)e;
    ++entries;
  }
  EXPECT_EQ(entries, 1);
}

// The holder of an archive that never got an index removes the lock file before letting go.
// A process that was already waiting on that file must not think it holds the archive: the
// next one would make a new lock file and get in beside it.
TEST(Files, ALockWhoseFileWasRemovedIsTakenAgainOnTheFileThatIsThere) {
  test::TempDir dir;
  std::string path = dir / "index.xml.lock";
  auto first = FileLock::Acquire(path, std::chrono::milliseconds(0));
  ASSERT_TRUE(first);
  std::atomic<bool> waiting{false};
  std::unique_ptr<FileLock> second;
  std::thread waiter(
      [&] { second = FileLock::Acquire(path, std::chrono::seconds(20), [&] { waiting = true; }); });
  while (!waiting)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  ASSERT_EQ(::unlink(path.c_str()), 0);
  first.reset();
  waiter.join();
  ASSERT_TRUE(second);
  EXPECT_TRUE(std::filesystem::exists(path));
  EXPECT_FALSE(FileLock::Acquire(path, std::chrono::milliseconds(0))) << "two holders of one lock";
  // The holder's own removal, and then the lock is free for the next one.
  EXPECT_TRUE(second->remove_file());
  second.reset();
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_TRUE(FileLock::Acquire(path, std::chrono::milliseconds(0)));
}

TEST(Files, ErrorsNameThePathAndTheReason) {
  test::TempDir dir;
  try {
    InputFile in(dir.path());
    FAIL() << "opening a folder for reading succeeded";
  } catch (const EFOpenError& e) {
    EXPECT_NE(std::string(e.what()).find(dir.path()), std::string::npos);
    EXPECT_NE(std::string(e.what()).find("directory"), std::string::npos);
  }
  try {
    OutputFile out(dir / "no/such/folder/x");
    FAIL() << "creating a file in a missing folder succeeded";
  } catch (const EFCreateError& e) {
    EXPECT_NE(std::string(e.what()).find("no/such/folder/x"), std::string::npos);
  }
}

// Copies go through the kernel between files and fall back to reading and writing where it
// cannot (a pipe); either way every byte arrives, from where the input stands, in order.
TEST(Files, CopyAllInsideTheKernelOrThroughABuffer) {
  test::TempDir dir;
  std::string content;
  for (int i = 0; i < 300000; ++i)
    content += static_cast<char>('a' + i % 23);
  test::write_file(dir / "in.bin", content);

  CopyFileStream(dir / "in.bin", dir / "copy.bin");
  EXPECT_EQ(test::read_file(dir / "copy.bin"), content);

  InputFile in(dir / "in.bin");
  char skip[10];
  ASSERT_EQ(in.read(skip, sizeof skip), sizeof skip);
  OutputFile out(dir / "rest.bin");
  CopyAll(in, out.fd(), out.path());
  out.close();
  EXPECT_EQ(test::read_file(dir / "rest.bin"), content.substr(10));

  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  std::string through_pipe;
  std::thread reader([&] {
    char buf[4096];
    ssize_t n;
    while ((n = ::read(fds[0], buf, sizeof buf)) > 0)
      through_pipe.append(buf, static_cast<std::size_t>(n));
  });
  InputFile again(dir / "in.bin");
  CopyAll(again, fds[1], "pipe");
  ::close(fds[1]);
  reader.join();
  ::close(fds[0]);
  EXPECT_EQ(through_pipe, content);
}

TEST(Der, LengthsOidsIntegersAndSetOrder) {
  using namespace asn1;
  EXPECT_EQ(header(kOctetString, 0x7F), (Bytes{0x04, 0x7F}));
  EXPECT_EQ(header(kOctetString, 0x80), (Bytes{0x04, 0x81, 0x80}));
  EXPECT_EQ(header(kOctetString, 0x1234), (Bytes{0x04, 0x82, 0x12, 0x34}));
  EXPECT_EQ(header(kOctetString, 0x40000000ULL), (Bytes{0x04, 0x84, 0x40, 0, 0, 0}));
  EXPECT_EQ(encode_oid("1.2.840.113549.1.7.2"),
            (Bytes{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x07, 0x02}));
  EXPECT_EQ(decode_oid(encode_oid("2.16.840.1.101.3.4.2.1")), "2.16.840.1.101.3.4.2.1");
  EXPECT_EQ(decode_oid(encode_oid("2.999.3")), "2.999.3");
  EXPECT_THROW(encode_oid("3.1"), Exception);
  EXPECT_THROW(encode_oid("1.40"), Exception);
  EXPECT_EQ(integer_content(0), (Bytes{0x00}));
  EXPECT_EQ(integer_content(127), (Bytes{0x7F}));
  EXPECT_EQ(integer_content(128), (Bytes{0x00, 0x80}));
  EXPECT_EQ(unsigned_integer_content({0x00, 0x00, 0x91}), (Bytes{0x00, 0x91}));
  // SET OF sorts by encoding; a shorter encoding that is a prefix sorts first.
  Bytes set = der_set_of({{0x04, 0x01, 0x02}, {0x04, 0x01, 0x01}, {0x02, 0x01, 0x05}});
  EXPECT_EQ(set, (Bytes{0x31, 0x09, 0x02, 0x01, 0x05, 0x04, 0x01, 0x01, 0x04, 0x01, 0x02}));
  DerWriter w;
  w.begin(kSequence).integer(1).begin(kSequence).null().end().end();
  EXPECT_EQ(w.finish(), (Bytes{0x30, 0x07, 0x02, 0x01, 0x01, 0x30, 0x02, 0x05, 0x00}));
}

TEST(Der, ReadTlvRefusesWhatIsNotThere) {
  using asn1::read_tlv;
  Bytes ok{0x04, 0x02, 0xAA, 0xBB};
  auto t = asn1::read_tlv(ok.data(), ok.size());
  EXPECT_EQ(t.length, 2u);
  Bytes beyond{0x04, 0x05, 0xAA};
  EXPECT_THROW(read_tlv(beyond.data(), beyond.size()), Exception);
  Bytes huge{0x04, 0x88, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
  EXPECT_THROW(read_tlv(huge.data(), huge.size()), Exception);
  Bytes indefinite{0x30, 0x80, 0x00, 0x00};
  EXPECT_THROW(read_tlv(indefinite.data(), indefinite.size()), Exception);
}

}  // namespace
}  // namespace tessarel
