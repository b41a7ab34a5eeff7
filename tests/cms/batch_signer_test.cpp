// FirmaFiles: which files are signed, the names it writes, what it returns and shows.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "boundary/batch_signer.h"
#include "cms/cms_verify.h"
#include "cms_support.h"
#include "frontends/scripted_ui.h"
#include "platform/crypto/digest.h"

namespace tessarel {
namespace {

// TESSAREL_THREADS for the life of the object.
class ScopedThreads {
 public:
  explicit ScopedThreads(const char* n) { ::setenv("TESSAREL_THREADS", n, 1); }
  ~ScopedThreads() { ::unsetenv("TESSAREL_THREADS"); }
};

class BatchSigner : public ::testing::Test {
 protected:
  void SetUp() override {
    test::CertParams s;
    s.cn = "Batch";
    s.serial = {0x0B, 0xA7};
    tc_ = std::make_unique<test::TestCert>(test::make_cert(s));
    store_.add(*tc_);
  }
  std::string file(const std::string& name, const std::string& content) {
    test::write_file(dir_ / name, content);
    return dir_ / name;
  }
  CmsVerification verify(const std::string& envelope, const std::string& data = "") {
    auto m = std::make_unique<TElSignedCMSMessage>();
    m->Open(std::make_shared<asn1::FileSource>(envelope));
    std::unique_ptr<TElCMSContent> ext;
    if (!data.empty()) {
      auto src = std::make_shared<asn1::FileSource>(data);
      ext = std::make_unique<TElCMSContent>();
      ext->Init(src, 0, src->size());
    }
    return VerifySignedMessage(*m, ext.get());
  }
  test::TempDir dir_;
  test::ScopedStore store_;
  std::unique_ptr<test::TestCert> tc_;
  std::shared_ptr<ScriptedUi> ui_ = std::make_shared<ScriptedUi>();
  test::ScopedUi scoped_{ui_};
};

TEST_F(BatchSigner, OneFileGivesExactlyItsEnvelopePath) {
  std::string doc = file("doc.xml", "<a/>");
  auto r = FirmaFiles(doc, doc, "0BA7", false, nullptr);
  ASSERT_TRUE(r);
  EXPECT_EQ(*r, doc + ".p7m");
  EXPECT_TRUE(verify(doc + ".p7m").ok());
}

TEST_F(BatchSigner, SeveralFilesGiveTheListWithCrLfAndMissingOnesKeepTheirName) {
  std::string a = file("a.txt", "A"), c = file("c.txt", "C");
  std::string b = dir_ / "b-missing.txt";
  std::string list = a + "\r\n" + b + "\n" + c;
  auto r = FirmaFiles(list, list, "0BA7", true, nullptr);
  ASSERT_TRUE(r);
  EXPECT_EQ(*r, a + ".p7s\r\n" + b + "\r\n" + c + ".p7s\r\n");
  EXPECT_FALSE(std::filesystem::exists(b + ".p7s"));
  EXPECT_TRUE(verify(a + ".p7s", a).ok());
  EXPECT_TRUE(verify(c + ".p7s", c).ok());
}

TEST_F(BatchSigner, ProgressTextsAndTheEndText) {
  std::vector<std::string> files;
  std::string list;
  for (int i = 1; i <= 4; ++i) {
    files.push_back(file("f" + std::to_string(i), std::string(static_cast<std::size_t>(i), 'x')));
    list += files.back() + "\n";
  }
  ASSERT_TRUE(FirmaFiles(list, list, "0BA7", false, ui_.get()));
  EXPECT_EQ(ui_->progress,
            (std::vector<std::string>{"1/4 " + files[0], "2/4 " + files[1], "3/4 " + files[2],
                                      "4/4 " + files[3], "Firma Terminata"}));
}

TEST_F(BatchSigner, AnExistingEnvelopeIsReplacedWithoutAQuestion) {
  std::string doc = file("doc.txt", "new content");
  test::write_file(doc + ".p7m", "old envelope");
  ASSERT_TRUE(FirmaFiles(doc, doc, "0BA7", false, nullptr));
  EXPECT_TRUE(verify(doc + ".p7m").ok());
  EXPECT_TRUE(ui_->shown.empty());
}

TEST_F(BatchSigner, UnknownCertificateOrUnusableKeySignsNothingSilently) {
  std::string doc = file("doc.txt", "x");
  EXPECT_FALSE(FirmaFiles(doc, doc, "0ba7", false, ui_.get()));
  EXPECT_FALSE(FirmaFiles(doc, doc, "FFFF", false, ui_.get()));
  test::CertParams s;
  s.serial = {0x77};
  store_.add(test::make_cert(s), false);
  EXPECT_FALSE(FirmaFiles(doc, doc, "77", false, ui_.get()));
  EXPECT_FALSE(std::filesystem::exists(doc + ".p7m"));
  EXPECT_TRUE(ui_->shown.empty());
  EXPECT_TRUE(ui_->progress.empty());
}

// Alone, and between small files signed ahead on four threads: the large file is streamed
// when its turn comes, its hashing reported, and the progress stays in list order.
TEST_F(BatchSigner, AFileAboveTheStreamingThresholdIsSignedFromDisk) {
  std::string big = dir_ / "big.bin";
  {
    std::ofstream out(big, std::ios::binary);
    std::string block(1 << 20, 'z');
    for (std::uint64_t i = 0; i < kStreamingThreshold / block.size() + 2; ++i)
      out.write(block.data(), 1 << 20);
  }
  ASSERT_TRUE(FirmaFiles(big, big, "0BA7", false, nullptr));
  auto v = verify(big + ".p7m");
  EXPECT_TRUE(v.ok());
  EXPECT_EQ(v.content_size, kStreamingThreshold + (2u << 20));
  std::filesystem::remove(big + ".p7m");

  std::string a = file("a.txt", "A"), c = file("c.txt", std::string(5000, 'c'));
  std::string list = a + "\n" + big + "\n" + c;
  ScopedThreads four("4");
  std::uint64_t last_done = 0, total = 0;
  auto r = FirmaFiles(list, list, "0BA7", true, ui_.get(), [&](std::uint64_t d, std::uint64_t t) {
    last_done = d;
    total = t;
  });
  ASSERT_TRUE(r);
  EXPECT_EQ(*r, a + ".p7s\r\n" + big + ".p7s\r\n" + c + ".p7s\r\n");
  EXPECT_EQ(ui_->progress,
            (std::vector<std::string>{"1/3 " + a, "2/3 " + big, "3/3 " + c, "Firma Terminata"}));
  EXPECT_EQ(total, kStreamingThreshold + (2u << 20));
  EXPECT_EQ(last_done, total);
  for (const auto& f : {a, big, c})
    EXPECT_TRUE(verify(f + ".p7s", f).ok()) << f;
  std::filesystem::remove(big + ".p7s");
  std::filesystem::remove(big);
}

// A write that fails in the middle of a batch signed ahead: the envelopes before it stay,
// its own partial one is removed, none after it is written, and the error is the one that
// one file after the other raises.
TEST_F(BatchSigner, AWriteErrorInTheMiddleStopsTheBatchThere) {
  std::vector<std::string> files;
  std::string list;
  for (int i = 0; i < 12; ++i) {
    std::size_t size = i == 5 ? (1u << 20) : 100u;
    files.push_back(file("f" + std::to_string(i), std::string(size, static_cast<char>('a' + i))));
    list += files.back() + "\n";
  }
  for (const char* threads : {"1", "4"}) {
    ScopedThreads scoped(threads);
    int rc = test::with_file_size_limit(64 * 1024, [&] {
      try {
        FirmaFiles(list, list, "0BA7", false, nullptr);
        return 1;
      } catch (const EInOutError& e) {
        return std::string(e.what()).find(files[5] + ".p7m") != std::string::npos ? 0 : 2;
      }
    });
    EXPECT_EQ(rc, 0) << threads << " threads: 1 signed anyway, 2 another error";
    for (int i = 0; i < 12; ++i) {
      std::string envelope = files[static_cast<std::size_t>(i)] + ".p7m";
      EXPECT_EQ(std::filesystem::exists(envelope), i < 5) << threads << " threads: " << envelope;
      if (i < 5) {
        EXPECT_TRUE(verify(envelope).ok()) << envelope;
      }
      std::filesystem::remove(envelope);
    }
  }
}

TEST_F(BatchSigner, AnUnreadableOutputFolderRaisesAndKeepsEarlierEnvelopes) {
  std::string a = file("a.txt", "A");
  std::filesystem::create_directories(dir_ / "sub");
  std::string b = dir_ / "sub/b.txt";
  test::write_file(b, "B");
  std::string outputs = a + "\n" + dir_.path() + "/no-such-folder/b.txt";
  EXPECT_THROW(FirmaFiles(a + "\n" + b, outputs, "0BA7", false, nullptr), EFCreateError);
  EXPECT_TRUE(std::filesystem::exists(a + ".p7m"));
}

// A process whose files may not grow past 64 KiB stands in for a full disk.
TEST_F(BatchSigner, AnEnvelopeThatCannotBeWrittenWholeIsRemoved) {
  std::string big = file("big.bin", std::string(1 << 20, 'b'));
  int rc = test::with_file_size_limit(64 * 1024, [&] {
    try {
      FirmaFiles(big, big, "0BA7", false, nullptr);
      return 1;
    } catch (const EInOutError&) {
      return 0;
    }
  });
  EXPECT_EQ(rc, 0) << "1: signed anyway";
  EXPECT_FALSE(std::filesystem::exists(big + ".p7m"));
  EXPECT_EQ(test::read_file(big), std::string(1 << 20, 'b'));
}

}  // namespace
}  // namespace tessarel
