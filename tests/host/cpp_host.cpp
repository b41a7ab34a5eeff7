// A C++ host linked against the shared library. It proves the virtual-table contract that
// hosts rely on (operations in slots 0-10, in declaration order), calls operations through
// raw slots, catches the library's exceptions by type, and checks what the library exports.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <string>

#include "tessarel/tessarel.h"

namespace {

using tessarel::ISignEArchivia;

// In the Itanium C++ ABI a pointer to a virtual member function holds 1 + the byte offset
// of its slot in the virtual table.
template <typename PMF>
long slot_of(PMF pmf) {
  static_assert(sizeof(PMF) == 2 * sizeof(std::ptrdiff_t));
  std::ptrdiff_t words[2];
  std::memcpy(words, &pmf, sizeof words);
  EXPECT_EQ(words[0] & 1, 1) << "not a virtual function";
  return static_cast<long>((words[0] - 1) / static_cast<std::ptrdiff_t>(sizeof(void*)));
}

TEST(Host, OperationsOccupySlotsZeroToTen) {
  EXPECT_EQ(slot_of(&ISignEArchivia::ApriIndice), 0);
  EXPECT_EQ(slot_of(&ISignEArchivia::ArchiviaFile), 1);
  EXPECT_EQ(slot_of(&ISignEArchivia::FirmaEArchiviaFile), 2);
  EXPECT_EQ(slot_of(&ISignEArchivia::Firma), 3);
  EXPECT_EQ(slot_of(&ISignEArchivia::ChiudiIndice), 4);
  EXPECT_EQ(slot_of(&ISignEArchivia::CancellaId), 5);
  EXPECT_EQ(slot_of(&ISignEArchivia::EstraiContenuto), 6);
  EXPECT_EQ(slot_of(&ISignEArchivia::VerificaFirma), 7);
  EXPECT_EQ(slot_of(&ISignEArchivia::IsKeyPresent), 8);
  EXPECT_EQ(slot_of(&ISignEArchivia::GeneraCertificato), 9);
  EXPECT_EQ(slot_of(&ISignEArchivia::FirmaPdf), 10);
}

void** vtable(ISignEArchivia* e) {
  return *reinterpret_cast<void***>(e);
}

TEST(Host, CallsThroughRawSlotsReachTheRightOperations) {
  std::unique_ptr<ISignEArchivia> e(GetSignEArchivia());
  void** vt = vtable(e.get());

  // Slot 8, IsKeyPresent: unknown certificate.
  using IsKeyPresentFn = bool (*)(ISignEArchivia*, const std::string&);
  EXPECT_FALSE(reinterpret_cast<IsKeyPresentFn>(vt[8])(e.get(), "00"));

  // Slot 1, ArchiviaFile, and slot 5, CancellaId: no index open.
  using ArchiviaFn = void (*)(ISignEArchivia*, const std::string&, const std::string&,
                              const std::string&, const std::string&, double);
  try {
    reinterpret_cast<ArchiviaFn>(vt[1])(e.get(), "/tmp/a", "", "", "Tipo", 0.0);
    ADD_FAILURE() << "slot 1 did not raise";
  } catch (const tessarel::Exception& ex) {
    EXPECT_STREQ(ex.what(), "File indice non aperto");
  }
  using NoArgFn = void (*)(ISignEArchivia*);
  EXPECT_THROW(reinterpret_cast<NoArgFn>(vt[5])(e.get()), tessarel::Exception);
  // Slot 4, ChiudiIndice, on an unmodified engine: nothing happens.
  EXPECT_NO_THROW(reinterpret_cast<NoArgFn>(vt[4])(e.get()));
}

TEST(Host, ExceptionsAreCaughtByTypeAcrossTheLibraryBoundary) {
  char* result = nullptr;
  try {
    GetHashFileSHA256(&result, "/nonexistent/file.xml");
    FAIL() << "no exception";
  } catch (const tessarel::Exception& e) {
    EXPECT_NE(
        std::string(e.what()).find("File origine dei dati non trovato: /nonexistent/file.xml"),
        std::string::npos);
  }
  std::free(result);
  try {
    tessarel::SqliteDataSet ds("/nonexistent/db.sqlite", "t", 1);
    FAIL() << "no exception";
  } catch (const tessarel::EDatabaseError&) {
  }
}

TEST(Host, OnlyThePublicInterfaceIsExported) {
  std::string cmd = std::string("nm -D --defined-only ") + TESSAREL_LIBRARY_FILE;
  std::FILE* p = popen(cmd.c_str(), "r");
  ASSERT_NE(p, nullptr);
  std::set<std::string> symbols;
  char line[4096];
  while (std::fgets(line, sizeof line, p)) {
    std::string s(line);
    s = s.substr(s.rfind(' ') + 1);
    s.erase(s.find_last_not_of("\n") + 1);
    symbols.insert(s);
  }
  pclose(p);
  for (const char* name : {"GetHashFileSHA256", "SalvaCertificatopfx", "CreaCertificatoPrivato",
                           "SelezionaCommonName", "SelezionaCertificato", "GetSignEArchivia"})
    EXPECT_TRUE(symbols.count(name)) << name << " is not exported";
  for (const auto& s : symbols) {
    // Internal routines (mangled names of the lookup and digest helpers) stay hidden.
    EXPECT_EQ(s.find("16TrovaCertificato"), std::string::npos) << s;
    EXPECT_EQ(s.find("8HashFile"), std::string::npos) << s;
    EXPECT_EQ(s.find("13FileCertStore"), std::string::npos) << s;
  }
}

}  // namespace
