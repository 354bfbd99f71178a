/* Functions of libraries that are opened where they are needed. */
#include <dlfcn.h>
#include <string.h>

#include "core/internal.h"

int vemo_find_function(void *library, const char *name, void *function) {
  void *found = dlsym(library, name);

  /* ISO C has no conversion of an object's pointer to a function's. */
  memcpy(function, &found, sizeof found);
  return found == NULL;
}
