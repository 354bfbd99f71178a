/*
 * vemo/credentials.h - becoming a user. See vemo/core.h for the conventions.
 */
#ifndef VEMO_CREDENTIALS_H
#define VEMO_CREDENTIALS_H

#include <vemo/types.h>

VEMO_BEGIN

/* Gives the process the user's groups and real and effective ids. `reversible`: the saved ids
 * stay root's, and a later call is possible; else the switch is for good. 1; 0 on failure
 * (VEMOERR_NO_USER, VEMOERR_NO_PERM), with the identity as it was. */
int ResetCredentialsByName(const char *name, BOOL reversible);

VEMO_END
#endif
