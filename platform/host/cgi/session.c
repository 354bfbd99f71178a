/* The session store. */
#include "cgi/session.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <json-c/json.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
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
  return record;
}

int vemo_session_create(const struct vemo_session_start *start,
                        char id[VEMO_SESSION_ID_SIZE + 1]) {
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
      result = vemo_write_file(path, text, strlen(text), 0600);
    }
    vemo_root_end(before);
  }
  json_object_put(record);
  return result;
}

/* A text member; "" when it is missing; NULL when it is of another kind. */
static const char *text_member(struct json_object *record, const char *name) {
  struct json_object *value;

  if (!json_object_object_get_ex(record, name, &value)) return "";
  return json_object_is_type(value, json_type_string) ? json_object_get_string(value) : NULL;
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
  session->created = seconds * 1000000 + microseconds;
  session->position = (int)position;
  return *session->user == '\0' || *session->token == '\0' ? -1 : 0;
}

static int parse_record(const char *text, size_t size, struct vemo_cgi_session *session) {
  struct json_tokener *reader = json_tokener_new_ex(RECORD_DEPTH);

  if (reader == NULL) return -1;
  struct json_object *record = json_tokener_parse_ex(reader, text, (int)size);
  const int result =
      json_tokener_get_error(reader) == json_tokener_success ? fill(record, session) : -1;
  json_object_put(record);
  json_tokener_free(reader);
  return result;
}

static int read_as_root(const char *id, struct vemo_cgi_session *session) {
  char path[128];
  struct stat status;
  size_t size;

  path_of(id, path, sizeof path);
  char *text = vemo_read_file(path, O_NOFOLLOW, RECORD_LIMIT, &size, &status);
  if (text == NULL) return errno == ENOENT || errno == ELOOP || errno == EINVAL ? 0 : -1;
  memset(session, 0, sizeof *session);
  memcpy(session->id, id, VEMO_SESSION_ID_SIZE + 1);
  session->last_use = status.st_mtim.tv_sec;
  /* A record that somebody else could have written is none. */
  const int ours = status.st_uid == 0 && (status.st_mode & 077) == 0;
  const int good = ours && parse_record(text, size, session) == 0;
  free(text);
  if (!good) VEMO_FAIL(VEMOERR_FORMAT);
  return good;
}

int vemo_session_read(const char *id, struct vemo_cgi_session *session) {
  uid_t before;

  if (!vemo_cgi_is_session_id(id)) return 0;
  if (vemo_root_begin(&before) != 0) return -1;
  const int result = read_as_root(id, session);
  vemo_root_end(before);
  return result;
}

int vemo_session_is_over(const struct vemo_cgi_session *session) {
  const time_t now = time(NULL);
  char *end;
  const char *text = vemo_cgi_config("session_timeout", "15");
  long minutes = strtol(text, &end, 10);

  if (*end != '\0' || minutes < 1) minutes = 15;
  if (minutes > VEMO_SESSION_ABSOLUTE / 60) minutes = VEMO_SESSION_ABSOLUTE / 60;
  return now - session->last_use > minutes * 60 ||
         now - session->created / 1000000 > VEMO_SESSION_ABSOLUTE;
}

void vemo_session_touch(const struct vemo_cgi_session *session) {
  char path[128];
  uid_t before;

  if (time(NULL) - session->last_use < TOUCH_SECONDS) return;
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

static int each_as_root(int (*found)(const struct vemo_cgi_session *session, void *data),
                        void *data) {
  struct vemo_cgi_session session;
  const struct dirent *entry;
  DIR *directory = opendir(VEMO_SESSION_DIR);

  if (directory == NULL) {
    if (errno == ENOENT) return 0;
    VEMO_FAIL_ERRNO();
    return -1;
  }
  flock(dirfd(directory), LOCK_EX);
  while ((entry = readdir(directory)) != NULL) {
    if (!vemo_cgi_is_session_id(entry->d_name)) continue;
    if (read_as_root(entry->d_name, &session) != 1 || vemo_session_is_over(&session)) continue;
    if (found(&session, data)) break;
  }
  closedir(directory);
  return 0;
}

int vemo_session_each(int (*found)(const struct vemo_cgi_session *session, void *data),
                      void *data) {
  uid_t before;

  if (vemo_root_begin(&before) != 0) return -1;
  const int result = each_as_root(found, data);
  vemo_root_end(before);
  return result;
}

void vemo_session_handle(const char *id, char *buffer, size_t size) {
  /* One way: 64 of the 256 bits' hash say nothing about the id. */
  snprintf(buffer, size, "%016llx",
           (unsigned long long)vemo_hash_stable(id, VEMO_SESSION_ID_SIZE));
}

struct json_object *vemo_session_public_record(const struct vemo_cgi_session *session) {
  struct json_object *record = json_object_new_object();
  char handle[32];

  if (record == NULL) return NULL;
  vemo_session_handle(session->id, handle, sizeof handle);
  json_object_object_add(record, "handle", json_object_new_string(handle));
  json_object_object_add(record, "user", json_object_new_string(session->user));
  json_object_object_add(record, "addr", json_object_new_string(session->address));
  json_object_object_add(record, "created", json_object_new_int64(session->created / 1000000));
  json_object_object_add(record, "position", json_object_new_int(session->position));
  json_object_object_add(record, "last_use", json_object_new_int64(session->last_use));
  return record;
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
