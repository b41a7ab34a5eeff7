#include "platform/store/pkcs11_module.h"

#include <dlfcn.h>
#include <link.h>
#include <p11-kit/p11-kit.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>

#include "platform/runtime/warnings.h"

namespace tessarel::p11 {

Pkcs11Error::Pkcs11Error(const std::string& what, CK_RV rv)
    : Exception(what + ": " + rv_name(rv)), rv_(rv) {}

std::string rv_name(CK_RV rv) {
  static const std::map<CK_RV, const char*> names = {
      {CKR_OK, "CKR_OK"},
      {CKR_CANCEL, "CKR_CANCEL"},
      {CKR_HOST_MEMORY, "CKR_HOST_MEMORY"},
      {CKR_SLOT_ID_INVALID, "CKR_SLOT_ID_INVALID"},
      {CKR_GENERAL_ERROR, "CKR_GENERAL_ERROR"},
      {CKR_FUNCTION_FAILED, "CKR_FUNCTION_FAILED"},
      {CKR_ARGUMENTS_BAD, "CKR_ARGUMENTS_BAD"},
      {CKR_CANT_LOCK, "CKR_CANT_LOCK"},
      {CKR_ATTRIBUTE_READ_ONLY, "CKR_ATTRIBUTE_READ_ONLY"},
      {CKR_ATTRIBUTE_SENSITIVE, "CKR_ATTRIBUTE_SENSITIVE"},
      {CKR_ATTRIBUTE_TYPE_INVALID, "CKR_ATTRIBUTE_TYPE_INVALID"},
      {CKR_ATTRIBUTE_VALUE_INVALID, "CKR_ATTRIBUTE_VALUE_INVALID"},
      {CKR_DATA_INVALID, "CKR_DATA_INVALID"},
      {CKR_DATA_LEN_RANGE, "CKR_DATA_LEN_RANGE"},
      {CKR_DEVICE_ERROR, "CKR_DEVICE_ERROR"},
      {CKR_DEVICE_MEMORY, "CKR_DEVICE_MEMORY"},
      {CKR_DEVICE_REMOVED, "CKR_DEVICE_REMOVED"},
      {CKR_FUNCTION_CANCELED, "CKR_FUNCTION_CANCELED"},
      {CKR_FUNCTION_NOT_SUPPORTED, "CKR_FUNCTION_NOT_SUPPORTED"},
      {CKR_KEY_HANDLE_INVALID, "CKR_KEY_HANDLE_INVALID"},
      {CKR_KEY_SIZE_RANGE, "CKR_KEY_SIZE_RANGE"},
      {CKR_KEY_TYPE_INCONSISTENT, "CKR_KEY_TYPE_INCONSISTENT"},
      {CKR_KEY_FUNCTION_NOT_PERMITTED, "CKR_KEY_FUNCTION_NOT_PERMITTED"},
      {CKR_MECHANISM_INVALID, "CKR_MECHANISM_INVALID"},
      {CKR_MECHANISM_PARAM_INVALID, "CKR_MECHANISM_PARAM_INVALID"},
      {CKR_OBJECT_HANDLE_INVALID, "CKR_OBJECT_HANDLE_INVALID"},
      {CKR_OPERATION_ACTIVE, "CKR_OPERATION_ACTIVE"},
      {CKR_OPERATION_NOT_INITIALIZED, "CKR_OPERATION_NOT_INITIALIZED"},
      {CKR_PIN_INCORRECT, "CKR_PIN_INCORRECT"},
      {CKR_PIN_INVALID, "CKR_PIN_INVALID"},
      {CKR_PIN_LEN_RANGE, "CKR_PIN_LEN_RANGE"},
      {CKR_PIN_EXPIRED, "CKR_PIN_EXPIRED"},
      {CKR_PIN_LOCKED, "CKR_PIN_LOCKED"},
      {CKR_SESSION_CLOSED, "CKR_SESSION_CLOSED"},
      {CKR_SESSION_COUNT, "CKR_SESSION_COUNT"},
      {CKR_SESSION_HANDLE_INVALID, "CKR_SESSION_HANDLE_INVALID"},
      {CKR_SESSION_READ_ONLY, "CKR_SESSION_READ_ONLY"},
      {CKR_SESSION_EXISTS, "CKR_SESSION_EXISTS"},
      {CKR_SIGNATURE_INVALID, "CKR_SIGNATURE_INVALID"},
      {CKR_TEMPLATE_INCOMPLETE, "CKR_TEMPLATE_INCOMPLETE"},
      {CKR_TEMPLATE_INCONSISTENT, "CKR_TEMPLATE_INCONSISTENT"},
      {CKR_TOKEN_NOT_PRESENT, "CKR_TOKEN_NOT_PRESENT"},
      {CKR_TOKEN_NOT_RECOGNIZED, "CKR_TOKEN_NOT_RECOGNIZED"},
      {CKR_TOKEN_WRITE_PROTECTED, "CKR_TOKEN_WRITE_PROTECTED"},
      {CKR_USER_ALREADY_LOGGED_IN, "CKR_USER_ALREADY_LOGGED_IN"},
      {CKR_USER_NOT_LOGGED_IN, "CKR_USER_NOT_LOGGED_IN"},
      {CKR_USER_PIN_NOT_INITIALIZED, "CKR_USER_PIN_NOT_INITIALIZED"},
      {CKR_USER_TYPE_INVALID, "CKR_USER_TYPE_INVALID"},
      {CKR_BUFFER_TOO_SMALL, "CKR_BUFFER_TOO_SMALL"},
      {CKR_CRYPTOKI_NOT_INITIALIZED, "CKR_CRYPTOKI_NOT_INITIALIZED"},
      {CKR_CRYPTOKI_ALREADY_INITIALIZED, "CKR_CRYPTOKI_ALREADY_INITIALIZED"},
  };
  auto it = names.find(rv);
  if (it != names.end()) return it->second;
  char buf[32];
  std::snprintf(buf, sizeof buf, "CKR 0x%08lX", static_cast<unsigned long>(rv));
  return buf;
}

void check(CK_RV rv, const std::string& what) {
  if (rv != CKR_OK) throw Pkcs11Error(what, rv);
}

// ---- modules ----

namespace {
std::mutex& modules_mutex() {
  static std::mutex m;
  return m;
}
std::map<std::string, std::shared_ptr<Module>>& loaded_modules() {
  static std::map<std::string, std::shared_ptr<Module>> m;
  return m;
}

// Modules that did not load or start, with the error and when it happened. Starting a
// broken module again at every look costs time and says nothing new; after a while it is
// tried again, in case its configuration was put right.
struct LoadFailure {
  std::string error;
  std::chrono::steady_clock::time_point when;
};
constexpr std::chrono::seconds kRetryFailedModuleAfter{10};
std::map<std::string, LoadFailure>& failed_modules() {
  static std::map<std::string, LoadFailure> m;
  return m;
}

std::mutex& problems_mutex() {
  static std::mutex m;
  return m;
}
std::map<std::string, std::string>& reported_problems() {
  static std::map<std::string, std::string> m;
  return m;
}
}  // namespace

void report_problem(const std::string& about, const std::string& warning) {
  {
    std::lock_guard lock(problems_mutex());
    auto [it, added] = reported_problems().emplace(about, warning);
    if (!added) {
      if (it->second == warning) return;
      it->second = warning;
    }
  }
  warn(warning);
}

void clear_problem(const std::string& about) {
  std::lock_guard lock(problems_mutex());
  reported_problems().erase(about);
}

namespace {
bool same_file(const char* a, const char* b) {
  struct stat sa {
  }, sb{};
  return a && b && ::stat(a, &sa) == 0 && ::stat(b, &sb) == 0 && sa.st_dev == sb.st_dev &&
         sa.st_ino == sb.st_ino;
}
}  // namespace

Module::Module(std::string path, std::string name, CK_FUNCTION_LIST* fn)
    : path_(std::move(path)), name_(std::move(name)), fn_(fn) {}

std::shared_ptr<Module> Module::load(const std::string& path, const std::string& name) {
  char* real = ::realpath(path.c_str(), nullptr);
  std::string key = real ? real : path;
  std::free(real);
  std::lock_guard lock(modules_mutex());
  auto& table = loaded_modules();
  if (auto it = table.find(key); it != table.end()) return it->second;
  auto now = std::chrono::steady_clock::now();
  auto& failed = failed_modules();
  if (auto it = failed.find(key); it != failed.end()) {
    if (now - it->second.when < kRetryFailedModuleAfter) throw Exception(it->second.error);
    failed.erase(it);
  }
  try {
    auto module = start(path, key, name);
    table.emplace(key, module);
    return module;
  } catch (const Exception& e) {
    failed[key] = {e.what(), now};
    throw;
  }
}

std::shared_ptr<Module> Module::start(const std::string& path, const std::string& key,
                                      const std::string& name) {
  // Never closed: see the header.
  void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    const char* e = ::dlerror();
    throw Exception("Cannot load the PKCS#11 module \"" + path +
                    "\": " + (e ? e : "unknown error"));
  }
  // dlsym also searches the libraries the file depends on: a library that merely links
  // p11-kit would hand out p11-kit's proxy. The entry point must be the file's own.
  void* entry = ::dlsym(handle, "C_GetFunctionList");
  Dl_info where{};
  link_map* map = nullptr;
  bool own = entry && ::dladdr(entry, &where) && ::dlinfo(handle, RTLD_DI_LINKMAP, &map) == 0 &&
             map && same_file(where.dli_fname, map->l_name);
  if (!own)
    throw Exception("\"" + path + "\" is not a PKCS#11 module: it has no C_GetFunctionList");
  auto get_list = reinterpret_cast<CK_C_GetFunctionList>(entry);
  CK_FUNCTION_LIST* fn = nullptr;
  CK_RV rv = get_list(&fn);
  if (rv != CKR_OK || !fn)
    throw Exception("The PKCS#11 module \"" + path + "\" gives no function list: " + rv_name(rv));
  if (fn->version.major != 2)
    throw Exception("The PKCS#11 module \"" + path + "\" speaks version " +
                    std::to_string(fn->version.major) + "." + std::to_string(fn->version.minor) +
                    ", not 2.x");

