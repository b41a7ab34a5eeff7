// The record-and-field interface through which the library writes into a host database.
#ifndef TESSAREL_DATASET_H
#define TESSAREL_DATASET_H

#include <cstdint>
#include <istream>
#include <memory>
#include <string>

#include "tessarel/export.h"

namespace tessarel {

class TESSAREL_API TField {
 public:
  virtual ~TField();
  virtual const std::string& FieldName() const = 0;
  virtual bool IsBlob() const = 0;
};

class TESSAREL_API TBlobField : public TField {
 public:
  // Replaces the field's content with everything the stream yields from its position.
  virtual void LoadFromStream(std::istream& stream) = 0;
};

class TESSAREL_API TDataSet {
 public:
  virtual ~TDataSet();
  // Puts the current record into edit mode.
  virtual void Edit() = 0;
  // The field of that name; EDatabaseError naming the field when there is none.
  virtual TField& FieldByName(const std::string& name) = 0;
  // Writes the edited record; EDatabaseError on failure.
  virtual void Post() = 0;
};

// A TDataSet over one row of an SQLite table. Columns declared BLOB are blob fields.
class TESSAREL_API SqliteDataSet : public TDataSet {
 public:
  // Opens the database file and positions on the row with that rowid (EDatabaseError when
  // the table or the row does not exist).
  SqliteDataSet(const std::string& database, const std::string& table, std::int64_t rowid);
  ~SqliteDataSet() override;
  SqliteDataSet(const SqliteDataSet&) = delete;
  SqliteDataSet& operator=(const SqliteDataSet&) = delete;

  void Edit() override;
  TField& FieldByName(const std::string& name) override;
  void Post() override;
  // Whether the record is in edit mode (between Edit and Post).
  bool editing() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tessarel

#endif
