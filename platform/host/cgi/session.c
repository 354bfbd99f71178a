/* The session store. */
#include "cgi/session.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <json-c/json.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cgi/state.h"

enum { RECORD_LIMIT = 65536, RECORD_DEPTH = 8, TOUCH_SECONDS = 60 };

static void path_of(const char *id, char *buffer, size_t size) {
  snprintf(buffer, size, "%s/%s", VEMO_SESSION_DIR, id);
}

static int make_directory(void) {
  if (mkdir("/run/vemo", 0755) != 0 && errno != EEXIST) return -1;
  return mkdir(VEMO_SESSION_DIR, 0700) != 0 && errno != EEXIST ? -1 : 0;
}

static int random_text(char buffer[VEMO_SESSION_ID_SIZE + 1]) {
  unsigned char bits[32];

  if (vemo_random(bits, sizeof bits) != 0) return -1;
  return vemo_base64url(bits, sizeof bits, buffer, VEMO_SESSION_ID_SIZE + 1) < 0 ? -1 : 0;
}

static struct json_object *record_of(const struct vemo_session_start *start, const char *token) {
  struct json_object *record = json_object_new_object();
  struct timespec now;
  char agent[257];

  if (record == NULL) return NULL;
  clock_gettime(CLOCK_REALTIME, &now);
  snprintf(agent, sizeof agent, "%s", vemo_cgi_env("HTTP_USER_AGENT"));
  json_object_object_add(record, "user", json_object_new_string(start->user));
  json_object_object_add(record, "addr", json_object_new_string(start->address));
  json_object_object_add(record, "created", json_object_new_int64(now.tv_sec));
  json_object_object_add(record, "created_usec", json_object_new_int64(now.tv_nsec / 1000));
  json_object_object_add(record, "position", json_object_new_int(start->position));
  json_object_object_add(record, "token", json_object_new_string(token));
  json_object_object_add(record, "auth", json_object_new_string(start->auth));
  json_object_object_add(record, "remember", json_object_new_boolean(start->remember));
  json_object_object_add(record, "agent", json_object_new_string(agent));
  json_object_object_add(record, "sso", json_object_new_string(start->sso));
  return record;
}

/* The idle limit in seconds. */
static long idle_limit(void) {
  char *end;
  const char *text = vemo_cgi_config("session_timeout", "15");
  long minutes = strtol(text, &end, 10);

  if (*end != '\0' || minutes < 1) minutes = 15;
  if (minutes > VEMO_SESSION_ABSOLUTE / 60) minutes = VEMO_SESSION_ABSOLUTE / 60;
  return minutes * 60;
}

/* Nobody asks for a session that was left behind: each login clears away those
 * that have idled out, and what a killed writer left. */
