/* Names of domains. */
#include "storage/domain.h"

#include <dlfcn.h>
#include <errno.h>
#include <stdbool.h>
#include <stdint.h>
#include <string.h>
#include <strings.h>
#include <sys/types.h>

#include <wbclient.h>

#include "core/internal.h"
#include "storage/smb_conf.h"

/* Whether a parameter of [global] has one of the values. */
static int is_one_of(const char *parameter, const char *const values[]) {
  char value[64];

  if (vemo_smb_conf_global(parameter, value, sizeof value) != 1) return 0;
  for (size_t i = 0; values[i] != NULL; i++) {
    if (strcasecmp(value, values[i]) == 0) return 1;
  }
  return 0;
}

enum vemo_domain vemo_domain_joined(void) {
  if (is_one_of("security", (const char *const[]){"ads", NULL}) ||
      is_one_of("serverrole", (const char *const[]){"active directory domain controller",
                                                    "domain controller", "dc", NULL})) {
    return VEMO_DOMAIN_ACTIVE_DIRECTORY;
  }
  if (is_one_of("security", (const char *const[]){"domain", NULL}) ||
      is_one_of("serverrole", (const char *const[]){"member server", "member", NULL})) {
    return VEMO_DOMAIN_NT;
  }
  return VEMO_DOMAIN_NONE;
}

static int put(const char *name, char *buffer, size_t size) {
  if (strlen(name) >= size) {
    VEMO_FAIL_AS(ENAMETOOLONG, VEMOERR_TOO_LONG);
    return -1;
  }
  strcpy(buffer, name);
  return 1;
}

static int ask_winbind(const char *dns_name, char *buffer, size_t size) {
  wbcErr (*domain_info)(const char *, struct wbcDomainInfo **);
  void (*free_memory)(void *);
  struct wbcDomainInfo *info = NULL;

  void *library = dlopen("libwbclient.so.0", RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (library == NULL || vemo_find_function(library, "wbcDomainInfo", &domain_info) != 0 ||
      vemo_find_function(library, "wbcFreeMemory", &free_memory) != 0) {
    VEMO_FAIL(VEMOERR_NO_SERVICE);
    return -1;
  }
  const wbcErr error = domain_info(dns_name, &info);
  if (error == WBC_ERR_DOMAIN_NOT_FOUND) return 0;
  if (!WBC_ERROR_IS_OK(error) || info == NULL || info->short_name == NULL) {
    if (info != NULL) free_memory(info);
    VEMO_FAIL(VEMOERR_NO_SERVICE);
    return -1;
  }
  const int result = put(info->short_name, buffer, size);
  free_memory(info);
  return result;
}

int vemo_domain_short_name(const char *dns_name, char *buffer, size_t size) {
  char realm[256], workgroup[64];

  /* The own domain is told by the configuration: no server is asked. */
  if (vemo_smb_conf_global("realm", realm, sizeof realm) == 1 && strcasecmp(realm, dns_name) == 0 &&
      vemo_smb_conf_global("workgroup", workgroup, sizeof workgroup) == 1) {
    return put(workgroup, buffer, size);
  }
  return ask_winbind(dns_name, buffer, size);
}
