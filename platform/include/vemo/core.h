/*
 * vemo/core.h - the core library: error slot, lists and hashes of strings,
 * key=value files, file locks, running programs, accounts.
 *
 * Conventions of the whole boundary:
 *  - A function that fails records why in the thread's error slot and leaves
 *    errno meaningful; on success it leaves the slot as it was, like errno.
 *  - A required string that is NULL or empty gives the failure result and
 *    VEMOERR_BAD_PARAM, never a crash.
 *  - A text written into a buffer is always terminated and never longer than
 *    the size, which counts the NUL byte.
 *  - Records that come out by pointer are NULL after a failure; every free
 *    function accepts NULL.
 *  - Descriptors are close-on-exec.
 */
#ifndef VEMO_CORE_H
#define VEMO_CORE_H

#include <stdio.h>

#include <vemo/errors.h>
#include <vemo/types.h>

VEMO_BEGIN

/* --- Error slot: one a thread ------------------------------------------- */

/* Records a failure. `file` is kept as a pointer: it must live as long as the
 * process, as __FILE__ does. errno is left alone. */
void VLIBCErrSetEx(int code, const char *file, int line);

/* The code last recorded, of enum vemo_error; 0 when nothing was. */
int VLIBCErrGet(void);

/* Where it was recorded. The file is never NULL: "" when nothing was. */
const char *VLIBCErrorGetFile(void);
int VLIBCErrorGetLine(void);

/* --- Lists of strings ---------------------------------------------------- */

typedef struct _tag_VEMOSZLIST VEMOSZLIST;

/* An empty list with room for `capacity` entries; it grows as needed. Released
 * with VLIBCSzListFree. NULL without memory (VEMOERR_NO_MEMORY). */
VEMOSZLIST *VLIBCSzListAlloc(int capacity);

/* Entry `index`, counted from 0; NULL when there is none. Owned by the list and
 * valid until it is freed. */
const char *VLIBCSzListGet(const VEMOSZLIST *list, int index);

void VLIBCSzListFree(VEMOSZLIST *list);

/* Appends a copy of `text`, which may be empty. 0; -1 (VEMOERR_NO_MEMORY). */
int VLIBCSzListPush(VEMOSZLIST **list, const char *text);

/* Appends the tokens of `text`, each character of `delimiters` being a
 * separator; empty tokens are skipped and `text` is not changed. The number of
 * tokens; -1 (VEMOERR_NO_MEMORY). */
int VLIBCStrTok(const char *text, const char *delimiters, VEMOSZLIST *list);

/* --- Hashes from string to string ---------------------------------------- */

typedef struct _tag_VEMOSZHASH VEMOSZHASH;

/* An empty hash with room for `capacity` keys; it grows as needed. Released with
 * VLIBCSzHashFree. NULL without memory (VEMOERR_NO_MEMORY). */
VEMOSZHASH *VLIBCSzHashAlloc(int capacity);

/* The value of `key`, compared exactly; NULL when there is none. Owned by the
 * hash. A value that is replaced later stays valid until VLIBCHashRemoveAll or
 * VLIBCSzHashFree, so that pointers that were handed out stay good. */
const char *VLIBCSzHashGetValue(const VEMOSZHASH *hash, const char *key);

/* Stores a copy of `value` under a copy of `key`; `value` may be the pointer that
 * is stored there already. 0; -1 (VEMOERR_NO_MEMORY, VEMOERR_BAD_PARAM). */
int VLIBCSzHashSetValue(VEMOSZHASH *hash, const char *key, const char *value);

/* Removes all keys and releases their texts. */
void VLIBCHashRemoveAll(VEMOSZHASH *hash);

void VLIBCSzHashFree(VEMOSZHASH *hash);

/* --- key=value files ------------------------------------------------------
 * A UTF-8 mark at the start and a CR before LF are dropped. A line whose first
 * character that is no blank is '#' or ';' is a comment, '[' is passed over. The
 * key is the text before the first '=', the value the text after it, both
 * trimmed; one pair of " or ' around the value is dropped, and within double
 * quotes \" and \\ stand for the character. There are no comments behind a
 * value. Keys are compared exactly and the last occurrence wins, as in a shell
 * that sources the file. */

