// PKCS#11 modules: loading, the process-wide module table, errors and object attributes.
//
// A module is loaded with dlopen and initialised once per process, then kept until the
// process ends: modules own threads and token state that do not survive being unloaded, and
// the one login per token must outlive every store object that uses it.
#pragma once

#include <p11-kit/pkcs11.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/store/pkcs11_uri.h"
#include "tessarel/errors.h"
#include "tessarel/types.h"

namespace tessarel::p11 {

// A PKCS#11 function that returned something other than CKR_OK.
class Pkcs11Error : public Exception {
 public:
  Pkcs11Error(const std::string& what, CK_RV rv);
  CK_RV rv() const { return rv_; }

 private:
  CK_RV rv_;
};

// "CKR_PIN_INCORRECT" and the like; unknown codes in hexadecimal.
std::string rv_name(CK_RV rv);
// Throws Pkcs11Error("<what>: CKR_...") unless rv is CKR_OK.
void check(CK_RV rv, const std::string& what);

class Module {
 public:
  // The module at path, loaded and initialised on first use. name is how p11-kit's
  // configuration calls it (the path when it came from a URI). A module that failed is not
  // tried again for a while: the same error is raised at once.
  static std::shared_ptr<Module> load(const std::string& path, const std::string& name = "");

  const std::string& path() const { return path_; }
  const std::string& name() const { return name_; }
  CK_FUNCTION_LIST* fn() const { return fn_; }
  const CK_INFO& info() const { return info_; }
  std::string description() const;
  std::string manufacturer() const;

  std::vector<CK_SLOT_ID> slots(bool token_present) const;
  // Every slot, as the module listed them at most two seconds ago; whether a slot holds a
  // token is asked of the slot (token_info), so a card put into a reader is seen at once, a
  // reader plugged in within two seconds. The store looks at its tokens before every
  // lookup, and asking for the list is not cheap: SoftHSM2, for one, reloads its whole token
  // folder for it.
  std::vector<CK_SLOT_ID> known_slots() const;
  // nullopt when the slot has no token (or no longer exists). patient: a read that fails
  // while another process rewrites the token's state is repeated for a moment.
  std::optional<CK_TOKEN_INFO> token_info(CK_SLOT_ID slot, bool patient = true) const;
  CK_SLOT_INFO slot_info(CK_SLOT_ID slot) const;

  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;

 private:
  Module(std::string path, std::string name, CK_FUNCTION_LIST* fn);
  // Loads and initialises the module (the table's lock is held).
  static std::shared_ptr<Module> start(const std::string& path, const std::string& key,
                                       const std::string& name);
  std::string path_;
  std::string name_;
  CK_FUNCTION_LIST* fn_;
  CK_INFO info_{};
  mutable std::mutex slots_mutex_;
  mutable std::vector<CK_SLOT_ID> known_slots_;
  mutable std::optional<std::chrono::steady_clock::time_point> slots_read_;
};

struct ModuleEntry {
  std::string name;
  std::string path;
};

// Modules of p11-kit's configuration that may hold a user's keys and certificates: modules
// that only serve trust policy (the system's CA list) are left out.
std::vector<ModuleEntry> configured_modules();

// The modules a URI selects: its module-path, or its module-name in p11-kit's
// configuration, else every configured module. A module named by the URI that cannot be
// loaded raises; a configured one that cannot is reported through failures (or a warning).
struct ModuleFailure {
  ModuleEntry module;
  std::string error;
};
std::vector<std::shared_ptr<Module>> modules_for(const Pkcs11Uri& uri,
                                                 std::vector<ModuleFailure>* failures = nullptr);

// A warning about something that stays wrong (a module that does not start, a slot that
// cannot be read) is given once, not at every look: again only when the problem about the
// same thing changes, or after it went away (clear_problem) and came back.
void report_problem(const std::string& about, const std::string& warning);
void clear_problem(const std::string& about);

// True when the token and its slot and module are what the URI asks for.
bool uri_matches(const Pkcs11Uri& uri, const Module& module, const CK_SLOT_INFO& slot,
                 const CK_TOKEN_INFO& token);

// ---- objects ----

struct Attribute {
  CK_ATTRIBUTE_TYPE type;
  Bytes value;
};
Attribute attr_ulong(CK_ATTRIBUTE_TYPE type, CK_ULONG v);
Attribute attr_bool(CK_ATTRIBUTE_TYPE type, bool v);
Attribute attr_bytes(CK_ATTRIBUTE_TYPE type, const Bytes& v);
Attribute attr_text(CK_ATTRIBUTE_TYPE type, const std::string& v);

std::vector<CK_OBJECT_HANDLE> find_objects(CK_FUNCTION_LIST* fn, CK_SESSION_HANDLE session,
                                           const std::vector<Attribute>& match);
// The value of one attribute; nullopt when the object has none or keeps it secret.
std::optional<Bytes> get_attribute(CK_FUNCTION_LIST* fn, CK_SESSION_HANDLE session,
                                   CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type);
std::optional<CK_ULONG> get_ulong(CK_FUNCTION_LIST* fn, CK_SESSION_HANDLE session,
                                  CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type);
std::optional<bool> get_bool(CK_FUNCTION_LIST* fn, CK_SESSION_HANDLE session,
                             CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type);
CK_OBJECT_HANDLE create_object(CK_FUNCTION_LIST* fn, CK_SESSION_HANDLE session,
                               const std::vector<Attribute>& attributes);

}  // namespace tessarel::p11
