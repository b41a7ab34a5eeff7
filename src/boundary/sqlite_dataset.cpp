#include <sqlite3.h>

#include <algorithm>
#include <map>
#include <memory>
#include <vector>

#include "platform/runtime/files.h"
#include "platform/runtime/strings.h"
#include "tessarel/dataset.h"
#include "tessarel/errors.h"

namespace tessarel {

TField::~TField() = default;
TDataSet::~TDataSet() = default;

namespace {

std::string quote_identifier(const std::string& name) {
  return "\"" + replace_all(name, "\"", "\"\"") + "\"";
}

class SqliteField : public TBlobField {
 public:
  SqliteField(std::string name, bool blob, const bool* editing)
      : name_(std::move(name)), blob_(blob), editing_(editing) {}
  const std::string& FieldName() const override { return name_; }
  bool IsBlob() const override { return blob_; }
  void LoadFromStream(std::istream& stream) override {
    if (!*editing_) throw EDatabaseError("Dataset not in edit or insert mode");
    if (!blob_) throw EDatabaseError("Field '" + name_ + "' is not a blob field");
    Bytes bytes = ReadStream(stream);
    pending_.assign(bytes.begin(), bytes.end());
    std::fill(bytes.begin(), bytes.end(), 0);
    modified_ = true;
  }
  bool modified() const { return modified_; }
  const std::string& pending() const { return pending_; }
  void reset() {
    modified_ = false;
    std::fill(pending_.begin(), pending_.end(), '\0');
    pending_.clear();
  }

 private:
  std::string name_;
  bool blob_;
  const bool* editing_;
  bool modified_ = false;
  std::string pending_;
};

}  // namespace

struct SqliteDataSet::Impl {
  sqlite3* db = nullptr;
  std::string table;
  std::int64_t rowid = 0;
  bool editing = false;
  std::vector<std::unique_ptr<SqliteField>> fields;

  ~Impl() {
    for (auto& f : fields)
      f->reset();
    if (db) sqlite3_close(db);
  }
  [[noreturn]] void fail(const std::string& what) const {
    throw EDatabaseError(what + ": " + (db ? sqlite3_errmsg(db) : "no database"));
  }
};

SqliteDataSet::SqliteDataSet(const std::string& database, const std::string& table,
                             std::int64_t rowid)
    : impl_(std::make_unique<Impl>()) {
  impl_->table = table;
  impl_->rowid = rowid;
  if (sqlite3_open_v2(database.c_str(), &impl_->db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK)
    impl_->fail("Cannot open database \"" + database + "\"");
  sqlite3_busy_timeout(impl_->db, 5000);

  sqlite3_stmt* stmt = nullptr;
  std::string sql = "PRAGMA table_info(" + quote_identifier(table) + ")";
  if (sqlite3_prepare_v2(impl_->db, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK)
    impl_->fail("Cannot read table \"" + table + "\"");
  while (sqlite3_step(stmt) == SQLITE_ROW) {
    std::string name = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 1));
    const unsigned char* type = sqlite3_column_text(stmt, 2);
    bool blob =
        type && upper_ascii(reinterpret_cast<const char*>(type)).find("BLOB") != std::string::npos;
    impl_->fields.push_back(std::make_unique<SqliteField>(name, blob, &impl_->editing));
  }
  sqlite3_finalize(stmt);
  if (impl_->fields.empty()) throw EDatabaseError("Table \"" + table + "\" not found");

  sql = "SELECT 1 FROM " + quote_identifier(table) + " WHERE rowid = ?";
  if (sqlite3_prepare_v2(impl_->db, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK)
    impl_->fail("Cannot read table \"" + table + "\"");
  sqlite3_bind_int64(stmt, 1, rowid);
  int rc = sqlite3_step(stmt);
  sqlite3_finalize(stmt);
  if (rc != SQLITE_ROW)
    throw EDatabaseError("Record " + std::to_string(rowid) + " not found in table \"" + table +
                         "\"");
}

SqliteDataSet::~SqliteDataSet() = default;

void SqliteDataSet::Edit() {
  if (impl_->editing) return;
  for (auto& f : impl_->fields)
    f->reset();
  impl_->editing = true;
}

bool SqliteDataSet::editing() const {
  return impl_->editing;
}

TField& SqliteDataSet::FieldByName(const std::string& name) {
  for (auto& f : impl_->fields)
    if (iequals_ascii(f->FieldName(), name)) return *f;
  throw EDatabaseError("Field '" + name + "' not found");
}

void SqliteDataSet::Post() {
  if (!impl_->editing) throw EDatabaseError("Dataset not in edit or insert mode");
  std::vector<SqliteField*> changed;
  for (auto& f : impl_->fields)
    if (f->modified()) changed.push_back(f.get());
  if (!changed.empty()) {
    std::string sql = "UPDATE " + quote_identifier(impl_->table) + " SET ";
    for (std::size_t i = 0; i < changed.size(); ++i)
      sql += (i ? ", " : "") + quote_identifier(changed[i]->FieldName()) + " = ?";
    sql += " WHERE rowid = ?";
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(impl_->db, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK)
      impl_->fail("Cannot post the record");
    for (std::size_t i = 0; i < changed.size(); ++i)
      sqlite3_bind_blob64(stmt, static_cast<int>(i + 1), changed[i]->pending().data(),
                          changed[i]->pending().size(), SQLITE_TRANSIENT);
    sqlite3_bind_int64(stmt, static_cast<int>(changed.size() + 1), impl_->rowid);
    int rc = sqlite3_step(stmt);
    sqlite3_finalize(stmt);
    if (rc != SQLITE_DONE) impl_->fail("Cannot post the record");
    if (sqlite3_changes(impl_->db) != 1)
      throw EDatabaseError("Record " + std::to_string(impl_->rowid) +
                           " no longer exists in table \"" + impl_->table + "\"");
  }
  for (auto& f : impl_->fields)
    f->reset();
  impl_->editing = false;
}

}  // namespace tessarel
