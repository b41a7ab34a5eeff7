// PKCS#11 URIs (RFC 7512): which module, slot, token and objects a store means.
//
// "pkcs11:token=Firma%20Qualificata;object=Mario?module-path=/usr/lib/x.so". Path attributes
// narrow the choice; an attribute that is absent matches everything. A PIN never travels in
// a URI here: pin-value and pin-source are refused, the PIN comes from the Ui or --pin.
#pragma once

#include <optional>
#include <string>

#include "tessarel/types.h"

namespace tessarel::p11 {

struct Pkcs11Uri {
  // Token.
  std::optional<std::string> token;         // label
  std::optional<std::string> manufacturer;  // token manufacturer
  std::optional<std::string> serial;
  std::optional<std::string> model;
  // Module (CK_INFO).
  std::optional<std::string> library_manufacturer;
  std::optional<std::string> library_description;
  std::optional<std::string> library_version;  // "M" or "M.m"
  // Slot.
  std::optional<std::string> slot_manufacturer;
  std::optional<std::string> slot_description;
  std::optional<unsigned long> slot_id;
  // Objects.
  std::optional<std::string> object;  // CKA_LABEL
  std::optional<Bytes> id;            // CKA_ID
  std::optional<std::string> type;    // cert, private, public, secret-key, data
  // Query.
  std::string module_name;
  std::string module_path;

  // Throws tessarel::Exception naming what is wrong with the text.
  static Pkcs11Uri parse(const std::string& text);
  static bool is_uri(const std::string& text) { return text.rfind("pkcs11:", 0) == 0; }

  // Percent-encodes a value for a path attribute.
  static std::string encode(const std::string& value);
  static std::string encode(const Bytes& value);

  // library-version against a module's version.
  bool library_version_matches(unsigned major, unsigned minor) const;
};

// Text of a fixed-width, blank-padded PKCS#11 field.
std::string padded_field(const unsigned char* field, std::size_t size);

}  // namespace tessarel::p11