  // The module may be called from several threads; it uses the system's locks.
  CK_C_INITIALIZE_ARGS args{};
  args.flags = CKF_OS_LOCKING_OK;
  rv = fn->C_Initialize(&args);
  if (rv == CKR_CANT_LOCK) rv = fn->C_Initialize(nullptr);
  // Someone else in the process (another library) initialised it already: share it.
  if (rv != CKR_OK && rv != CKR_CRYPTOKI_ALREADY_INITIALIZED)
    throw Exception("The PKCS#11 module \"" + path + "\" does not start: " + rv_name(rv));

  std::shared_ptr<Module> module(new Module(key, name.empty() ? path : name, fn));
  check(fn->C_GetInfo(&module->info_), "C_GetInfo of " + path);
  return module;
}

std::string Module::description() const {
  return padded_field(info_.libraryDescription, sizeof info_.libraryDescription);
}
std::string Module::manufacturer() const {
  return padded_field(info_.manufacturerID, sizeof info_.manufacturerID);
}

std::vector<CK_SLOT_ID> Module::slots(bool token_present) const {
  // The list may grow between the two calls (a reader plugged in): ask again.
  for (int attempt = 0; attempt < 5; ++attempt) {
    CK_ULONG n = 0;
    check(fn_->C_GetSlotList(token_present ? CK_TRUE : CK_FALSE, nullptr, &n),
          "C_GetSlotList of " + path_);
    std::vector<CK_SLOT_ID> ids(n);
    CK_RV rv = fn_->C_GetSlotList(token_present ? CK_TRUE : CK_FALSE, ids.data(), &n);
    if (rv == CKR_BUFFER_TOO_SMALL) continue;
    check(rv, "C_GetSlotList of " + path_);
    ids.resize(n);
    return ids;
  }
  throw Exception("The slot list of the PKCS#11 module \"" + path_ + "\" keeps changing");
}

