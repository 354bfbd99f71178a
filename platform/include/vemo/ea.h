/*
 * vemo/ea.h - hidden metadata directories. See vemo/core.h for the conventions.
 */
#ifndef VEMO_EA_H
#define VEMO_EA_H

#include <vemo/types.h>

VEMO_BEGIN

/* Whether a name is the platform's own within a share ("@eaDir", "@tmp", "lost+found"); for
 * an entry of a listing "." and ".." too. Compared exactly. */
BOOL VEMOEAIsHiddenDir(const char *name);
BOOL VEMOEAIsHiddenFile(const char *name);

/* Makes a metadata directory: mode 0755, root's, whatever the umask. 0, also when it is there,
 * as it is then; -1, errno kept, when a link or a file stands in its place
 * (VEMOERR_PATH_REFUSED), its parent is missing (VEMOERR_NOT_FOUND), the path is too long
 * (VEMOERR_TOO_LONG), and on other failures (VEMOERR_NO_PERM). `reserved` is 0. */
int VEMOEAMKDir(int reserved, const char *path);

VEMO_END
#endif
