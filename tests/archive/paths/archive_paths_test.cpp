// Nothing a record or a document type says may lead outside the archive folder.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "archive/archive_paths.h"
#include "platform/runtime/datetime.h"
#include "tessarel/errors.h"
#include "test_support.h"

namespace tessarel {
namespace {

TEST(ArchivePaths, TipoMustBeOneFolderAndAnXmlName) {
  for (const char* ok :
       {"Contratti", "Fatture_2021", "Dichiarazioni-IVA", "Réclamations", "_x", "XMLDocs"})
    EXPECT_NO_THROW(CheckTipo(ok)) << ok;
  for (const std::string& bad :
       std::vector<std::string>{"", ".", "..", "../etc", "a/b", "a\\b", "/abs", "1abc",
                                "with space", "a:b", std::string("nu\0l", 4)})
    EXPECT_THROW(CheckTipo(bad), Exception) << bad;
}

TEST(ArchivePaths, RelativeFolderUsesFourDigitYearAndTwoDigitMonth) {
  EXPECT_EQ(RelativeFolder("Contratti", EncodeDateTime({2021, 3, 3})), "Contratti\\2021\\03\\");
  EXPECT_EQ(RelativeFolder("T", EncodeDateTime({987, 11, 30})), "T\\0987\\11\\");
}

TEST(ArchivePaths, LinksBecomeSlashPathsAndMayNotEscape) {
  EXPECT_EQ(LinkToPath("/arch", "Contratti\\2021\\03\\contratto.xml"),
            "/arch/Contratti/2021/03/contratto.xml");
  EXPECT_EQ(LinkToPath("/arch/", "a.xml"), "/arch/a.xml");
  for (const std::string& bad : std::vector<std::string>{
           "", "\\abs\\x", "/abs/x", "C:\\x", "..\\..\\etc\\passwd", "a\\..\\..\\b", "a\\\\b",
           "a\\.\\b", "a/../../b", std::string("a\0b", 3)})
    EXPECT_THROW(LinkToPath("/arch", bad), Exception) << bad;
}

TEST(ArchivePaths, SymlinksOutOfTheTreeAreRefused) {
  test::TempDir outside;
  test::TempDir arch;
  std::filesystem::create_directories(arch / "Contratti/2021");
  ASSERT_EQ(::symlink(outside.path().c_str(), (arch / "Contratti/2021/03").c_str()), 0);
  ASSERT_EQ(::symlink(outside.path().c_str(), (arch / "Fuga").c_str()), 0);
  EXPECT_NO_THROW(CheckInsideArchive(arch.path(), arch / "Contratti/2021/x.xml"));
  EXPECT_NO_THROW(
      CheckInsideArchive(arch.path(), arch / "Nuovo/2021/03/x.xml"));  // not created yet
  EXPECT_THROW(CheckInsideArchive(arch.path(), arch / "Contratti/2021/03/x.xml"), Exception);
  EXPECT_THROW(CheckInsideArchive(arch.path(), arch / "Fuga/x.xml"), Exception);
  EXPECT_THROW(CheckInsideArchive(arch.path(), outside / "x.xml"), Exception);
  // A sibling folder whose name starts like the archive's is still outside.
  EXPECT_THROW(CheckInsideArchive(arch.path(), arch.path() + "-other/x.xml"), Exception);
  // The last component a link: to a file outside, to a file inside.
  test::write_file(outside / "secret.txt", "s");
  test::write_file(arch / "Contratti/2021/vero.txt", "v");
  ASSERT_EQ(::symlink((outside / "secret.txt").c_str(), (arch / "Contratti/2021/a.txt").c_str()),
            0);
  ASSERT_EQ(::symlink("vero.txt", (arch / "Contratti/2021/b.txt").c_str()), 0);
  EXPECT_THROW(CheckInsideArchive(arch.path(), arch / "Contratti/2021/a.txt"), Exception);
  EXPECT_NO_THROW(CheckInsideArchive(arch.path(), arch / "Contratti/2021/b.txt"));
  EXPECT_NO_THROW(CheckInsideArchive(arch.path(), arch / "Contratti/2021/vero.txt"));
  // Reached through a link to the archive, or by a relative name.
  test::TempDir elsewhere;
  ASSERT_EQ(::symlink(arch.path().c_str(), (elsewhere / "via").c_str()), 0);
  EXPECT_NO_THROW(CheckInsideArchive(elsewhere / "via", arch / "Contratti/2021/vero.txt"));
  EXPECT_NO_THROW(CheckInsideArchive(arch.path(), elsewhere / "via/Contratti/2021/vero.txt"));
  EXPECT_THROW(CheckInsideArchive(elsewhere / "via", outside / "secret.txt"), Exception);
  std::string cwd = std::filesystem::current_path();
  std::filesystem::current_path(arch.path());
  EXPECT_NO_THROW(CheckInsideArchive(".", "Contratti/2021/vero.txt"));
  EXPECT_THROW(CheckInsideArchive(".", "Contratti/2021/a.txt"), Exception);
  EXPECT_THROW(CheckInsideArchive("Contratti", "Fuga/x.xml"), Exception);
  std::filesystem::current_path(cwd);
}

}  // namespace
}  // namespace tessarel