std::vector<CK_SLOT_ID> Module::known_slots() const {
  constexpr std::chrono::seconds kSlotListLifetime{2};
  std::lock_guard lock(slots_mutex_);
  auto now = std::chrono::steady_clock::now();
  if (!slots_read_ || now - *slots_read_ >= kSlotListLifetime) {
    known_slots_ = slots(false);
    slots_read_ = now;
  }
  return known_slots_;
}

std::optional<CK_TOKEN_INFO> Module::token_info(CK_SLOT_ID slot, bool patient) const {
  CK_TOKEN_INFO info{};
  CK_RV rv = fn_->C_GetTokenInfo(slot, &info);
  // A token shared with other processes may fail a read while one of them rewrites its
  // state (SoftHSM2's file store does, on every login); the question is harmless to repeat.
  for (int retry = 0; patient && rv == CKR_GENERAL_ERROR && retry < 20; ++retry) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    rv = fn_->C_GetTokenInfo(slot, &info);
  }
  if (rv == CKR_TOKEN_NOT_PRESENT || rv == CKR_SLOT_ID_INVALID || rv == CKR_DEVICE_REMOVED ||
      rv == CKR_TOKEN_NOT_RECOGNIZED)
    return std::nullopt;
  check(rv, "C_GetTokenInfo of " + path_);
  return info;
}

