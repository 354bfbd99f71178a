/*
 * internal.h - what the core library offers to its sister libraries of the host
 * platform. Not installed; a vendor's platform has its own.
 */
#ifndef VEMO_HOST_CORE_INTERNAL_H
#define VEMO_HOST_CORE_INTERNAL_H

#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/stat.h>

#include <vemo/core.h>

/* Records a failure here. */
#define VEMO_FAIL(code) VLIBCErrSetEx((code), __FILE__, __LINE__)

VEMO_BEGIN

/* Records the code that stands for an errno of a file operation; keeps errno. */
void vemo_fail_errno(const char *file, int line);
#define VEMO_FAIL_ERRNO() vemo_fail_errno(__FILE__, __LINE__)

/* Records `code`, and leaves `error` in errno for a message's %m. */
void vemo_fail_as(int error, int code, const char *file, int line);
#define VEMO_FAIL_AS(error, code) vemo_fail_as((error), (code), __FILE__, __LINE__)

/* An argument that is missing or malformed. */
#define VEMO_FAIL_PARAM() VEMO_FAIL_AS(EINVAL, VEMOERR_BAD_PARAM)

/* --- Libraries that are opened where they are needed ---------------------- */

/* Stores the library's function in the pointer that `function` points to. 0; 1 there is none. */
int vemo_find_function(void *library, const char *name, void *function);

/* --- Programs ----------------------------------------------------------------- */

/* Starts the program by its path with `in` and `out` as standard input and output (-1:
 * /dev/null), standard error as it is, all others closed, a fixed environment, and signals
 * as a new process has them. Its process id; -1. */
pid_t vemo_start(const char *program, char *const argv[], int in, int out);

/* Waits for a child. Its exit status; -1: it was ended by a signal, or is none. */
int vemo_wait_for(pid_t child);

/* A web server that ignores SIGCHLD hands that on, and the kernel then keeps no exit status:
 * to be called before fork(2). */
void vemo_want_exit_statuses(void);

/* --- The name service ----------------------------------------------------- */

struct passwd;
struct group;

/* Looks an account or a group up. 0: the record's texts stand in `*buffer`, which the caller
 * frees; ENOENT: there is none; any other error is the service's. `*buffer` is NULL unless 0
 * is returned. Nothing is recorded. */
int vemo_find_user(const char *name, struct passwd *record, char **buffer);
int vemo_find_group(const char *name, struct group *record, char **buffer);

/* Whether the user is in the group, by any of the ways that the service knows. 1, 0; -1. */
int vemo_is_in_group(const char *user, gid_t primary, gid_t group);

/* --- Memory that is released all at once --------------------------------- */

struct vemo_arena {
  struct vemo_arena_block *blocks;
};

/* Zeroed memory, aligned for any type. NULL without memory (recorded). */
void *vemo_arena_alloc(struct vemo_arena *arena, size_t size);
/* A copy of `size` bytes and a NUL byte. */
char *vemo_arena_copy(struct vemo_arena *arena, const char *text, size_t size);
void vemo_arena_free(struct vemo_arena *arena);

/* --- Hashes ----------------------------------------------------------------- */

/* VLIBCSzHashSetValue for texts that are not terminated; with `keep_first` a key
 * that is there keeps its value. 0; -1. */
int vemo_hash_set(VEMOSZHASH *hash, const char *key, size_t key_size, const char *value,
                  size_t value_size, int keep_first);

/* Forgets all keys, but keeps their texts until the hash is freed. */
void vemo_hash_forget(VEMOSZHASH *hash);

/* Calls `found` with each pair, in no order, until it returns non-zero; that
 * result, else 0. */
int vemo_hash_each(const VEMOSZHASH *hash,
                   int (*found)(const char *key, const char *value, void *data), void *data);

/* The number of keys. */
size_t vemo_hash_size(const VEMOSZHASH *hash);

/* A keyed hash of bytes with a seed of this process, so that nobody outside can
 * choose keys that collide. */
uint64_t vemo_hash_bytes(const void *data, size_t size);

/* The same with a fixed seed: equal in every process, for names of files. */
uint64_t vemo_hash_stable(const void *data, size_t size);

/* --- Files ------------------------------------------------------------------ */

/* The whole regular file in a malloc'ed buffer with a NUL byte behind it; its
 * size in `*size`, its status in `*status` unless NULL. Never blocks. `flags` are
 * open(2) flags to add, as O_NOFOLLOW. NULL on failure (recorded): not a regular
 * file or more than `limit` bytes are VEMOERR_FORMAT. */
char *vemo_read_file(const char *path, int flags, size_t limit, size_t *size, struct stat *status);

/* Writes the file beside, syncs and renames it, with SIGTERM held back. 0; -1,
 * and everything as before. */
int vemo_write_file(const char *path, const void *data, size_t size, mode_t mode);

/* The same through the name `temporary` (same directory), with an owner; the
 * caller holds a lock under which nobody else uses that name. */
int vemo_write_file_as(const char *path, const char *temporary, const void *data, size_t size,
                       mode_t mode, uid_t uid, gid_t gid);

/* What a file looked like when it was read. */
struct vemo_stamp {
  struct stat status;
  int fresh; /* changed so shortly before that a later change may look the same */
};

void vemo_stamp_set(struct vemo_stamp *stamp, const struct stat *status);
/* 1 when the file is sure to be as it was. */
int vemo_stamp_matches(const struct vemo_stamp *stamp, const struct stat *status);

/* The pairs of a key=value file, read once a process and again when the file
 * changed. What was handed out stays valid as long as the process. NULL when it
 * cannot be read (recorded). */
const VEMOSZHASH *vemo_keyvalue_cached(const char *file);

/* --- Identity ------------------------------------------------------------------ */

/* State that is root's is touched as root, also after the process has become the
 * user with a saved id of 0. 0; -1: it cannot (VEMOERR_NO_PERM). */
int vemo_root_begin(uid_t *before);
void vemo_root_end(uid_t before);

/* --- Names ------------------------------------------------------------------- */

/* Makes a part of a path from a name: bytes outside [A-Za-z0-9._@-], and a
 * leading dot, become %XX. 0; -1: an empty name, ".", "..", one with "/" or a
 * control character (VEMOERR_PATH_REFUSED), a result above 255 bytes or above
 * `size` (VEMOERR_TOO_LONG). */
int vemo_name_part(const char *name, char *buffer, size_t size);

/* --- Secrets ------------------------------------------------------------------ */

/* Fills the buffer from the system's generator. 0; -1. */
int vemo_random(void *buffer, size_t size);

/* base64url without padding (RFC 4648, section 5). The length; -1: too small. */
int vemo_base64url(const void *data, size_t size, char *buffer, size_t buffer_size);

/* Whether two texts are equal, in a time that tells nothing but their lengths.
 * NULL equals nothing, and neither does "": an absent secret is no match. */
int vemo_equal_constant_time(const char *a, const char *b);

VEMO_END
#endif
