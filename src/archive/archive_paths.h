// Paths inside the archive. Records store links relative to the archive folder with
// backslash separators (so an index is the same file on every system); on disk they become
// '/' paths. Nothing a record says may lead outside the archive folder.
#pragma once

#include <string>

#include "tessarel/types.h"

namespace tessarel {

// Checks a document type: it names both a folder and the group element of the index, so it
// must be one plain folder name and a valid XML element name. Raises tessarel::Exception
// saying what is wrong otherwise (empty, "..", separators, NUL, not an XML name).
void CheckTipo(const std::string& tipo);

// True when name is well-formed UTF-8 and an XML 1.0 Name without a colon.
bool IsXmlName(const std::string& name);

// Checks a file name that a record will carry: well-formed UTF-8 without control
// characters, so that the index stays a document every XML parser reads back the same.
void CheckRecordFileName(const std::string& name);

// The relative folder of a record: Tipo\YYYY\MM\ (backslashes, trailing one included).
std::string RelativeFolder(const std::string& tipo, DateTime data);

// Backslash link to a '/' path below archive_dir, after checking that it is relative, has
// no empty, "." or ".." component and no NUL. Raises tessarel::Exception otherwise.
std::string LinkToPath(const std::string& archive_dir, const std::string& link);

// Raises tessarel::Exception unless path, once its existing folders' symbolic links are
// resolved, lies inside archive_dir (itself resolved). Missing trailing components are
// allowed (a file about to be created).
void CheckInsideArchive(const std::string& archive_dir, const std::string& path);

}  // namespace tessarel