CK_SLOT_INFO Module::slot_info(CK_SLOT_ID slot) const {
  CK_SLOT_INFO info{};
  check(fn_->C_GetSlotInfo(slot, &info), "C_GetSlotInfo of " + path_);
  return info;
}

// p11-kit's list of the configured modules, kept for the life of the process. A global
// with linkage, so that the store is neither optimised away nor taken for a leak.
CK_FUNCTION_LIST** kept_module_list = nullptr;

std::vector<ModuleEntry> configured_modules() {
  // Loaded once; p11-kit's list is kept so that the modules stay mapped for the process.
  static std::once_flag once;
  static std::vector<ModuleEntry> entries;
  std::call_once(once, [] {
    CK_FUNCTION_LIST** list = p11_kit_modules_load(nullptr, P11_KIT_MODULE_UNMANAGED);
    kept_module_list = list;
    if (!list) {
      const char* m = p11_kit_message();
      warn(std::string("PKCS#11: p11-kit lists no modules") + (m ? std::string(": ") + m : ""));
      return;
    }
    for (CK_FUNCTION_LIST** m = list; *m; ++m) {
      char* name = p11_kit_module_get_name(*m);
      char* file = p11_kit_module_get_filename(*m);
      char* trust = p11_kit_config_option(*m, "trust-policy");
      bool trust_only = trust && std::strcmp(trust, "yes") == 0;
      if (file && !trust_only) entries.push_back({name ? name : file, file});
      std::free(name);
      std::free(file);
      std::free(trust);
    }
  });
  return entries;
}

std::vector<std::shared_ptr<Module>> modules_for(const Pkcs11Uri& uri,
                                                 std::vector<ModuleFailure>* failures) {
  if (!uri.module_path.empty()) return {Module::load(uri.module_path)};
  std::vector<std::shared_ptr<Module>> out;
  bool named = false;
  for (const auto& entry : configured_modules()) {
    if (!uri.module_name.empty()) {
      // module-name is the configuration's name, or the library's file name.
      std::string base = entry.path.substr(entry.path.rfind('/') + 1);
      if (entry.name != uri.module_name && base != uri.module_name &&
          base != uri.module_name + ".so")
        continue;
      named = true;
      out.push_back(Module::load(entry.path, entry.name));
      continue;
    }
    try {
      out.push_back(Module::load(entry.path, entry.name));
      if (!failures) clear_problem("module " + entry.path);
    } catch (const Exception& e) {
      if (failures)
        failures->push_back({entry, e.what()});
      else
        report_problem("module " + entry.path,
                       std::string("PKCS#11: skipping module ") + entry.name + ": " + e.what());
    }
  }
  if (!uri.module_name.empty() && !named)
    throw Exception("No PKCS#11 module named \"" + uri.module_name +
                    "\" in p11-kit's configuration");
  return out;
}

bool uri_matches(const Pkcs11Uri& uri, const Module& module, const CK_SLOT_INFO& slot,
                 const CK_TOKEN_INFO& token) {
  auto eq = [](const std::optional<std::string>& want, const unsigned char* field,
               std::size_t size) { return !want || *want == padded_field(field, size); };
  const CK_INFO& mi = module.info();
  return eq(uri.token, token.label, sizeof token.label) &&
         eq(uri.manufacturer, token.manufacturerID, sizeof token.manufacturerID) &&
         eq(uri.serial, token.serialNumber, sizeof token.serialNumber) &&
         eq(uri.model, token.model, sizeof token.model) &&
         eq(uri.library_manufacturer, mi.manufacturerID, sizeof mi.manufacturerID) &&
         eq(uri.library_description, mi.libraryDescription, sizeof mi.libraryDescription) &&
         uri.library_version_matches(mi.libraryVersion.major, mi.libraryVersion.minor) &&
         eq(uri.slot_manufacturer, slot.manufacturerID, sizeof slot.manufacturerID) &&
         eq(uri.slot_description, slot.slotDescription, sizeof slot.slotDescription);
}

