/* key=value files: the writer. */
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "core/internal.h"
#include "core/keyvalue.h"

enum { LOCK_SECONDS = 10, VALUE_LIMIT = 32 * 1024 };

/* A text that grows; `failed` once there was no memory. */
struct text {
  char *data;
  size_t used, room;
  int failed;
};

static void append(struct text *text, const char *data, size_t size) {
  if (text->failed) return;
  if (text->room - text->used < size) {
    const size_t room = (text->used + size) * 2;
    char *grown = realloc(text->data, room);
    if (grown == NULL) {
      text->failed = 1;
      return;
    }
    text->data = grown;
    text->room = room;
  }
  memcpy(text->data + text->used, data, size);
  text->used += size;
}

static void append_pair(struct text *text, const char *key, const char *value) {
  append(text, key, strlen(key));
  append(text, "=\"", 2);
  for (; *value != '\0'; value++) {
    if (*value == '"' || *value == '\\') append(text, "\\", 1);
    append(text, value, 1);
  }
  append(text, "\"\n", 2);
}

/* The file's text with the key's lines replaced by one. */
static struct text replaced(const char *old, size_t size, const char *key, const char *value) {
  struct text text = {NULL, 0, 0, 0};
  const char *at = old;
  const char *end = old + size;
  struct vemo_line line;
  int written = 0;

  if (size >= 3 && memcmp(old, "\xef\xbb\xbf", 3) == 0) at += 3;
  while (vemo_keyvalue_line(&at, end, &line)) {
    const int ours = line.key != NULL && line.key_size == strlen(key) &&
                     memcmp(line.key, key, line.key_size) == 0;
    if (!ours) {
      append(&text, line.text, line.size);
    } else if (!written) {
      append_pair(&text, key, value);
      written = 1;
    }
  }
  if (!written) {
    if (text.used > 0 && text.data[text.used - 1] != '\n') append(&text, "\n", 1);
    append_pair(&text, key, value);
  }
  return text;
}

/* What could not be read back is refused. */
static int is_storable(const char *key, const char *value) {
  if (key == NULL || *key == '\0' || value == NULL) return 0;
  for (const char *c = key; *c != '\0'; c++) {
    if ((unsigned char)*c <= 0x20 || *c == 0x7f || strchr("=#;[\"'", *c) != NULL) return 0;
  }
  if (strncmp(key, "\xef\xbb\xbf", 3) == 0) return 0;
  return strpbrk(value, "\r\n") == NULL && strlen(value) + strlen(key) < VALUE_LIMIT;
}

static int beside(char *buffer, size_t size, const char *file, const char *suffix) {
  const int length = snprintf(buffer, size, "%s%s", file, suffix);

  if (length < 0 || (size_t)length >= size) {
    VEMO_FAIL_AS(ENAMETOOLONG, VEMOERR_TOO_LONG);
    return -1;
  }
  return 0;
}

static int rewrite(const char *file, const char *key, const char *value) {
  char temporary[4096];
  struct stat status = {.st_mode = 0600, .st_uid = (uid_t)-1, .st_gid = (gid_t)-1};
  size_t size = 0;

  if (beside(temporary, sizeof temporary, file, ".new") != 0) return -1;
  /* A link in the place of the file is nobody's configuration. */
  char *old = vemo_keyvalue_text(file, O_NOFOLLOW, &size, &status);
  if (old == NULL && errno != ENOENT) return -1;
  struct text text = replaced(old == NULL ? "" : old, size, key, value);
  int result = -1;
  if (text.failed) {
    VEMO_FAIL(VEMOERR_NO_MEMORY);
  } else {
    result = vemo_write_file_as(file, temporary, text.data, text.used, status.st_mode & 07777,
                                status.st_uid, status.st_gid);
  }
  free(old);
  free(text.data);
  return result;
}

int VLIBCFileSetKeyValue(const char *file, const char *key, const char *value) {
  char lock[4096];
  int fd;

  if (file == NULL || *file == '\0' || !is_storable(key, value)) {
    VEMO_FAIL_PARAM();
    return -1;
  }
  if (beside(lock, sizeof lock, file, ".lock") != 0) return -1;
  if (VLIBCSigtermHold() != 0) return -1;
  int result = -1;
  if (VLIBCFileLockTimeByFile(lock, 1, LOCK_SECONDS, &fd)) {
    result = rewrite(file, key, value);
    /* Still the holder, and the lock's name is still this file: records that come and go leave
     * nothing behind. */
    const int kept = errno;
    unlink(lock);
    errno = kept;
    VLIBCFileUnlockByFile(fd);
  }
  VLIBCSigtermRelease();
  return result;
}

int VLIBCINFOSetKeyValue(const char *key, const char *value) {
  return VLIBCFileSetKeyValue("/etc/vemoinfo.conf", key, value);
}
