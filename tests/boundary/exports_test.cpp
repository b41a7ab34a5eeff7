// The result-argument rules of the C entry points and the engine's behaviour before an
// archive is opened.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "archive/sign_e_archivia.h"
#include "tessarel/errors.h"
#include "tessarel/exports.h"
#include "tessarel/sign_e_archivia.h"
#include "test_support.h"

namespace tessarel {
namespace {

struct CString {
  char* p;
  explicit CString(const char* init) : p(init ? strdup(init) : nullptr) {}
  ~CString() { std::free(p); }
};

TEST(Exports, SelezionaCommonNameAssignsOnlyOnAMatch) {
  test::ScopedStore store;
  test::CertParams params;
  params.cn = "Giulia Neri";
  params.serial = {0x0A, 0x0B};
  params.kind = KeyKind::Ec;
  params.bits = 256;
  store.add(test::make_cert(params), false);

  CString r("kept");
  EXPECT_EQ(SelezionaCommonName(&r.p, "0A0B"), &r.p);
  EXPECT_STREQ(r.p, "Giulia Neri");

  CString unknown("kept");
  SelezionaCommonName(&unknown.p, "0a0b");
  EXPECT_STREQ(unknown.p, "kept");
  SelezionaCommonName(&unknown.p, nullptr);
  SelezionaCommonName(&unknown.p, "");
  EXPECT_STREQ(unknown.p, "kept");

  CString fresh(nullptr);
  SelezionaCommonName(&fresh.p, "FFFF");
  EXPECT_EQ(fresh.p, nullptr);
}

TEST(Exports, NullFileNameCountsAsEmpty) {
  CString r("old");
  EXPECT_THROW(GetHashFileSHA256(&r.p, nullptr), Exception);
  EXPECT_STREQ(r.p, "");
}

TEST(Exports, EachEngineIsANewIndependentObject) {
  test::ScopedStore store;
  std::unique_ptr<ISignEArchivia> a(GetSignEArchivia());
  std::unique_ptr<ISignEArchivia> b(GetSignEArchivia());
  ASSERT_NE(a, nullptr);
  EXPECT_NE(a.get(), b.get());
  a->IsKeyPresent("AA");
  b->IsKeyPresent("BB");
  EXPECT_EQ(static_cast<TSignEArchivia*>(a.get())->id_cert(), "AA");
  EXPECT_EQ(static_cast<TSignEArchivia*>(b.get())->id_cert(), "BB");
}

TEST(Engine, IndexOperationsNeedAnOpenIndex) {
  test::ScopedStore store;
  std::unique_ptr<ISignEArchivia> e(GetSignEArchivia());
  auto expect_not_open = [](auto&& call) {
    try {
      call();
      ADD_FAILURE() << "no exception";
    } catch (const Exception& ex) {
      EXPECT_STREQ(ex.what(), "File indice non aperto");
    }
  };
  expect_not_open([&] { e->ArchiviaFile("/tmp/x", "", "", "Contratti", 0.0); });
  expect_not_open([&] { e->FirmaEArchiviaFile("/tmp/x", "", "Contratti", 0.0); });
  expect_not_open([&] { e->CancellaId(); });
  EXPECT_NO_THROW(e->ChiudiIndice());
  auto* engine = static_cast<TSignEArchivia*>(e.get());
  EXPECT_FALSE(engine->index_open());
  EXPECT_FALSE(engine->modified());
  EXPECT_EQ(engine->collision_action(), 0);
}

TEST(Engine, IsKeyPresentRecordsTheIdentifierEvenWhenFalse) {
  test::ScopedStore store;
  test::CertParams params;
  params.serial = {0x77};
  params.kind = KeyKind::Ec;
  params.bits = 256;
  store.add(test::make_cert(params));
  std::unique_ptr<ISignEArchivia> e(GetSignEArchivia());
  auto* engine = static_cast<TSignEArchivia*>(e.get());
  EXPECT_FALSE(e->IsKeyPresent("DEADBEEF"));
  EXPECT_EQ(engine->id_cert(), "DEADBEEF");
  EXPECT_TRUE(e->IsKeyPresent("77"));
  EXPECT_EQ(engine->id_cert(), "77");
}

TEST(Engine, TemporaryFileNamesAreNewEmptyFiles) {
  TSignEArchivia e;
  std::string a = e.GenerateTempFilename(), b = e.GenerateTempFilename();
  EXPECT_NE(a, b);
  EXPECT_EQ(test::read_file(a), "");
  std::remove(a.c_str());
  std::remove(b.c_str());
}

}  // namespace
}  // namespace tessarel
