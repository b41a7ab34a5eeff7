#include "platform/store/token.h"

#include <chrono>
#include <map>
#include <thread>
#include <tuple>

#include "tessarel/ui.h"

namespace tessarel::p11 {

namespace {

std::mutex& pin_mutex() {
  static std::mutex m;
  return m;
}
PinSource& pin_source() {
  static PinSource s;
  return s;
}

PinDialog& pin_dialog() {
  static PinDialog d = nullptr;
  return d;
}

std::mutex& tokens_mutex() {
  static std::mutex m;
  return m;
}
using TokenKey = std::tuple<std::string, std::string, std::string, std::string, std::string>;
// Kept for the process: the login lives as long as the session, and the session as long as
// the Token.
std::map<TokenKey, std::shared_ptr<Token>>& tokens() {
  static std::map<TokenKey, std::shared_ptr<Token>> t;
  return t;
}

}  // namespace

void set_pin_source(PinSource source) {
  std::lock_guard lock(pin_mutex());
  pin_source() = std::move(source);
}

void register_pin_dialog(PinDialog dialog) {
  std::lock_guard lock(pin_mutex());
  pin_dialog() = dialog;
}

TokenIdentity TokenIdentity::of(const CK_TOKEN_INFO& info) {
  return {padded_field(info.label, sizeof info.label),
          padded_field(info.manufacturerID, sizeof info.manufacturerID),
          padded_field(info.model, sizeof info.model),
          padded_field(info.serialNumber, sizeof info.serialNumber)};
}

Token::Token(std::shared_ptr<Module> module, CK_SLOT_ID slot, TokenIdentity identity)
    : module_(std::move(module)), slot_(slot), identity_(std::move(identity)) {}

std::shared_ptr<Token> Token::get(const std::shared_ptr<Module>& module, CK_SLOT_ID slot,
                                  const CK_TOKEN_INFO& info) {
  TokenIdentity id = TokenIdentity::of(info);
  TokenKey key{module->path(), id.label, id.manufacturer, id.model, id.serial};
  std::lock_guard lock(tokens_mutex());
  auto& t = tokens()[key];
  if (!t) t = std::make_shared<Token>(module, slot, std::move(id));
  return t;
}

bool Token::lost(CK_RV rv) {
  return rv == CKR_SESSION_HANDLE_INVALID || rv == CKR_SESSION_CLOSED || rv == CKR_DEVICE_REMOVED ||
         rv == CKR_TOKEN_NOT_PRESENT || rv == CKR_TOKEN_NOT_RECOGNIZED ||
         rv == CKR_USER_NOT_LOGGED_IN;
}

namespace {
// The token in a slot, or nullopt when none can be read there (a token that is gone may
// also answer with an error rather than "not present").
std::optional<CK_TOKEN_INFO> readable_token(const Module& module, CK_SLOT_ID slot) {
  try {
    return module.token_info(slot);
  } catch (const Pkcs11Error&) {
    return std::nullopt;
  }
}
}  // namespace

void Token::close_locked() {
  if (session_ != CK_INVALID_HANDLE) fn()->C_CloseSession(session_);
  session_ = CK_INVALID_HANDLE;
  logged_in_ = false;
}

void Token::open_locked() {
  if (session_ != CK_INVALID_HANDLE) return;
  // The slot may have changed since the token was found (readers renumbered, the card moved
  // to another reader): look for the same token again.
  std::optional<CK_TOKEN_INFO> info = readable_token(*module_, slot_);
  if (!info || !(TokenIdentity::of(*info) == identity_)) {
    info.reset();
    for (CK_SLOT_ID s : module_->known_slots()) {
      auto i = readable_token(*module_, s);
      if (i && TokenIdentity::of(*i) == identity_) {
        slot_ = s;
        info = i;
        break;
      }
    }
  }
  if (!info)
    throw Exception("The token \"" + identity_.label + "\" (serial " + identity_.serial +
                    ") is no longer present");
  writable_ = !(info->flags & CKF_WRITE_PROTECTED);
  session_flags_ = info->flags;
  CK_FLAGS flags = CKF_SERIAL_SESSION | (writable_ ? CKF_RW_SESSION : 0);
  CK_RV rv = fn()->C_OpenSession(slot_, flags, nullptr, nullptr, &session_);
  if (rv == CKR_TOKEN_WRITE_PROTECTED) {
    writable_ = false;
    rv = fn()->C_OpenSession(slot_, CKF_SERIAL_SESSION, nullptr, nullptr, &session_);
  }
  if (rv != CKR_OK) {
    session_ = CK_INVALID_HANDLE;
    if (lost(rv))
      throw Exception("The token \"" + identity_.label + "\" (serial " + identity_.serial +
                      ") is no longer present");
    check(rv, "Cannot open a session with the token \"" + identity_.label + "\"");
  }
  ++epoch_;
  // Another part of the process may have logged in to this token already.
  CK_SESSION_INFO si{};
  logged_in_ = fn()->C_GetSessionInfo(session_, &si) == CKR_OK &&
               (si.state == CKS_RO_USER_FUNCTIONS || si.state == CKS_RW_USER_FUNCTIONS);
}

void Token::check_present_locked() {
  auto info = readable_token(*module_, slot_);
  if (!info || !(TokenIdentity::of(*info) == identity_) || !(info->flags & CKF_TOKEN_INITIALIZED)) {
    close_locked();
    throw Exception("The token \"" + identity_.label + "\" (serial " + identity_.serial +
                    ") is no longer present");
  }
}

CK_FLAGS Token::flags_locked() {
  auto info = module_->token_info(slot_);
  return info ? info->flags : 0;
}

std::optional<std::string> Token::ask_pin() const {
  PinSource source;
  PinDialog dialog;
  {
    std::lock_guard lock(pin_mutex());
    source = pin_source();
    dialog = pin_dialog();
  }
  if (source) return source(identity_.label);
  return dialog ? dialog(identity_.label) : std::nullopt;
}

void Token::login_failed(CK_RV rv) {
  const std::string token = "the token \"" + identity_.label + "\"";
  if (rv == CKR_PIN_INCORRECT) {
    CK_FLAGS f = flags_locked();
    if (f & CKF_USER_PIN_LOCKED)
      throw Exception("Wrong PIN for " + token + "; the PIN is now locked");
    if (f & CKF_USER_PIN_FINAL_TRY)
      throw Exception("Wrong PIN for " + token + "; one more wrong PIN locks it");
    if (f & CKF_USER_PIN_COUNT_LOW)
      throw Exception("Wrong PIN for " + token + "; few tries are left before it locks");
    throw Exception("Wrong PIN for " + token);
  }
  if (rv == CKR_PIN_LOCKED)
    throw Exception("The PIN of " + token +
                    " is locked; it must be unblocked with the security officer's PIN");
  if (rv == CKR_PIN_EXPIRED)
    throw Exception("The PIN of " + token + " has expired; change it with the token's own tools");
  if (rv == CKR_PIN_LEN_RANGE || rv == CKR_PIN_INVALID)
    throw Exception("That is not a valid PIN for " + token + " (" + rv_name(rv) + ")");
  if (lost(rv))
    throw Exception("The token \"" + identity_.label + "\" (serial " + identity_.serial +
                    ") is no longer present");
  throw Pkcs11Error("Cannot log in to " + token, rv);
}

void Token::login_locked() {
  // Asked before every signature: a token that needs no login is not asked again.
  if (logged_in_ || !(session_flags_ & CKF_LOGIN_REQUIRED)) return;
  // Read now: the PIN's state (tries left, locked) may have changed since the session opened.
  auto info = module_->token_info(slot_);
  if (!info)
    throw Exception("The token \"" + identity_.label + "\" (serial " + identity_.serial +
                    ") is no longer present");
  CK_FLAGS f = info->flags;
  if (!(f & CKF_LOGIN_REQUIRED)) return;
  const std::string token = "the token \"" + identity_.label + "\"";
  if (f & CKF_USER_PIN_LOCKED)
    throw Exception("The PIN of " + token +
                    " is locked; it must be unblocked with the security officer's PIN");
  if (!(f & CKF_USER_PIN_INITIALIZED)) throw Exception(token + " has no user PIN yet");
  CK_RV rv;
  if (f & CKF_PROTECTED_AUTHENTICATION_PATH) {
    // The PIN is typed on the reader's own keypad and never passes through this process.
    currentUi().progress_text("Enter the PIN of " + token + " on the reader's keypad");
    rv = fn()->C_Login(session_, CKU_USER, nullptr, 0);
  } else {
    std::optional<std::string> pin = ask_pin();
    if (!pin) throw LoginCancelled(identity_.label);
    for (int attempt = 1;; ++attempt) {
      rv = fn()->C_Login(session_, CKU_USER, reinterpret_cast<CK_UTF8CHAR*>(pin->data()),
                         static_cast<CK_ULONG>(pin->size()));
      // A token whose state another process is rewriting (SoftHSM2 does at every login) can
      // fail without having looked at the PIN; a wrong PIN is never tried again.
      if (rv != CKR_GENERAL_ERROR || attempt == 3) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(10 * attempt));
    }
    wipe(*pin);
  }
  if (rv != CKR_OK && rv != CKR_USER_ALREADY_LOGGED_IN) login_failed(rv);
  logged_in_ = true;
}

void Token::authenticate_again_locked(CK_SESSION_HANDLE session) {
  CK_RV rv;
  if (session_flags_ & CKF_PROTECTED_AUTHENTICATION_PATH) {
    currentUi().progress_text("Enter the PIN of the token \"" + identity_.label +
                              "\" on the reader's keypad");
    rv = fn()->C_Login(session, CKU_CONTEXT_SPECIFIC, nullptr, 0);
  } else {
    std::optional<std::string> pin = ask_pin();
    if (!pin) {
      // The signing operation was started and cannot be abandoned otherwise.
      close_locked();
      throw LoginCancelled(identity_.label);
    }
    rv = fn()->C_Login(session, CKU_CONTEXT_SPECIFIC, reinterpret_cast<CK_UTF8CHAR*>(pin->data()),
                       static_cast<CK_ULONG>(pin->size()));
    wipe(*pin);
  }
  if (rv != CKR_OK) {
    close_locked();
    login_failed(rv);
  }
}

}  // namespace tessarel::p11
