/*
 * domain.h - domains of the Windows network. Not installed.
 */
#ifndef VEMO_HOST_STORAGE_DOMAIN_H
#define VEMO_HOST_STORAGE_DOMAIN_H

#include <stddef.h>

#include <vemo/types.h>

VEMO_BEGIN

/* What network this machine has joined, by the configuration: no server is asked. */
enum vemo_domain { VEMO_DOMAIN_NONE, VEMO_DOMAIN_NT, VEMO_DOMAIN_ACTIVE_DIRECTORY };
enum vemo_domain vemo_domain_joined(void);

/* The short name of the domain that has this name in the DNS: the own one by the
 * configuration, others by winbind. 1; 0 it is not known; -1 nobody can be asked
 * (VEMOERR_NO_SERVICE), or the name does not fit (VEMOERR_TOO_LONG). */
int vemo_domain_short_name(const char *dns_name, char *buffer, size_t size);

VEMO_END
#endif