static void sweep(void) {
  DIR *directory = opendir(VEMO_SESSION_DIR);
  const time_t oldest = time(NULL) - idle_limit();
  const struct dirent *entry;
  struct stat status;

  if (directory == NULL) return;
  while ((entry = readdir(directory)) != NULL) {
    if (fstatat(dirfd(directory), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISREG(status.st_mode) && status.st_mtime < oldest) {
      unlinkat(dirfd(directory), entry->d_name, 0);
    }
  }
  closedir(directory);
}

int vemo_session_create(const struct vemo_session_start *start, char id[VEMO_SESSION_ID_SIZE + 1]) {
  char token[VEMO_SESSION_ID_SIZE + 1], path[128];
  uid_t before;
  int result = -1;

  if (random_text(id) != 0 || random_text(token) != 0) return -1;
  struct json_object *record = record_of(start, token);
  const char *text = record == NULL ? NULL : json_object_to_json_string(record);
  if (text == NULL) {
    VEMO_FAIL(VEMOERR_NO_MEMORY);
  } else if (vemo_root_begin(&before) == 0) {
    path_of(id, path, sizeof path);
    if (make_directory() != 0) {
      VEMO_FAIL_ERRNO();
    } else {
      sweep();
      result = vemo_write_file(path, text, strlen(text), 0600);
    }
    vemo_root_end(before);
  }
  json_object_put(record);
  return result;
}

/* A text member; NULL when it is missing, of another kind, or holds a NUL byte. */
static const char *text_member(struct json_object *record, const char *name) {
  struct json_object *value;

  if (!json_object_object_get_ex(record, name, &value)) return NULL;
  if (!json_object_is_type(value, json_type_string)) return NULL;
  const char *text = json_object_get_string(value);
  return strlen(text) == (size_t)json_object_get_string_len(value) ? text : NULL;
}

static int number_member(struct json_object *record, const char *name, long long *number) {
  struct json_object *value;

  *number = 0;
  if (!json_object_object_get_ex(record, name, &value)) return 0;
  if (!json_object_is_type(value, json_type_int)) return -1;
  *number = json_object_get_int64(value);
  return 0;
}

static int copy_text(const char *text, char *buffer, size_t size) {
  if (text == NULL || strlen(text) >= size) return -1;
  memcpy(buffer, text, strlen(text) + 1);
  return 0;
}

static int fill(struct json_object *record, struct vemo_cgi_session *session) {
  long long seconds, microseconds, position;

  if (!json_object_is_type(record, json_type_object)) return -1;
  if (copy_text(text_member(record, "user"), session->user, sizeof session->user) != 0 ||
      copy_text(text_member(record, "addr"), session->address, sizeof session->address) != 0 ||
      copy_text(text_member(record, "token"), session->token, sizeof session->token) != 0) {
    return -1;
  }
  if (number_member(record, "created", &seconds) != 0 ||
      number_member(record, "created_usec", &microseconds) != 0 ||
      number_member(record, "position", &position) != 0) {
    return -1;
  }
  if (seconds < 0 || seconds > 1LL << 40 || microseconds < 0 || microseconds > 999999) return -1;
  if (position < VEMOCGI_POS_ANY || position > VEMOCGI_POS_SHARING) return -1;
  session->created = seconds * 1000000 + microseconds;
  session->position = (int)position;
  return *session->user == '\0' || *session->token == '\0' ? -1 : 0;
}

/* The record of a session file, for the caller to put; NULL when it is none. */
static struct json_object *parse_record(const char *text, size_t size) {
  struct json_tokener *reader = json_tokener_new_ex(RECORD_DEPTH);

  if (reader == NULL) return NULL;
  json_tokener_set_flags(reader, JSON_TOKENER_STRICT);
  struct json_object *record = json_tokener_parse_ex(reader, text, (int)size);
  const int whole = json_tokener_get_error(reader) == json_tokener_success &&
                    json_tokener_get_parse_end(reader) == size;
  json_tokener_free(reader);
  if (whole) return record;
  json_object_put(record);
  return NULL;
}

/* 1; 0: nothing that could be a session; -1: the store cannot be used. */
static int read_as_root(const char *id, char **text, size_t *size, struct stat *status) {
  char path[128];

  path_of(id, path, sizeof path);
  *text = vemo_read_file(path, O_NOFOLLOW, RECORD_LIMIT, size, status);
  if (*text == NULL) {
    return errno == ENOENT || errno == ELOOP || errno == EINVAL || errno == ENXIO || errno == EACCES
               ? 0
               : -1;
  }
  /* A record that somebody else could have written is none. */
  if (status->st_uid == 0 && (status->st_mode & 077) == 0) return 1;
  free(*text);
  VEMO_FAIL(VEMOERR_NO_PERM);
  return 0;
}

/* Reads a session and its record, which the caller puts. */
static int read_record(const char *id, struct vemo_cgi_session *session,
                       struct json_object **record) {
  struct stat status;
  uid_t before;
  char *text;
  size_t size;

  *record = NULL;
  if (!vemo_cgi_is_session_id(id)) return 0;
  if (vemo_root_begin(&before) != 0) return -1;
  const int there = read_as_root(id, &text, &size, &status);
  vemo_root_end(before);
  if (there != 1) return there;

  memset(session, 0, sizeof *session);
  memcpy(session->id, id, VEMO_SESSION_ID_SIZE + 1);
  session->last_use = status.st_mtim.tv_sec;
  *record = parse_record(text, size);
  explicit_bzero(text, size);
  free(text);
  if (*record != NULL && fill(*record, session) == 0) return 1;
  json_object_put(*record);
  *record = NULL;
  VEMO_FAIL(VEMOERR_FORMAT);
  return 0;
}

int vemo_session_read(const char *id, struct vemo_cgi_session *session) {
  struct json_object *record;
  const int result = read_record(id, session, &record);

  json_object_put(record);
  return result;
}

int vemo_session_is_over(const struct vemo_cgi_session *session) {
  const time_t now = time(NULL);

  return now - session->last_use > idle_limit() ||
         now - session->created / 1000000 > VEMO_SESSION_ABSOLUTE;
}

void vemo_session_touch(const struct vemo_cgi_session *session) {
  char path[128];
  uid_t before;

  /* With a limit of a minute or so, a minute would be too late. */
  const long pause = idle_limit() < 2 * TOUCH_SECONDS ? TOUCH_SECONDS / 2 : TOUCH_SECONDS;
  if (time(NULL) - session->last_use < pause) return;
  if (vemo_root_begin(&before) != 0) return;
  path_of(session->id, path, sizeof path);
  const int fd = open(path, O_WRONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
  if (fd >= 0) {
    futimens(fd, NULL);
    close(fd);
  }
  vemo_root_end(before);
}

int vemo_session_remove(const char *id) {
  char path[128];
  uid_t before;

  if (!vemo_cgi_is_session_id(id)) return 0;
  if (vemo_root_begin(&before) != 0) return -1;
  path_of(id, path, sizeof path);
  int result = unlink(path) == 0 ? 1 : (errno == ENOENT ? 0 : -1);
  if (result < 0) VEMO_FAIL_ERRNO();
  strncat(path, ".lock", sizeof path - strlen(path) - 1);
  unlink(path);
  vemo_root_end(before);
  return result;
}

/* The names of the session files. */
static int list_as_root(VEMOSZLIST *ids) {
  const struct dirent *entry;
  DIR *directory = opendir(VEMO_SESSION_DIR);
  int failed = 0;

  if (directory == NULL) {
    if (errno == ENOENT) return 0;
    VEMO_FAIL_ERRNO();
    return -1;
  }
  while (!failed && (entry = readdir(directory)) != NULL) {
    if (vemo_cgi_is_session_id(entry->d_name)) failed = VLIBCSzListPush(&ids, entry->d_name);
  }
  closedir(directory);
  return failed;
}

/* The names are taken first: `found` runs with the caller's identity, holds up
 * nobody, and may remove sessions. */
int vemo_session_each(vemo_session_found found, void *data) {
  struct vemo_cgi_session session;
  struct json_object *record;
  uid_t before;

  VEMOSZLIST *ids = VLIBCSzListAlloc(64);
  if (ids == NULL) return -1;
  if (vemo_root_begin(&before) != 0) {
    VLIBCSzListFree(ids);
    return -1;
  }
  const int failed = list_as_root(ids);
  vemo_root_end(before);
  const char *id;
  for (int i = 0; !failed && (id = VLIBCSzListGet(ids, i)) != NULL; i++) {
    if (read_record(id, &session, &record) != 1) continue;
    const int ends = !vemo_session_is_over(&session) && found(&session, record, data);
    json_object_put(record);
    if (ends) break;
  }
  VLIBCSzListFree(ids);
  return failed ? -1 : 0;
}

void vemo_session_handle(const char *id, char *buffer, size_t size) {
  /* One way: 64 of the 256 bits' hash say nothing about the id. */
  snprintf(buffer, size, "%016llx", (unsigned long long)vemo_hash_stable(id, VEMO_SESSION_ID_SIZE));
}

void vemo_session_make_public(const struct vemo_cgi_session *session, struct json_object *record) {
  char handle[32];

  vemo_session_handle(session->id, handle, sizeof handle);
  json_object_object_del(record, "token");
  json_object_object_add(record, "handle", json_object_new_string(handle));
  json_object_object_add(record, "last_use", json_object_new_int64(session->last_use));
}

struct vemo_cgi_session *vemo_cgi_session(VEMOCGI *ctx, int *fault) {
  *fault = 0;
  if (ctx->state->session != NULL) return ctx->state->session;
  const char *id = VemoCgiGetInCookies(ctx, VEMO_SESSION_COOKIE, NULL);
  struct vemo_cgi_session *session = malloc(sizeof *session);
  if (session == NULL) {
    VEMO_FAIL(VEMOERR_NO_MEMORY);
    *fault = 1;
    return NULL;
  }
  const int result = vemo_session_read(id, session);
  if (result == 1) {
    ctx->state->session = session;
    return session;
  }
  free(session);
  *fault = result < 0;
  return NULL;
}

void vemo_cgi_session_forget(VEMOCGI *ctx) {
  free(ctx->state->session);
  ctx->state->session = NULL;
}