// ---- objects ----

Attribute attr_ulong(CK_ATTRIBUTE_TYPE type, CK_ULONG v) {
  Bytes b(sizeof v);
  std::memcpy(b.data(), &v, sizeof v);
  return {type, b};
}
Attribute attr_bool(CK_ATTRIBUTE_TYPE type, bool v) {
  return {type, Bytes{static_cast<std::uint8_t>(v ? CK_TRUE : CK_FALSE)}};
}
Attribute attr_bytes(CK_ATTRIBUTE_TYPE type, const Bytes& v) {
  return {type, v};
}
Attribute attr_text(CK_ATTRIBUTE_TYPE type, const std::string& v) {
  return {type, Bytes(v.begin(), v.end())};
}

namespace {
std::vector<CK_ATTRIBUTE> raw_template(const std::vector<Attribute>& attrs) {
  std::vector<CK_ATTRIBUTE> t;
  for (const auto& a : attrs)
    t.push_back(
        {a.type, const_cast<std::uint8_t*>(a.value.data()), static_cast<CK_ULONG>(a.value.size())});
  return t;
}
}  // namespace

std::vector<CK_OBJECT_HANDLE> find_objects(CK_FUNCTION_LIST* fn, CK_SESSION_HANDLE session,
                                           const std::vector<Attribute>& match) {
  auto t = raw_template(match);
  check(fn->C_FindObjectsInit(session, t.data(), static_cast<CK_ULONG>(t.size())),
        "C_FindObjectsInit");
  std::vector<CK_OBJECT_HANDLE> out;
  CK_RV rv = CKR_OK;
  while (true) {
    CK_OBJECT_HANDLE batch[64];
    CK_ULONG n = 0;
    rv = fn->C_FindObjects(session, batch, 64, &n);
    if (rv != CKR_OK || n == 0) break;
    out.insert(out.end(), batch, batch + n);
  }
  CK_RV final_rv = fn->C_FindObjectsFinal(session);
  check(rv, "C_FindObjects");
  check(final_rv, "C_FindObjectsFinal");
  return out;
}

std::optional<Bytes> get_attribute(CK_FUNCTION_LIST* fn, CK_SESSION_HANDLE session,
                                   CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) {
  CK_ATTRIBUTE a{type, nullptr, 0};
  CK_RV rv = fn->C_GetAttributeValue(session, object, &a, 1);
  if (rv == CKR_ATTRIBUTE_SENSITIVE || rv == CKR_ATTRIBUTE_TYPE_INVALID) return std::nullopt;
  check(rv, "C_GetAttributeValue");
  if (a.ulValueLen == CK_UNAVAILABLE_INFORMATION) return std::nullopt;
  Bytes value(a.ulValueLen);
  a.pValue = value.data();
  rv = fn->C_GetAttributeValue(session, object, &a, 1);
  if (rv == CKR_ATTRIBUTE_SENSITIVE || rv == CKR_ATTRIBUTE_TYPE_INVALID) return std::nullopt;
  check(rv, "C_GetAttributeValue");
  value.resize(a.ulValueLen);
  return value;
}

std::optional<CK_ULONG> get_ulong(CK_FUNCTION_LIST* fn, CK_SESSION_HANDLE session,
                                  CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) {
  auto v = get_attribute(fn, session, object, type);
  if (!v || v->size() != sizeof(CK_ULONG)) return std::nullopt;
  CK_ULONG out;
  std::memcpy(&out, v->data(), sizeof out);
  return out;
}

std::optional<bool> get_bool(CK_FUNCTION_LIST* fn, CK_SESSION_HANDLE session,
                             CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) {
  auto v = get_attribute(fn, session, object, type);
  if (!v || v->size() != 1) return std::nullopt;
  return (*v)[0] != CK_FALSE;
}

CK_OBJECT_HANDLE create_object(CK_FUNCTION_LIST* fn, CK_SESSION_HANDLE session,
                               const std::vector<Attribute>& attributes) {
  auto t = raw_template(attributes);
  CK_OBJECT_HANDLE h = CK_INVALID_HANDLE;
  check(fn->C_CreateObject(session, t.data(), static_cast<CK_ULONG>(t.size()), &h),
        "C_CreateObject");
  return h;
}

}  // namespace tessarel::p11
