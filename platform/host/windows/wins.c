/* Membership in a Windows network, by the configuration. */
#include <vemo/wins.h>

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>

#include "core/internal.h"
#include "storage/domain.h"
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

BOOL VEMOWinsADSJoined(void) {
  return is_one_of("security", (const char *const[]){"ads", NULL}) ||
         is_one_of("serverrole", (const char *const[]){"active directory domain controller",
                                                       "domain controller", "dc", NULL});
}

BOOL VEMOWinsIsJoined(void) {
  return VEMOWinsADSJoined() || is_one_of("security", (const char *const[]){"domain", NULL}) ||
         is_one_of("serverrole", (const char *const[]){"member server", "member", NULL});
}

int VEMOWorkgroupGet(char *buffer, int size) {
  if (buffer == NULL || size < 1) {
    VEMO_FAIL_PARAM();
    return -1;
  }
  const int found = vemo_smb_conf_global("workgroup", buffer, (size_t)size);
  if (found < 0) {
    *buffer = '\0';
    return -1;
  }
  if (found == 0) snprintf(buffer, (size_t)size, "WORKGROUP");
  return (int)strlen(buffer);
}

int VEMOWinsUserNameFqdn2Netbios(const char *name, char *buffer, int size) {
  char dns_name[256], domain[64];

  if (name == NULL || *name == '\0' || buffer == NULL || size < 1) {
    VEMO_FAIL_PARAM();
    return -1;
  }
  const char *backslash = strchr(name, '\\');
  /* A short name has no dot: there is nothing to convert. */
  if (backslash == NULL || memchr(name, '.', (size_t)(backslash - name)) == NULL) return 0;
  if ((size_t)(backslash - name) >= sizeof dns_name) {
    VEMO_FAIL_AS(ENAMETOOLONG, VEMOERR_TOO_LONG);
    return -1;
  }
  memcpy(dns_name, name, (size_t)(backslash - name));
  dns_name[backslash - name] = '\0';
  const int found = vemo_domain_short_name(dns_name, domain, sizeof domain);
  if (found != 1) return found;
  const int length = snprintf(buffer, (size_t)size, "%s%s", domain, backslash);
  if (length > 0 && length < size) return 1;
  *buffer = '\0';
  VEMO_FAIL_AS(ENAMETOOLONG, VEMOERR_TOO_LONG);
  return -1;
}
