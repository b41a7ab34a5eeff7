/* Prints how the private keys on a token are protected, read with C_GetAttributeValue
 * straight from the PKCS#11 module, with no tool's summary in between (pkcs11-tool leaves
 * out what it takes for the default). One line per private key:
 *   LABEL <tab> sensitive=VALUE <tab> extractable=VALUE <tab> never-extractable=VALUE
 * where VALUE is true, false or the error the module gave.
 *   key_attributes MODULE TOKEN_LABEL      the user PIN in $KEY_ATTRIBUTES_PIN
 * Exit 0 when the token was found and read, 1 otherwise. */
#include <dlfcn.h>
#include <p11-kit/pkcs11.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static CK_FUNCTION_LIST_PTR fn;

static int same_label(const CK_UTF8CHAR* field, const char* label) {
  size_t n = strlen(label), i;
  if (n > 32) return 0;
  if (memcmp(field, label, n) != 0) return 0;
  for (i = n; i < 32; ++i)
    if (field[i] != ' ') return 0;
  return 1;
}

static void print_bool(CK_SESSION_HANDLE s, CK_OBJECT_HANDLE key, CK_ATTRIBUTE_TYPE type,
                       const char* name) {
  CK_BBOOL value = CK_FALSE;
  CK_ATTRIBUTE a = {type, &value, sizeof value};
  CK_RV rv = fn->C_GetAttributeValue(s, key, &a, 1);
  if (rv != CKR_OK)
    printf("\t%s=error 0x%lx", name, (unsigned long)rv);
  else
    printf("\t%s=%s", name, value ? "true" : "false");
}

int main(int argc, char** argv) {
  const char* pin = getenv("KEY_ATTRIBUTES_PIN");
  if (argc != 3 || !pin) {
    fprintf(stderr, "usage: KEY_ATTRIBUTES_PIN=... key_attributes MODULE TOKEN_LABEL\n");
    return 2;
  }
  void* h = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  CK_C_GetFunctionList get = h ? (CK_C_GetFunctionList)dlsym(h, "C_GetFunctionList") : NULL;
  if (!get || get(&fn) != CKR_OK || fn->C_Initialize(NULL) != CKR_OK) {
    fprintf(stderr, "key_attributes: cannot start %s\n", argv[1]);
    return 1;
  }
  CK_SLOT_ID slots[64];
  CK_ULONG n = 64, i;
  int found = 0;
  if (fn->C_GetSlotList(CK_TRUE, slots, &n) != CKR_OK) n = 0;
  for (i = 0; i < n && !found; ++i) {
    CK_TOKEN_INFO info;
    if (fn->C_GetTokenInfo(slots[i], &info) != CKR_OK || !same_label(info.label, argv[2])) continue;
    found = 1;
    CK_SESSION_HANDLE s;
    if (fn->C_OpenSession(slots[i], CKF_SERIAL_SESSION, NULL, NULL, &s) != CKR_OK ||
        fn->C_Login(s, CKU_USER, (CK_UTF8CHAR_PTR)pin, (CK_ULONG)strlen(pin)) != CKR_OK) {
      fprintf(stderr, "key_attributes: cannot log in to %s\n", argv[2]);
      return 1;
    }
    CK_OBJECT_CLASS cls = CKO_PRIVATE_KEY;
    CK_ATTRIBUTE match = {CKA_CLASS, &cls, sizeof cls};
    CK_OBJECT_HANDLE keys[64];
    CK_ULONG count = 0, k;
    if (fn->C_FindObjectsInit(s, &match, 1) != CKR_OK ||
        fn->C_FindObjects(s, keys, 64, &count) != CKR_OK || fn->C_FindObjectsFinal(s) != CKR_OK) {
      fprintf(stderr, "key_attributes: cannot list the keys\n");
      return 1;
    }
    for (k = 0; k < count; ++k) {
      char label[256] = "";
      CK_ATTRIBUTE a = {CKA_LABEL, label, sizeof label - 1};
      if (fn->C_GetAttributeValue(s, keys[k], &a, 1) == CKR_OK) label[a.ulValueLen] = 0;
      printf("%s", label);
      print_bool(s, keys[k], CKA_SENSITIVE, "sensitive");
      print_bool(s, keys[k], CKA_EXTRACTABLE, "extractable");
      print_bool(s, keys[k], CKA_NEVER_EXTRACTABLE, "never-extractable");
      printf("\n");
    }
    fn->C_Logout(s);
    fn->C_CloseSession(s);
  }
  fn->C_Finalize(NULL);
  if (!found) fprintf(stderr, "key_attributes: no token \"%s\"\n", argv[2]);
  return found ? 0 : 1;
}
