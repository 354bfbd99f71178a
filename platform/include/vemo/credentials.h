#ifndef VEMO_CREDENTIALS_H
#define VEMO_CREDENTIALS_H
#include <vemo/types.h>
VEMO_BEGIN
int ResetCredentialsByName(const char *name, BOOL reversible); /* 1; 0 failed, identity as before */
VEMO_END
#endif
