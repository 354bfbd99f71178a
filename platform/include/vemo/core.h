#ifndef VEMO_CORE_H
#define VEMO_CORE_H
#include <stdio.h>
#include <vemo/errors.h>
#include <vemo/types.h>
VEMO_BEGIN
/* error slot, one per thread; file must be a string that lives as long as the process */
void        VLIBCErrSetEx(int code, const char *file, int line);
int         VLIBCErrGet(void);
const char *VLIBCErrorGetFile(void);          /* never NULL: "" when nothing is recorded */
int         VLIBCErrorGetLine(void);

/* lists of strings */
typedef struct _tag_VEMOSZLIST VEMOSZLIST;
VEMOSZLIST *VLIBCSzListAlloc(int capacity);   /* NULL: no memory */
const char *VLIBCSzListGet(const VEMOSZLIST *list, int index);   /* NULL: no such entry */
void        VLIBCSzListFree(VEMOSZLIST *list);                   /* NULL allowed */
int         VLIBCSzListPush(VEMOSZLIST **list, const char *text); /* ours: needed by every filler */
int         VLIBCStrTok(const char *text, const char *delimiters, VEMOSZLIST *list);

/* hashes from string to string */
typedef struct _tag_VEMOSZHASH VEMOSZHASH;
VEMOSZHASH *VLIBCSzHashAlloc(int capacity);
const char *VLIBCSzHashGetValue(const VEMOSZHASH *hash, const char *key);
int         VLIBCSzHashSetValue(VEMOSZHASH *hash, const char *key, const char *value);
void        VLIBCHashRemoveAll(VEMOSZHASH *hash);
void        VLIBCSzHashFree(VEMOSZHASH *hash);

/* key=value files */
int  VLIBCFileGetKeyValue(const char *file, const char *key, char *buffer, int size);
int  VLIBCFileSetKeyValue(const char *file, const char *key, const char *value);
int  VLIBCFileCheckKeyValue(const char *file, const char *key, const char *value, int flags);
int  VLIBCFileGetPair(const char *file, VEMOSZHASH *hash);
int  VLIBCINFOSetKeyValue(const char *key, const char *value);

/* files */
BOOL VLIBCFileExist(const char *path);
BOOL VLIBCFileCheckDir(const char *path);
int  VLIBCFileEnumDir(const char *dir, int flags, VEMOSZLIST *names, int reserved);
BOOL VLIBCFileLockTimeByFile(const char *path, int exclusive, int seconds, int *fd);
void VLIBCFileUnlockByFile(int fd);

/* programs; every variable list ends with (char *)NULL */
int   VLIBCExec(const char *program, ...) VEMO_SENTINEL;
int   VLIBCExecv(const char *program, char *const argv[]);
FILE *VLIBCPopen(const char *program, const char *mode, ...) VEMO_SENTINEL;
int   VLIBCPclose(FILE *stream);

/* accounts, privileges, network, text */
int VLIBGroupIsAdminGroupMem(const char *user, int reserved);
int VLIBAppPrivUserHas(const char *user, const char *app, const char *address);
struct _tag_VEMOSERVICEPORT;                   /* vemo/ports.h */
int VLIBIsPortConflict(const char *services, const char *range, const char *protocol, int checks,
                       struct _tag_VEMOSERVICEPORT **conflicts);
int BlVLIBIsIpMask(const char *text);
int VLIBCUnicodeUTF8StrCaseCmp(const char *a, const char *b);
VEMO_END
#endif
