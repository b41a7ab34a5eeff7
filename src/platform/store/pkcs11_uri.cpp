#include "platform/store/pkcs11_uri.h"

#include <cstdlib>

#include "tessarel/errors.h"

namespace tessarel::p11 {

namespace {

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string decode(const std::string& text, const std::string& uri) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out.push_back(text[i]);
      continue;
    }
    int hi = i + 2 < text.size() ? hex_value(text[i + 1]) : -1;
    int lo = i + 2 < text.size() ? hex_value(text[i + 2]) : -1;
    if (hi < 0 || lo < 0) throw Exception("Malformed percent-encoding in the PKCS#11 URI " + uri);
    out.push_back(static_cast<char>(hi * 16 + lo));
    i += 2;
  }
  return out;
}

template <class T>
void set_once(std::optional<T>& field, T value, const std::string& name, const std::string& uri) {
  if (field) throw Exception("The attribute " + name + " appears twice in the PKCS#11 URI " + uri);
  field = std::move(value);
}

// Splits "a=b;c=d" on sep; every part must carry a name.
template <class F>
void for_each_attribute(const std::string& text, char sep, const std::string& uri, F&& f) {
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find(sep, start);
    if (end == std::string::npos) end = text.size();
    std::string part = text.substr(start, end - start);
    if (!part.empty()) {
      std::size_t eq = part.find('=');
      if (eq == std::string::npos || eq == 0)
        throw Exception("Malformed attribute \"" + part + "\" in the PKCS#11 URI " + uri);
      f(part.substr(0, eq), decode(part.substr(eq + 1), uri));
    }
    start = end + 1;
  }
}

}  // namespace

std::string padded_field(const unsigned char* field, std::size_t size) {
  std::string s(reinterpret_cast<const char*>(field), size);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\0'))
    s.pop_back();
  return s;
}

Pkcs11Uri Pkcs11Uri::parse(const std::string& text) {
  if (!is_uri(text)) throw Exception("Not a PKCS#11 URI: " + text);
  Pkcs11Uri u;
  std::string rest = text.substr(7);
  std::size_t q = rest.find('?');
  std::string path = rest.substr(0, q);
  std::string query = q == std::string::npos ? "" : rest.substr(q + 1);

  // The module belongs in the query, but it is often written among the path attributes
  // (pkcs11:token=X;module-path=/...): both places name the same module.
  std::optional<std::string> module_name, module_path;
  for_each_attribute(path, ';', text, [&](const std::string& name, std::string value) {
    if (name == "module-name")
      set_once(module_name, std::move(value), name, text);
    else if (name == "module-path")
      set_once(module_path, std::move(value), name, text);
    else if (name == "token")
      set_once(u.token, std::move(value), name, text);
    else if (name == "manufacturer")
      set_once(u.manufacturer, std::move(value), name, text);
    else if (name == "serial")
      set_once(u.serial, std::move(value), name, text);
    else if (name == "model")
      set_once(u.model, std::move(value), name, text);
    else if (name == "library-manufacturer")
      set_once(u.library_manufacturer, std::move(value), name, text);
    else if (name == "library-description")
      set_once(u.library_description, std::move(value), name, text);
    else if (name == "library-version")
      set_once(u.library_version, std::move(value), name, text);
    else if (name == "slot-manufacturer")
      set_once(u.slot_manufacturer, std::move(value), name, text);
    else if (name == "slot-description")
      set_once(u.slot_description, std::move(value), name, text);
    else if (name == "object")
      set_once(u.object, std::move(value), name, text);
    else if (name == "id")
      set_once(u.id, Bytes(value.begin(), value.end()), name, text);
    else if (name == "slot-id") {
      char* end = nullptr;
      unsigned long id = std::strtoul(value.c_str(), &end, 10);
      if (value.empty() || *end || value[0] == '-')
        throw Exception("slot-id in the PKCS#11 URI " + text + " is not a number");
      set_once(u.slot_id, id, name, text);
    } else if (name == "type") {
      if (value != "cert" && value != "private" && value != "public" && value != "secret-key" &&
          value != "data")
        throw Exception("Unknown object type \"" + value + "\" in the PKCS#11 URI " + text);
      set_once(u.type, std::move(value), name, text);
    } else if (name.rfind("x-", 0) != 0) {
      // Vendor attributes (x-...) may be ignored; anything else would silently widen the
      // choice, so it is refused.
      throw Exception("Unknown attribute \"" + name + "\" in the PKCS#11 URI " + text);
    }
  });

  for_each_attribute(query, '&', text, [&](const std::string& name, std::string value) {
    if (name == "module-name")
      set_once(module_name, std::move(value), name, text);
    else if (name == "module-path")
      set_once(module_path, std::move(value), name, text);
    else if (name == "pin-value" || name == "pin-source")
      throw Exception("A PIN in the PKCS#11 URI is not accepted (" + name +
                      "): give it with --pin or enter it when asked");
    // Other query attributes are hints for other consumers.
  });
  u.module_name = module_name.value_or("");
  u.module_path = module_path.value_or("");
  if (!u.module_path.empty() && u.module_path[0] != '/')
    throw Exception("module-path in the PKCS#11 URI must be an absolute path: " + u.module_path);
  return u;
}

std::string Pkcs11Uri::encode(const std::string& value) {
  static const char* hex = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : value) {
    bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                 c == '-' || c == '.' || c == '_' || c == '~' || c == ':' || c == '[' || c == ']' ||
                 c == '@' || c == '!' || c == '$' || c == '\'' || c == '(' || c == ')' ||
                 c == '*' || c == '+' || c == ',' || c == '=';
    if (plain) {
      out.push_back(static_cast<char>(c));
    } else {
      out.push_back('%');
      out.push_back(hex[c >> 4]);
      out.push_back(hex[c & 15]);
    }
  }
  return out;
}

std::string Pkcs11Uri::encode(const Bytes& value) {
  static const char* hex = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : value) {
    out.push_back('%');
    out.push_back(hex[c >> 4]);
    out.push_back(hex[c & 15]);
  }
  return out;
}

bool Pkcs11Uri::library_version_matches(unsigned major, unsigned minor) const {
  if (!library_version) return true;
  const std::string& v = *library_version;
  std::size_t dot = v.find('.');
  std::string want_major = v.substr(0, dot);
  std::string want_minor = dot == std::string::npos ? "" : v.substr(dot + 1);
  if (want_major != std::to_string(major)) return false;
  return want_minor.empty() || std::strtoul(want_minor.c_str(), nullptr, 10) == minor;
}

}  // namespace tessarel::p11