/* Reads one value into `buffer` of `size` bytes, cut at size - 1. 1: found (the
 * value may be empty). 0: the file has no such key. -1: the file cannot be read
 * (VEMOERR_NOT_FOUND, VEMOERR_NO_PERM, VEMOERR_IO) or is none (VEMOERR_FORMAT: a
 * NUL byte, a line above 64 KiB, not a regular file). On 0 and -1 the buffer is
 * left alone. */
int VLIBCFileGetKeyValue(const char *file, const char *key, char *buffer, int size);

/* Stores one value: the file is written beside, synced and renamed, under a lock,
 * with its owner, group and mode kept (a new file: 0600), so that two writers of
 * different keys lose nothing and a reader sees the old or the new file. Every
 * line of the key is replaced by one at the place of the first. 0; -1
 * (VEMOERR_BAD_PARAM: an empty key, or one with '=', '#', ';', '[', quotes,
 * blanks or control characters, or a value with a CR or LF or more than 32 KiB;
 * VEMOERR_BUSY: no lock within 10 seconds; VEMOERR_IO, VEMOERR_NO_PERM). */
int VLIBCFileSetKeyValue(const char *file, const char *key, const char *value);

/* Whether the value of `key` equals `value` without regard to ASCII case. 1, 0
 * (also when the key is missing); -1 as VLIBCFileGetKeyValue. `flags` is 0. */
int VLIBCFileCheckKeyValue(const char *file, const char *key, const char *value, int flags);

/* Stores every key of the file in `hash`, which is not emptied first. The number
 * of lines with a pair; -1 as VLIBCFileGetKeyValue. */
int VLIBCFileGetPair(const char *file, VEMOSZHASH *hash);

/* VLIBCFileSetKeyValue on "/etc/vemoinfo.conf". */
int VLIBCINFOSetKeyValue(const char *key, const char *value);

/* --- Files ---------------------------------------------------------------- */

/* Whether the name exists; a symbolic link that leads nowhere does. */
BOOL VLIBCFileExist(const char *path);

/* Whether the path leads to a directory, through links too. */
BOOL VLIBCFileCheckDir(const char *path);

/* Appends the names of the directory's entries, sorted by bytes, without "." and
 * ".." and without the files that are being written (names that begin with
 * ".#json."). The number of names; -1 (VEMOERR_NOT_FOUND, VEMOERR_NO_PERM).
 * `flags` and `reserved` are 0. */
int VLIBCFileEnumDir(const char *dir, int flags, VEMOSZLIST *names, int reserved);

/* Locks `path`, which is created with mode 0644 when missing, waiting at most
 * `seconds`: exclusively or, with `exclusive` 0, shared. TRUE, and the descriptor
 * that holds the lock in `*fd`; FALSE and -1 (VEMOERR_BUSY when time ran out).
 * When it returns, the path still names the locked file, also when another holder
 * removed and remade it. A holder that removes the file does so before it
 * unlocks; a process that does not hold the lock must never remove it. */
BOOL VLIBCFileLockTimeByFile(const char *path, int exclusive, int seconds, int *fd);

/* Releases the lock and closes; nothing for a negative descriptor. */
void VLIBCFileUnlockByFile(int fd);

/* --- Signals --------------------------------------------------------------
 * The web server sends SIGTERM to a program whose client hung up. */

/* Holds SIGTERM back until the matching VLIBCSigtermRelease, so that a file of
 * state is not left half-written. Calls nest. 0; -1 (VEMOERR_INTERNAL). */
int VLIBCSigtermHold(void);

/* Ends the innermost hold; a SIGTERM that came meanwhile takes effect at the end
 * of the outermost. */
void VLIBCSigtermRelease(void);

