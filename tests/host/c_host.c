/* A plain C host: loads libtessarel with dlopen, finds the six entry points by name and
 * calls them the way a foreign-language host would. */
#include <dlfcn.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

typedef char** (*hash_fn)(char**, const char*);
typedef void (*pfx_fn)(const char*, void*, const char*);
typedef char** (*result_fn)(char**);
typedef char** (*name_fn)(char**, const char*);
typedef char** (*pick_fn)(char**, bool);
typedef void* (*engine_fn)(void);
typedef void (*deleting_dtor_fn)(void*);

static int failures = 0;
#define CHECK(cond)                                                      \
  do {                                                                   \
    if (!(cond)) {                                                       \
      fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #cond); \
      ++failures;                                                        \
    }                                                                    \
  } while (0)

int main(int argc, char** argv) {
  if (argc != 4) {
    fprintf(stderr, "usage: c_host LIBRARY FILE EXPECTED_SHA256\n");
    return 2;
  }
  void* lib = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (!lib) {
    fprintf(stderr, "dlopen: %s\n", dlerror());
    return 1;
  }
  hash_fn hash = (hash_fn)dlsym(lib, "GetHashFileSHA256");
  pfx_fn pfx = (pfx_fn)dlsym(lib, "SalvaCertificatopfx");
  result_fn create = (result_fn)dlsym(lib, "CreaCertificatoPrivato");
  name_fn common_name = (name_fn)dlsym(lib, "SelezionaCommonName");
  pick_fn pick = (pick_fn)dlsym(lib, "SelezionaCertificato");
  engine_fn engine = (engine_fn)dlsym(lib, "GetSignEArchivia");
  CHECK(hash && pfx && create && common_name && pick && engine);
  if (failures) return 1;

  /* The result comes back through the first argument, which is also returned. */
  char* digest = strdup("previous");
  CHECK(hash(&digest, argv[2]) == &digest);
  CHECK(digest && strcmp(digest, argv[3]) == 0);
  free(digest);

  /* Unknown identifier: the host's variable keeps its text. */
  char* name = strdup("unchanged");
  common_name(&name, "0123");
  CHECK(strcmp(name, "unchanged") == 0);
  free(name);

  /* No match: the dataset is never touched, so a null one is fine. */
  pfx("nobody at all", NULL, "field");

  /* The wizard and the picker, closed without an answer (non-interactive front end). */
  char* created = strdup("old");
  create(&created);
  CHECK(created && created[0] == '\0');
  free(created);
  char* picked = strdup("kept");
  pick(&picked, true);
  CHECK(strcmp(picked, "kept") == 0);
  free(picked);

  /* The engine is destroyed through its virtual destructor: in the Itanium ABI the slot
   * after the complete-object destructor (slot 11) is the deleting destructor (slot 12). */
  void* e1 = engine();
  void* e2 = engine();
  CHECK(e1 && e2 && e1 != e2);
  ((deleting_dtor_fn*)(*(void***)e1))[12](e1);
  ((deleting_dtor_fn*)(*(void***)e2))[12](e2);

  if (failures == 0) printf("c_host: all checks passed\n");
  dlclose(lib);
  return failures ? 1 : 0;
}
