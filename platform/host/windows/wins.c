/* Membership in a Windows network, by the configuration. */
#include <vemo/wins.h>

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "core/internal.h"
#include "storage/domain.h"
#include "storage/smb_conf.h"

BOOL VEMOWinsIsJoined(void) {
  return vemo_domain_joined() != VEMO_DOMAIN_NONE;
}

BOOL VEMOWinsADSJoined(void) {
  return vemo_domain_joined() == VEMO_DOMAIN_ACTIVE_DIRECTORY;
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
