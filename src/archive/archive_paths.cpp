#include "archive/archive_paths.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <vector>

#include "platform/runtime/datetime.h"
#include "platform/runtime/strings.h"
#include "tessarel/errors.h"

namespace tessarel {

namespace {

// NameStartChar and NameChar of XML 1.0 (fifth edition), without the colon: a group
// element's name has no namespace prefix.
bool name_start(char32_t c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' || (c >= 0xC0 && c <= 0xD6) ||
         (c >= 0xD8 && c <= 0xF6) || (c >= 0xF8 && c <= 0x2FF) || (c >= 0x370 && c <= 0x37D) ||
         (c >= 0x37F && c <= 0x1FFF) || (c >= 0x200C && c <= 0x200D) ||
         (c >= 0x2070 && c <= 0x218F) || (c >= 0x2C00 && c <= 0x2FEF) ||
         (c >= 0x3001 && c <= 0xD7FF) || (c >= 0xF900 && c <= 0xFDCF) ||
         (c >= 0xFDF0 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0xEFFFF);
}
bool name_char(char32_t c) {
  return name_start(c) || (c >= '0' && c <= '9') || c == '-' || c == '.' || c == 0xB7 ||
         (c >= 0x300 && c <= 0x36F) || (c >= 0x203F && c <= 0x2040);
}

std::vector<std::string> split_components(const std::string& s, char sep) {
  std::vector<std::string> parts;
  std::size_t start = 0;
  while (true) {
    std::size_t pos = s.find(sep, start);
    parts.push_back(s.substr(start, pos == std::string::npos ? std::string::npos : pos - start));
    if (pos == std::string::npos) break;
    start = pos + 1;
  }
  return parts;
}

}  // namespace

bool IsXmlName(const std::string& name) {
  std::u32string chars;
  if (!decode_utf8(name, chars) || chars.empty() || !name_start(chars[0])) return false;
  for (char32_t c : chars)
    if (!name_char(c)) return false;
  return true;
}

void CheckTipo(const std::string& tipo) {
  if (tipo.empty()) throw Exception("Tipo di documento vuoto");
  if (tipo.find('\0') != std::string::npos)
    throw Exception("Tipo di documento non valido (carattere NUL)");
  if (tipo == "." || tipo == ".." || tipo.find('/') != std::string::npos ||
      tipo.find('\\') != std::string::npos)
    throw Exception("Tipo di documento non valido: \"" + tipo +
                    "\" deve essere un solo nome di cartella");
  if (!is_utf8(tipo)) throw Exception("Tipo di documento non valido: il testo non è UTF-8");
  if (!IsXmlName(tipo))
    throw Exception("Tipo di documento non valido: \"" + tipo + "\" non è un nome di elemento XML");
}

void CheckRecordFileName(const std::string& name) {
  std::u32string chars;
  if (!decode_utf8(name, chars))
    throw Exception("Nome di file non valido (non è testo UTF-8): " + latin1_to_utf8(name));
  for (char32_t c : chars)
    // Tabs and line breaks would come back from the index as spaces.
    if (!is_xml_char(c) || c < 0x20)
      throw Exception("Nome di file non valido (contiene caratteri di controllo): " + name);
}

std::string RelativeFolder(const std::string& tipo, DateTime data) {
  CivilTime c = DecodeDateTime(data);
  char buf[32];
  std::snprintf(buf, sizeof buf, "%04d\\%.2d\\", c.year, c.month);
  return tipo + "\\" + buf;
}

std::string LinkToPath(const std::string& archive_dir, const std::string& link) {
  if (link.empty()) throw Exception("Collegamento vuoto nel record dell'indice");
  if (link.find('\0') != std::string::npos)
    throw Exception("Collegamento non valido (carattere NUL): " + link);
  if (link[0] == '\\' || link[0] == '/' || (link.size() > 1 && link[1] == ':'))
    throw Exception("Collegamento assoluto non ammesso nell'archivio: " + link);
  std::string path = archive_dir;
  if (!path.empty() && path.back() != '/') path += '/';
  auto parts = split_components(link, '\\');
  for (std::size_t i = 0; i < parts.size(); ++i) {
    const std::string& p = parts[i];
    if (p.empty() || p == "." || p == ".." || p.find('/') != std::string::npos)
      throw Exception("Collegamento che esce dall'archivio o non valido: " + link);
    path += p;
    if (i + 1 < parts.size()) path += '/';
  }
  return path;
}

namespace {

// The name the kernel gives an existing folder once every symbolic link on the way is
// resolved: a few system calls, where resolving the path a component at a time takes two per
// component. Empty when it cannot say (no such folder, no /proc).
std::string kernel_name(const std::string& folder) {
  int fd = ::open(folder.empty() ? "." : folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return {};
  char link[64];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  std::string out(PATH_MAX, '\0');
  ssize_t n = ::readlink(link, out.data(), out.size());
  ::close(fd);
  if (n <= 0 || static_cast<std::size_t>(n) >= out.size() || out[0] != '/') return {};
  out.resize(static_cast<std::size_t>(n));
  if (out.ends_with(" (deleted)")) return {};
  return out;
}

// path with its symbolic links resolved, as weakly_canonical resolves it, when the folder
// that holds it exists and its last component is not a link itself (the usual case).
std::optional<std::filesystem::path> resolved_quickly(const std::string& path) {
  std::size_t slash = path.rfind('/');
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  if (name.empty() || name == "." || name == "..") return std::nullopt;
  std::string folder = kernel_name(slash == std::string::npos ? "" : path.substr(0, slash));
  if (folder.empty()) return std::nullopt;
  struct stat st {};
  if (::lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) return std::nullopt;
  return std::filesystem::path(folder) / name;
}

}  // namespace

void CheckInsideArchive(const std::string& archive_dir, const std::string& path) {
  namespace fs = std::filesystem;
  std::error_code ec;
  fs::path root, target;
  std::string quick_root = kernel_name(archive_dir);
  std::optional<fs::path> quick_target = resolved_quickly(path);
  if (!quick_root.empty() && quick_target) {
    root = quick_root;
    target = *quick_target;
  } else {
    root = fs::weakly_canonical(fs::path(archive_dir), ec);
    if (ec) throw Exception("Impossibile accedere alla cartella: " + archive_dir);
    // weakly_canonical resolves the symbolic links of every existing component.
    target = fs::weakly_canonical(fs::path(path), ec);
    if (ec) throw Exception("Percorso non valido: " + path);
  }
  auto r = root.begin(), t = target.begin();
  for (; r != root.end(); ++r, ++t) {
    if (r->empty()) continue;
    if (t == target.end() || *r != *t)
      throw Exception("Il percorso " + path + " è fuori dalla cartella dell'archivio " +
                      archive_dir);
  }
}

}  // namespace tessarel
