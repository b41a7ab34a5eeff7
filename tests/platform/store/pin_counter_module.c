/* A PKCS#11 module for tests: SoftHSM2 with the PIN retry counter that smart cards have.
 *
 * SoftHSM2 accepts any number of wrong PINs and never locks, so the behaviour a card user
 * meets (tries running out, then a locked PIN) cannot be produced with it alone. This module
 * forwards every call to the real SoftHSM2 module and only counts: consecutive wrong user
 * PINs are kept in the file named by PIN_COUNTER_STATE (so that successive processes see
 * them, as they would on a card), the limit is PIN_COUNTER_LIMIT (the retry count a
 * security officer would set). C_GetTokenInfo reports the PIN flags a card would.
 *
 * With PIN_PAD set, the token also has a PIN pad (CKF_PROTECTED_AUTHENTICATION_PATH): a
 * C_Login without a PIN stands for the user typing PIN_PAD on the reader's keypad. Every
 * C_Login is recorded in the file PIN_LOGIN_LOG, one line each: "user" or "context", then
 * "keypad" (no PIN passed) or "pin" (a PIN passed by the caller). The first
 * PIN_LOGIN_GENERAL_ERRORS user logins of a process fail with CKR_GENERAL_ERROR without
 * reaching SoftHSM2, as a token does while another process rewrites its state. */
#include <dlfcn.h>
#include <p11-kit/pkcs11.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static CK_FUNCTION_LIST inner;
static CK_FUNCTION_LIST outer;
static int loaded;

static int limit(void) {
  const char* l = getenv("PIN_COUNTER_LIMIT");
  return l ? atoi(l) : 3;
}

static int wrong_pins(void) {
  const char* path = getenv("PIN_COUNTER_STATE");
  FILE* f = path ? fopen(path, "r") : NULL;
  int n = 0;
  if (f) {
    if (fscanf(f, "%d", &n) != 1) n = 0;
    fclose(f);
  }
  return n;
}

static void set_wrong_pins(int n) {
  const char* path = getenv("PIN_COUNTER_STATE");
  FILE* f = path ? fopen(path, "w") : NULL;
  if (f) {
    fprintf(f, "%d\n", n);
    fclose(f);
  }
}

static void log_login(CK_USER_TYPE user, CK_UTF8CHAR_PTR pin) {
  const char* path = getenv("PIN_LOGIN_LOG");
  FILE* f = path ? fopen(path, "a") : NULL;
  if (f) {
    fprintf(f, "%s %s\n",
            user == CKU_CONTEXT_SPECIFIC ? "context"
            : user == CKU_USER           ? "user"
                                         : "so",
            pin ? "pin" : "keypad");
    fclose(f);
  }
}

static CK_RV counting_login(CK_SESSION_HANDLE session, CK_USER_TYPE user, CK_UTF8CHAR_PTR pin,
                            CK_ULONG len) {
  log_login(user, pin);
  static int general_errors = 0;
  const char* fail = getenv("PIN_LOGIN_GENERAL_ERRORS");
  if (user == CKU_USER && fail && general_errors < atoi(fail)) {
    ++general_errors;
    return CKR_GENERAL_ERROR;
  }
  const char* keypad = getenv("PIN_PAD");
  if (keypad && !pin) {
    /* What the user types on the reader. */
    pin = (CK_UTF8CHAR_PTR)keypad;
    len = (CK_ULONG)strlen(keypad);
  }
  if (user != CKU_USER) return inner.C_Login(session, user, pin, len);
  int n = wrong_pins();
  if (n >= limit()) return CKR_PIN_LOCKED;
  CK_RV rv = inner.C_Login(session, user, pin, len);
  if (rv == CKR_PIN_INCORRECT)
    set_wrong_pins(n + 1);
  else if (rv == CKR_OK)
    set_wrong_pins(0);
  return rv;
}

static CK_RV counting_token_info(CK_SLOT_ID slot, CK_TOKEN_INFO_PTR info) {
  CK_RV rv = inner.C_GetTokenInfo(slot, info);
  if (rv != CKR_OK) return rv;
  int n = wrong_pins();
  info->flags &= ~(CKF_USER_PIN_COUNT_LOW | CKF_USER_PIN_FINAL_TRY | CKF_USER_PIN_LOCKED);
  if (n > 0) info->flags |= CKF_USER_PIN_COUNT_LOW;
  if (n == limit() - 1) info->flags |= CKF_USER_PIN_FINAL_TRY;
  if (n >= limit()) info->flags |= CKF_USER_PIN_LOCKED;
  if (getenv("PIN_PAD")) info->flags |= CKF_PROTECTED_AUTHENTICATION_PATH;
  return CKR_OK;
}

CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
  if (!loaded) {
    const char* path = getenv("PIN_COUNTER_INNER");
    void* h = dlopen(path ? path : "/usr/lib/softhsm/libsofthsm2.so", RTLD_NOW | RTLD_LOCAL);
    if (!h) return CKR_GENERAL_ERROR;
    CK_C_GetFunctionList get = (CK_C_GetFunctionList)dlsym(h, "C_GetFunctionList");
    CK_FUNCTION_LIST_PTR real = NULL;
    if (!get || get(&real) != CKR_OK || !real) return CKR_GENERAL_ERROR;
    memcpy(&inner, real, sizeof inner);
    memcpy(&outer, real, sizeof outer);
    outer.C_Login = counting_login;
    outer.C_GetTokenInfo = counting_token_info;
    outer.C_GetFunctionList = C_GetFunctionList;
    loaded = 1;
  }
  *list = &outer;
  return CKR_OK;
}
