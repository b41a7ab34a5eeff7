// Archiving: the dated tree, record numbering, the collision choices, deletion, and that a
// failure or a hostile name changes nothing.
#include "archive_fixture.h"
#include "boundary/file_digest.h"
#include "tessarel/errors.h"

namespace tessarel {
namespace {

class Archiving : public test::ArchiveFixture {};

TEST_F(Archiving, FoldersFollowTheDocumentDateRecordsTheDayOfArchiving) {
  std::string a = input("a.xml", "<a/>"), b = input("b.xml", "<b/>");
  TSignEArchivia e;
  e.ApriIndice(arch_, "0A2C", false);
  e.ArchiviaFile(a, "", "", "Contratti", march_);
  e.ArchiviaFile(b, "", "", "Contratti", april_);
  EXPECT_TRUE(e.modified());
  e.ChiudiIndice();
  auto r = records();
  ASSERT_EQ(r.size(), 2u);
  EXPECT_EQ(r[0].data.link, "Contratti\\2021\\03\\a.xml");
  EXPECT_EQ(r[1].data.link, "Contratti\\2021\\04\\b.xml");
  EXPECT_EQ(r[0].id, "0");
  EXPECT_EQ(r[1].id, "1");
  EXPECT_EQ(r[0].date, FormatIsoDate(Date()));
  EXPECT_FALSE(r[0].has_envelope);  // no envelope given: File_Dati only
  EXPECT_EQ(r[0].data.size, 4u);
  EXPECT_EQ(r[0].data.sha256,
            test::run({"sh", "-c", "printf '<a/>' | sha256sum | cut -c1-64 | tr a-f A-F"})
                .out.substr(0, 64));
  EXPECT_EQ(test::read_file(at("Contratti/2021/03/a.xml")), "<a/>");
}

TEST_F(Archiving, SignAndArchiveRecordsDataAndEnvelopeWithTheirDigests) {
  std::string a = input("contratto.xml", "<contratto/>");
  TSignEArchivia e;
  e.ApriIndice(arch_, "0A2C", true);
  e.FirmaEArchiviaFile(a, "Rossi & Bianchi, l'atto &amp; altro", "Contratti", march_);
  e.ChiudiIndice();
  auto r = records();
  ASSERT_EQ(r.size(), 1u);
  EXPECT_TRUE(r[0].detached);
  EXPECT_EQ(r[0].envelope.link, "Contratti\\2021\\03\\contratto.xml.p7s");
  EXPECT_EQ(r[0].envelope.name, "contratto.xml.p7s");
  EXPECT_EQ(r[0].envelope.size,
            std::filesystem::file_size(at("Contratti/2021/03/contratto.xml.p7s")));
  // The parameter was escaped once more: & and ' become entities, so a text holding
  // "&amp;" reads back as "&amp;".
  std::string text = test::read_file(at("index.xml"));
  EXPECT_NE(text.find("Rossi &amp; Bianchi, l'atto &amp;amp; altro"), std::string::npos) << text;
  EXPECT_TRUE(VerifyArchive(arch_).ok());
}

// A class built on the engine with its own ArchiviaFile has it called for every file that
// FirmaEArchiviaFile signs, alone or in a list signed ahead; and a file that already lies at
// its archive place is signed and recorded there, with the digests of the files there.
TEST_F(Archiving, SigningAndArchivingCallsAnOwnArchiviaFileAndRecordsFilesInPlace) {
  struct Counting : TSignEArchivia {
    std::vector<std::string> calls;
    void ArchiviaFile(const std::string& fpath, const std::string& fBusta,
                      const std::string& XMLParam, const std::string& Tipo,
                      DateTime Data) override {
      calls.push_back(ExtractFileName(fpath) + " " + ExtractFileName(fBusta));
      TSignEArchivia::ArchiviaFile(fpath, fBusta, XMLParam, Tipo, Data);
    }
  };
  std::vector<std::string> files = {input("a.txt", "a"), input("b.txt", "b"), input("c.txt", "c")};
  ::setenv("TESSAREL_THREADS", "4", 1);
  {
    Counting e;
    e.ApriIndice(arch_, "0A2C", false);
    e.FirmaEArchiviaFile(files[0], "", "Contratti", march_);
    FirmaEArchiviaFiles(e, {files[1], files[2]}, "", "Contratti", march_, {},
                        [](std::size_t, std::exception_ptr error) { return !error; });
    e.ChiudiIndice();
    EXPECT_EQ(e.calls,
              (std::vector<std::string>{"a.txt a.txt.p7m", "b.txt b.txt.p7m", "c.txt c.txt.p7m"}));
  }
  // Signed again where the archive keeps it: nothing copied, the digests those of the files
  // in place (the envelope just written beside it).
  TSignEArchivia e;
  e.ApriIndice(arch_, "0A2C", false);
  FirmaEArchiviaFiles(e, {at("Contratti/2021/03/a.txt"), at("Contratti/2021/03/b.txt")}, "",
                      "Contratti", march_, {},
                      [](std::size_t, std::exception_ptr error) { return !error; });
  e.ChiudiIndice();
  ::unsetenv("TESSAREL_THREADS");
  EXPECT_TRUE(ui_->shown.empty());
  auto r = records();
  ASSERT_EQ(r.size(), 5u);
  EXPECT_EQ(r[3].data.link, "Contratti\\2021\\03\\a.txt");
  EXPECT_EQ(r[3].data.sha256, HashFileSHA256(at("Contratti/2021/03/a.txt")));
  EXPECT_EQ(r[3].envelope.sha256, HashFileSHA256(at("Contratti/2021/03/a.txt.p7m")));
  EXPECT_TRUE(VerifyArchive(arch_).ok());
}

TEST_F(Archiving, AFileAlreadyInPlaceIsNotCopiedAndNotAsked) {
  std::filesystem::create_directories(at("Contratti/2021/03"));
  test::write_file(at("Contratti/2021/03/x.txt"), "in place");
  test::write_file(at("Contratti/2021/03/x.txt.p7m"), "envelope in place");
  TSignEArchivia e;
  e.ApriIndice(arch_, "0A2C", false);
  // The envelope given elsewhere is not copied either: the one in the archive is recorded.
  input("x.txt.p7m", "another envelope");
  e.ArchiviaFile(at("Contratti/2021/03/x.txt"), dir_ / "in/x.txt.p7m", "", "Contratti", march_);
  e.ArchiviaFile(at("Contratti/2021/03/x.txt"), "", "", "Contratti", march_);
  EXPECT_TRUE(ui_->shown.empty());
  e.ChiudiIndice();
  auto r = records();
  ASSERT_EQ(r.size(), 2u);
  // The envelope was not copied: it was digested where the archive keeps it.
  EXPECT_EQ(r[0].envelope.size, std::string("envelope in place").size());
  EXPECT_EQ(r[1].id, "1");
}

TEST_F(Archiving, CollisionChoices) {
  struct Case {
    int choice;
    bool overwritten;   // the archived copy holds the new content
    int later_dialogs;  // dialogs shown for a third collision
  };
  for (Case c : {Case{0, true, 1}, Case{1, true, 0}, Case{2, false, 1}, Case{3, false, 0}}) {
    SCOPED_TRACE("choice " + std::to_string(c.choice));
    std::filesystem::remove_all(arch_);
    std::string f = input("doc.txt", "version 1");
    TSignEArchivia e;
    e.ApriIndice(arch_, "0A2C", false);
    e.ArchiviaFile(f, "", "", "Contratti", march_);
    test::write_file(f, "version 2");
    ui_->shown.clear();
    ui_->answer_overwrite(c.choice);
    e.ArchiviaFile(f, "", "", "Contratti", march_);
    EXPECT_EQ(test::read_file(at("Contratti/2021/03/doc.txt")),
              c.overwritten ? "version 2" : "version 1");
    e.ChiudiIndice();
    auto r = records();
    ASSERT_EQ(r.size(), 1u) << "a replaced record takes the old one's place";
    EXPECT_EQ(r[0].id, "0");
    EXPECT_EQ(r[0].data.size, std::string(c.overwritten ? "version 2" : "version 1").size());
    // A third collision: asked again unless the choice was "for all the other times".
    if (c.later_dialogs) ui_->answer_overwrite(c.choice);
    e.ArchiviaFile(f, "", "", "Contratti", march_);
    EXPECT_EQ(ui_->shown.size(), static_cast<std::size_t>(1 + c.later_dialogs));
    EXPECT_TRUE(ui_->all_answers_used());
  }
}

// The records as ArchiviaFile writes them, byte for byte: attribute order, the escaped
// parameter, the file entries and their indentation, a new group after the others, and the
// numbering when an Id is not a number (the next after the highest; a replaced record whose
// Id is not a number gets the next one too, in the old record's place).
TEST_F(Archiving, RecordsAreWrittenExactlyAndNumberedPastIdsThatAreNotNumbers) {
  TSignEArchivia e;
  e.ApriIndice(arch_, "0A2C", false);
  std::string b = input("b.txt", "beta");
  e.ArchiviaFile(input("a.txt", "alpha"), input("a.txt.p7m", "ENV"), "<Nota>n</Nota> & l'x",
                 "Contratti", march_);
  e.ArchiviaFile(b, "", "", "Contratti", march_);
  e.ArchiviaFile(input("c.txt", "gamma"), "", "", "Fatture", april_);
  xml::Node contratti = e.document()->root().find_child("Contratti");
  contratti.first_child().set_attribute("Id", "5");
  contratti.last_child().set_attribute("Id", "x");
  e.ArchiviaFile(input("d.txt", "delta"), "", "", "Contratti", march_);
  test::write_file(b, "beta 2");
  ui_->answer_overwrite(0);
  e.ArchiviaFile(b, "", "", "Contratti", march_);

  std::string text = e.document()->Serialize();
  std::string today = FormatIsoDate(Date());
  auto file = [](const std::string& folder, const std::string& name, int size,
                 const std::string& digest) {
    return "<File_Dati link=\"" + folder + name + "\" size=\"" + std::to_string(size) +
           "\" Hash_SHA256=\"" + digest + "\" detached=\"F\">\n\t</File_Dati>";
  };
  auto record = [&](const std::string& name, const std::string& id, const std::string& inner) {
    return "<Documento Name=\"" + name + "\" Data=\"" + today + "\" Id=\"" + id + "\">" + inner +
           "</Documento>";
  };
  const std::string march = "Contratti\\2021\\03\\";
  std::string expected =
      "<Contratti>" +
      record("a.txt", "5",
             "<Nota>n</Nota> &amp; l&apos;x\n\t" +
                 file(march, "a.txt", 5,
                      "8ED3F6AD685B959EAD7022518E1AF76CD816F8E8EC7CCDDA1ED4018E8F2223F8") +
                 "\n\t<File_Busta link=\"" + march +
                 "a.txt.p7m\" name=\"a.txt.p7m\" size=\"3\" Hash_SHA256=\""
                 "416861C7E2C15AEFEFE28970E4C33BA6C1061CA5868EC15BC33126382200FE4A\">\n\t"
                 "</File_Busta>") +
      record("b.txt", "7",
             "\n\t" + file(march, "b.txt", 6,
                           "15C55834C2DA6A3F05E53D4515E9E367913822B7D4D60F9E5322B521E362C20E")) +
      record("d.txt", "6",
             "\n\t" + file(march, "d.txt", 5,
                           "4F4A9410FFCDF895C4ADB880659E9B5C0DD1F23A30790684340B3EAACB045398")) +
      "</Contratti><Fatture>" +
      record("c.txt", "0",
             "\n\t" + file("Fatture\\2021\\04\\", "c.txt", 5,
                           "BE9D587DEFA1F0C09EF49EB17E206983A5F8F8289E4281860BD0EE5A19592C67")) +
      "</Fatture></IndiceFile>\n";
  auto at_group = text.find("<Contratti>");
  ASSERT_NE(at_group, std::string::npos) << text;
  EXPECT_EQ(text.substr(at_group), expected);
  EXPECT_EQ(test::read_file(at("Contratti/2021/03/b.txt")), "beta 2");
  EXPECT_EQ(test::read_file(at("Contratti/2021/03/a.txt.p7m")), "ENV");
}

TEST_F(Archiving, CancelStopsAndIsRememberedTheCloseBoxKeepsTheSelection) {
  std::string f = input("doc.txt", "v1");
  {
    TSignEArchivia e;
    e.ApriIndice(arch_, "0A2C", false);
    e.ArchiviaFile(f, "", "", "Contratti", march_);
    test::write_file(f, "v2");
    ui_->answer_overwrite(4);
    for (int attempt = 0; attempt < 2; ++attempt) {
      try {
        e.ArchiviaFile(f, "", "", "Contratti", march_);
        FAIL() << "no cancellation";
      } catch (const Exception& ex) {
        EXPECT_STREQ(ex.what(), "Operazione Annullata");
      }
    }
    EXPECT_EQ(ui_->shown.size(), 1u);  // the second collision was cancelled without asking
    EXPECT_EQ(test::read_file(at("Contratti/2021/03/doc.txt")), "v1");
    EXPECT_EQ(e.collision_action(), 4);
  }  // the engine's end frees the archive for the next one

  TSignEArchivia again;
  again.ApriIndice(arch_, "0A2C", false);  // opening resets the remembered answer
  EXPECT_EQ(again.collision_action(), -1);
  ui_->answer_overwrite(-1, true);  // closed with the close box: item 0 was selected
  again.ArchiviaFile(f, "", "", "Contratti", march_);
  EXPECT_EQ(test::read_file(at("Contratti/2021/03/doc.txt")), "v2");
  EXPECT_EQ(again.collision_action(), -1);
}

TEST_F(Archiving, EscapingNamesAreRefusedBeforeAnythingIsWritten) {
  std::string f = input("doc.txt", "x");
  std::filesystem::create_directories(dir_ / "outside");
  std::filesystem::create_directories(arch_);
  std::filesystem::create_directory_symlink(dir_ / "outside", arch_ + "/Fuori");
  TSignEArchivia e;
  e.ApriIndice(arch_, "0A2C", false);
  for (std::string tipo :
       {std::string(".."), std::string("../outside"), std::string("/tmp"), std::string("a/b"),
        std::string("a\\b"), std::string("x\0y", 3), std::string(""), std::string("Fuori")}) {
    EXPECT_THROW(e.ArchiviaFile(f, "", "", tipo, march_), Exception) << tipo;
  }
  EXPECT_FALSE(e.modified());
  EXPECT_TRUE(std::filesystem::is_empty(dir_ / "outside"));
  std::vector<std::string> expected;  // nothing but the link itself
  EXPECT_EQ(tree(), expected);
}

TEST_F(Archiving, DeletionNeverReachesOutsideTheArchive) {
  std::string f = input("doc.txt", "x");
  {
    TSignEArchivia e;
    e.ApriIndice(arch_, "0A2C", false);
    e.ArchiviaFile(f, "", "", "Contratti", march_);
    e.ChiudiIndice();
  }
  test::write_file(dir_ / "victim.txt", "must stay");
  // Someone edits the record's link to point outside (the index signature no longer
  // matters: it is removed on open).
  std::string text = test::read_file(at("index.xml"));
  std::string from = "link=\"Contratti\\2021\\03\\doc.txt\"";
  text.replace(text.find(from), from.size(), "link=\"..\\victim.txt\"");
  test::write_file(at("index.xml"), text);
  TSignEArchivia e;
  e.ApriIndice(arch_, "0A2C", false);
  ui_->answer_deletion(0, "0");
  EXPECT_THROW(e.CancellaId(), Exception);
  EXPECT_EQ(test::read_file(dir_ / "victim.txt"), "must stay");
  EXPECT_FALSE(e.modified());
  EXPECT_EQ(records_in_memory(e), 1);
}

TEST_F(Archiving, DeletionDialogRules) {
  std::string a = input("a.txt", "A"), b = input("b.txt", "B");
  TSignEArchivia e;
  e.ApriIndice(arch_, "0A2C", false);
  EXPECT_THROW(e.CancellaId(), Exception);  // "File indice vuoto": nothing to choose
  e.ArchiviaFile(a, "", "", "Contratti", march_);
  e.ArchiviaFile(b, "", "", "Fatture", march_);
  ui_->answer_deletion(0, "");  // empty Id: nothing happens, nothing shown
  e.CancellaId();
  ui_->answer_deletion(0, "7");
  e.CancellaId();
  EXPECT_EQ(ui_->messages().back().text, "id non trovato");
  ui_->answer_deletion(1, "0", ModalResult::Cancel);
  e.CancellaId();
  ui_->answer_deletion(1, "zero");
  EXPECT_THROW(e.CancellaId(), EConvertError);
  ui_->answer_deletion(1, "0");
  ui_->answer_message(ModalResult::Cancel);  // the confirmation
  e.CancellaId();
  EXPECT_EQ(records_in_memory(e), 2);
  EXPECT_TRUE(std::filesystem::exists(at("Fatture/2021/03/b.txt")));
  EXPECT_TRUE(ui_->all_answers_used());
}

TEST_F(Archiving, AFailedCopyChangesNeitherTheArchiveNorTheIndex) {
  std::string ok = input("ok.txt", "fine");
  TSignEArchivia e;
  e.ApriIndice(arch_, "0A2C", false);
  e.ArchiviaFile(ok, "", "", "Contratti", march_);
  e.ChiudiIndice();
  auto before_tree = tree();
  std::string before_index = test::read_file(at("index.xml"));
  // A missing data file, and an envelope that is missing while the data file exists.
  EXPECT_THROW(e.ArchiviaFile(dir_ / "in/missing.txt", "", "", "Contratti", march_), EFOpenError);
  std::string data = input("data.txt", "data");
  EXPECT_THROW(e.ArchiviaFile(data, dir_ / "in/missing.p7m", "", "Contratti", march_), EFOpenError);
  EXPECT_EQ(tree(), before_tree) << "a copy of data.txt stayed behind";
  EXPECT_EQ(records_in_memory(e), 1);
  // An archive folder that cannot hold the type's folder.
  test::write_file(at("Blocco"), "a file where a folder should be");
  try {
    e.ArchiviaFile(data, "", "", "Blocco", march_);
    FAIL();
  } catch (const Exception& ex) {
    EXPECT_EQ(std::string(ex.what()), "Impossibile create la cartella " + at("Blocco/2021/03/"));
  }
  EXPECT_EQ(records_in_memory(e), 1);
  EXPECT_FALSE(std::filesystem::exists(at("Blocco/2021")));
  e.ChiudiIndice();
  EXPECT_EQ(test::read_file(at("index.xml")), before_index)
      << "nothing changed, so nothing was written";
}

// A process whose files may not grow past 64 KiB stands in for a full disk.
TEST_F(Archiving, AFullDiskLeavesNoPartialCopyAndNoRecord) {
  std::string big = input("big.bin", std::string(1 << 20, 'z'));
  {
    TSignEArchivia e;
    e.ApriIndice(arch_, "0A2C", false);
    e.ArchiviaFile(input("small.txt", "s"), "", "", "Contratti", march_);
    e.ChiudiIndice();
  }
  std::string index_before = test::read_file(at("index.xml"));
  auto tree_before = tree();
  int rc = test::with_file_size_limit(64 * 1024, [&] {
    TSignEArchivia e;
    e.ApriIndice(arch_, "0A2C", false);
    try {
      e.ArchiviaFile(big, "", "", "Contratti", march_);
      return 1;  // the copy should have failed
    } catch (const EInOutError&) {
      e.ChiudiIndice();
      return e.modified() ? 2 : 0;
    }
  });
  EXPECT_EQ(rc, 0) << "1: copied anyway, 2: index marked modified";
  EXPECT_EQ(tree(), tree_before);
  EXPECT_EQ(test::read_file(at("index.xml")), index_before);
}

// The archive on a real 256 KiB file system, which a test then fills up or makes read-only.
class ArchivingOnASmallDisk : public Archiving {
 protected:
  void SetUp() override {
    Archiving::SetUp();
    disk_ = std::make_unique<test::SmallFileSystem>(dir_ / "disk", 256 * 1024);
    if (!disk_->mounted()) GTEST_SKIP() << "mounting a tmpfs needs root";
    arch_ = dir_ / "disk/archivio";
    TSignEArchivia e;
    e.ApriIndice(arch_, "0A2C", false);
    e.FirmaEArchiviaFile(input("primo.txt", "primo"), "", "Contratti", march_);
    e.ChiudiIndice();
    index_before_ = test::read_file(at("index.xml"));
    tree_before_ = tree();
  }
  std::unique_ptr<test::SmallFileSystem> disk_;
  std::string index_before_;
  std::vector<std::string> tree_before_;
};

TEST_F(ArchivingOnASmallDisk, WhenFullNewDocumentsAreRefusedAndNothingIsLeftBehind) {
  std::string doc = input("secondo.txt", std::string(8192, 's'));
  disk_->fill();
  TSignEArchivia e;
  e.ApriIndice(arch_, "0A2C", false);
  EXPECT_THROW(e.ArchiviaFile(doc, "", "", "Contratti", march_), Exception);
  EXPECT_THROW(e.FirmaEArchiviaFile(doc, "", "Contratti", april_), Exception);
  EXPECT_THROW(e.FirmaEArchiviaFile(doc, "", "Fatture", march_), Exception);
  EXPECT_EQ(records_in_memory(e), 1);
  EXPECT_FALSE(e.modified());
  e.ChiudiIndice();
  EXPECT_EQ(tree(), tree_before_) << "no partial copy, envelope or folder stays";
  EXPECT_EQ(test::read_file(at("index.xml")), index_before_);
}

TEST_F(ArchivingOnASmallDisk, WhenFullAnUnwritableIndexStaysAsItWasAndTheCloseCanBeRetried) {
  TSignEArchivia e;
  e.ApriIndice(arch_, "0A2C", false);
  e.ArchiviaFile(input("secondo.txt", "secondo"), "", "", "Contratti", march_);
  std::string filler = disk_->fill();
  e.ChiudiIndice();
  auto messages = ui_->messages();
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0].text.rfind("Error: ", 0), 0u) << messages[0].text;
  EXPECT_EQ(test::read_file(at("index.xml")), index_before_);
  auto files = tree();
  EXPECT_EQ(files.size(), tree_before_.size() + 1) << "the new copy only; no temporary index";