/* --- Programs ---------------------------------------------------------------
 * No shell is involved. The program gets the arguments as given, an environment
 * of PATH, LC_ALL=C, HOME=/ and TMPDIR=/tmp, /dev/null for standard input and,
 * but for a pipe, output (the request's body and answer are not its business),
 * default signal dispositions and an empty signal mask. */

/* Runs `program` with itself as argument 0, then the arguments up to NULL. Its
 * exit status, 0 to 255; -1 when it could not be run or a signal ended it
 * (VEMOERR_IO). */
int VLIBCExec(const char *program, ...) VEMO_SENTINEL;

/* The same with the arguments as given, argument 0 included. */
int VLIBCExecv(const char *program, char *const argv[]);

/* Starts `program` and gives its standard output ("r") or input ("w"). NULL on
 * failure (VEMOERR_IO). Closed with VLIBCPclose. */
FILE *VLIBCPopen(const char *program, const char *mode, ...) VEMO_SENTINEL;

/* Closes the stream, waits for its program and returns its exit status; -1 when
 * a signal ended it, or the stream is none of VLIBCPopen's. */
int VLIBCPclose(FILE *stream);

/* --- Accounts, privileges, network, text ----------------------------------- */

/* Whether the account is an administrator: root, or a member of the group
 * "administrators", by its primary group or a supplementary one. 1, 0 (also when
 * there is no such group); -1 for an unknown account (VEMOERR_NO_USER) and when
 * the name service fails (VEMOERR_NO_SERVICE). Answers are kept for the process.
 * `reserved` is 0. */
int VLIBGroupIsAdminGroupMem(const char *user, int reserved);

/* Whether the user was granted the application, from this client address ("":
 * from anywhere). 1, 0; -1 (VEMOERR_NO_SERVICE). */
int VLIBAppPrivUserHas(const char *user, const char *app, const char *address);

/* Grants an application, or takes the grant back. `kind` is "user", "group" or "everyone"
 * (`name` NULL or ""); `range` the addresses from where it holds, as "192.168.1.0/24" (NULL or
 * "": from anywhere). The account or group must be known to be granted anything. 1; 0 it was
 * so before; -1 (VEMOERR_BAD_PARAM, VEMOERR_NO_USER, VEMOERR_NO_GROUP, VEMOERR_NO_PERM,
 * VEMOERR_NO_SERVICE). Root's. */
int VLIBAppPrivGrant(const char *app, const char *kind, const char *name, const char *range);
int VLIBAppPrivRevoke(const char *app, const char *kind, const char *name, const char *range);

/* Calls `found` with each grant, sorted bytewise, until it returns non-zero. The texts live
 * for the call. The number of grants handed over; -1 (VEMOERR_NO_SERVICE). */
int VLIBAppPrivEnum(int (*found)(const char *app, const char *kind, const char *name,
                                 const char *range, void *data),
                    void *data);

struct _tag_VEMOSERVICEPORT; /* vemo/ports.h */

/* Whether a port or range ("N", "N:M") is taken: `checks` adds
 * VEMOPORTS_RESERVED, _DECLARED and _LISTENING. `services`, separated by commas,
 * are the asker's own, whose declared ports are no conflict. The number of
 * conflicts, their list in `*conflicts` (freed with VEMOServiceConfPortsFree); 0;
 * -1 (VEMOERR_BAD_PARAM: a range outside of 1 to 65535; VEMOERR_IO: what is listened on cannot
 * be told). */
int VLIBIsPortConflict(const char *services, const char *range, const char *protocol, int checks,
                       struct _tag_VEMOSERVICEPORT **conflicts);

/* Whether the text is a network mask: a dotted quad (RFC 950) of contiguous one
 * bits, at least one of them. 1, 0. */
int BlVLIBIsIpMask(const char *text);

/* Compares without regard to case, by folded code points (Unicode case folding);
 * a byte that is no UTF-8 counts as beyond all code points. <0, 0, >0: a total
 * order, fit for sorting. */
int VLIBCUnicodeUTF8StrCaseCmp(const char *a, const char *b);

VEMO_END
#endif
