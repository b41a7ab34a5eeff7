// One token (smart card, USB key, HSM partition) and the process's one session with it.
//
// Every store object and every signing key that uses a token shares its Token, so the
// process logs in once. All work on the session is serialised by the token's mutex: a
// PKCS#11 session runs one operation at a time, and signing threads must take turns.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/store/pkcs11_module.h"
#include "tessarel/errors.h"

namespace tessarel::p11 {

// The user declined to give the PIN (cancelled the dialog).
class LoginCancelled : public Exception {
 public:
  explicit LoginCancelled(const std::string& token)
      : Exception("No PIN was given for the token \"" + token + "\"") {}
};

// Asks for a PIN: the token's label in, the PIN out (nullopt: cancelled).
using PinSource = std::function<std::optional<std::string>(const std::string& token_label)>;
// The host's own source (set_pin_provider); it comes before the dialog.
void set_pin_source(PinSource source);
// The password dialog belongs to the dialog models above this layer; they register it here,
// so nothing below them depends on a dialog. Without one no PIN can be asked.
using PinDialog = std::optional<std::string> (*)(const std::string& token_label);
void register_pin_dialog(PinDialog dialog);

struct TokenIdentity {
  std::string label;
  std::string manufacturer;
  std::string model;
  std::string serial;
  static TokenIdentity of(const CK_TOKEN_INFO& info);
  bool operator==(const TokenIdentity&) const = default;
};

enum class Login {
  No,   // public objects are enough
  Yes,  // log in when the token wants it (asks for the PIN once per process)
};

class Token {
 public:
  // The process's object for the token now in slot.
  static std::shared_ptr<Token> get(const std::shared_ptr<Module>& module, CK_SLOT_ID slot,
                                    const CK_TOKEN_INFO& info);

  const TokenIdentity& identity() const { return identity_; }
  const std::string& label() const { return identity_.label; }
  Module& module() const { return *module_; }
  CK_FUNCTION_LIST* fn() const { return module_->fn(); }
  // Changes whenever a new session had to be opened: object handles of private objects found
  // in an older one must be looked up again.
  std::uint64_t epoch() const { return epoch_; }
  bool logged_in() const { return logged_in_; }
  bool writable() const { return writable_; }

  // Runs op(session) under the token's lock with a live session (logged in when login is
  // Login::Yes). When the session turns out to be lost (the token was pulled out and put
  // back), op runs once more on a new one if retry is true; a token that is gone raises.
  template <class Op>
  auto run(Login login, Op&& op, bool retry = true) -> decltype(op(CK_SESSION_HANDLE{})) {
    std::lock_guard lock(mutex_);
    for (int attempt = 0;; ++attempt) {
      open_locked();
      if (login == Login::Yes) login_locked();
      try {
        return op(session_);
      } catch (const Pkcs11Error& e) {
        if (!lost(e.rv()) || attempt > 0 || !retry) throw;
        close_locked();
      }
    }
  }

  // Inside run: raises "no longer present" when the token has left its slot.
  void check_present_locked();
  // Inside run: a context-specific login for a key that wants the PIN before every use.
  void authenticate_again_locked(CK_SESSION_HANDLE session);

  // A PKCS#11 error as the user should read it: wrong PIN, gone token, refused key.
  static bool lost(CK_RV rv);

  Token(const Token&) = delete;
  Token& operator=(const Token&) = delete;
  Token(std::shared_ptr<Module> module, CK_SLOT_ID slot, TokenIdentity identity);

 private:
  void open_locked();
  void login_locked();
  void close_locked();
  CK_FLAGS flags_locked();
  [[noreturn]] void login_failed(CK_RV rv);
  std::optional<std::string> ask_pin() const;

  std::shared_ptr<Module> module_;
  CK_SLOT_ID slot_;
  TokenIdentity identity_;
  std::mutex mutex_;
  CK_SESSION_HANDLE session_ = CK_INVALID_HANDLE;
  bool logged_in_ = false;
  bool writable_ = false;
  // The token's flags when the session was opened: what does not change while it is in its
  // slot (login required, a PIN pad) is read from here rather than asked at every signature.
  CK_FLAGS session_flags_ = 0;
  std::uint64_t epoch_ = 0;
};

}  // namespace tessarel::p11