  // With space again, the same engine writes the index it could not write before.
  std::filesystem::remove(filler);
  e.ChiudiIndice();
  EXPECT_EQ(ListArchive(arch_).size(), 2u);
  auto check = VerifyArchive(arch_);
  EXPECT_TRUE(check.ok());
}

TEST_F(ArchivingOnASmallDisk, WhenReadOnlyNothingIsArchivedOrDeletedAndTheIndexStays) {
  std::string doc = input("secondo.txt", "secondo");
  ASSERT_TRUE(disk_->make_read_only());
  TSignEArchivia e;
  e.ApriIndice(arch_, "0A2C", false);
  EXPECT_THROW(e.ArchiviaFile(doc, "", "", "Contratti", march_), Exception);
  EXPECT_THROW(e.FirmaEArchiviaFile(doc, "", "Contratti", march_), Exception);
  EXPECT_FALSE(e.modified());
  // A deletion cannot remove the files, and its index cannot be written: the record and
  // its files stay listed and in place on disk.
  ui_->answer_deletion(0, "0");
  ui_->answer_message(ModalResult::Ok);
  e.CancellaId();
  bool error_shown = false;
  for (auto& m : ui_->messages())
    error_shown |= m.text.rfind("Error: ", 0) == 0;
  EXPECT_TRUE(error_shown);
  EXPECT_EQ(tree(), tree_before_);
  EXPECT_EQ(test::read_file(at("index.xml")), index_before_);
  EXPECT_TRUE(VerifyArchive(arch_).ok());
}

}  // namespace
}  // namespace tessarel
