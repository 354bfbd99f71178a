/*
 * vemo/wins.h - membership in a Windows network. See vemo/core.h for the conventions. What is
 * asked is the configuration, not a server.
 */
#ifndef VEMO_WINS_H
#define VEMO_WINS_H

#include <vemo/types.h>

VEMO_BEGIN

/* Whether the appliance is a member of a domain, and of one of the Active Directory kind. */
BOOL VEMOWinsIsJoined(void);
BOOL VEMOWinsADSJoined(void);

/* The name of the workgroup. Its length; -1 when the configuration cannot be read
 * (VEMOERR_NOT_FOUND). */
int VEMOWorkgroupGet(char *buffer, int size);

/* "dns.domain\user" as "DOMAIN\user". 1 converted; 0 the domain is not known; -1 it cannot be
 * asked (VEMOERR_NO_SERVICE). */
int VEMOWinsUserNameFqdn2Netbios(const char *name, char *buffer, int size);

VEMO_END
#endif
