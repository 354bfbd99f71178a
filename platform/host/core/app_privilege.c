/* Grants of applications: who holds one, and who is given one. */
#include <arpa/inet.h>
#include <grp.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>

#include "core/grants.h"
#include "core/internal.h"

enum { NAME_LIMIT = 255, APPLICATION_LIMIT = 1023 };

int vemo_parse_range(const char *text, unsigned char address[16], int *bits) {
  char copy[INET6_ADDRSTRLEN + 4];
  const size_t size = strcspn(text, "/");
  char *end;

  if (size >= sizeof copy) return -1;
  memcpy(copy, text, size);
  copy[size] = '\0';
  const int is_v4 = inet_pton(AF_INET, copy, address + 12) == 1;
  if (is_v4) {
    memset(address, 0, 10);
    memset(address + 10, 0xff, 2);
  } else if (inet_pton(AF_INET6, copy, address) != 1) {
    return -1;
  }
  *bits = 128;
  if (text[size] == '\0') return 0;
  if (strspn(text + size + 1, "0123456789") != strlen(text + size + 1)) return -1;
  const long given = strtol(text + size + 1, &end, 10);
  if (end == text + size + 1 || *end != '\0' || given < 0 || given > (is_v4 ? 32 : 128)) return -1;
  *bits = (int)given + (is_v4 ? 96 : 0);
  return 0;
}

/* --- Asking -------------------------------------------------------------------- */

/* A range that cannot be read holds nobody. */
static int is_within(const char *address, const char *range) {
  unsigned char a[16], r[16];
  int all, bits;

  if (*range == '\0' || *address == '\0') return 1;
  if (vemo_parse_range(address, a, &all) != 0 || vemo_parse_range(range, r, &bits) != 0) return 0;
  const int bytes = bits / 8, rest = bits % 8;
  if (memcmp(a, r, (size_t)bytes) != 0) return 0;
  return rest == 0 || (a[bytes] ^ r[bytes]) >> (8 - rest) == 0;
}

static int is_member(const char *user, const char *group_name) {
  struct passwd account;
  struct group group;
  char *account_texts, *group_texts = NULL;

  const int known = vemo_find_user(user, &account, &account_texts) == 0 &&
                    vemo_find_group(group_name, &group, &group_texts) == 0;
  free(account_texts);
  free(group_texts);
  return known && vemo_is_in_group(user, account.pw_gid, group.gr_gid) == 1;
}

static int is_for(const char *user, const char *kind, const char *name) {
  if (strcmp(kind, "everyone") == 0) return 1;
  if (strcmp(kind, "user") == 0) return strcmp(user, name) == 0;
  return strcmp(kind, "group") == 0 && is_member(user, name);
}

struct question {
  const char *user, *address;
  int granted;
};

static int answer(const char *const columns[], void *data) {
  struct question *question = data;

  question->granted =
      is_within(question->address, columns[2]) && is_for(question->user, columns[0], columns[1]);
  return question->granted;
}

int VLIBAppPrivUserHas(const char *user, const char *app, const char *address) {
  struct question question = {user, address == NULL ? "" : address, 0};
  struct vemo_grants grants;

  if (user == NULL || *user == '\0' || app == NULL || *app == '\0') {
    VEMO_FAIL_PARAM();
    return -1;
  }
  const int opened = vemo_grants_open(&grants, 0);
  if (opened <= 0) return opened;
  const int rows = vemo_grants_run(&grants, "SELECT kind, name, cidr FROM grants WHERE app = ?",
                                   (const char *const[]){app}, 1, answer, &question);
  vemo_grants_close(&grants);
  return rows < 0 ? -1 : question.granted;
}

/* --- Granting -------------------------------------------------------------------- */

static int is_kind(const char *kind, const char *name) {
  if (strcmp(kind, "everyone") == 0) return *name == '\0';
  return *name != '\0' && (strcmp(kind, "user") == 0 || strcmp(kind, "group") == 0);
}

static int is_grant(const char *app, const char *kind, const char *name, const char *range) {
  unsigned char address[16];
  int bits;

  if (app != NULL && *app != '\0' && strlen(app) <= APPLICATION_LIMIT && kind != NULL &&
      strlen(name) <= NAME_LIMIT && is_kind(kind, name) &&
      (*range == '\0' || vemo_parse_range(range, address, &bits) == 0)) {
    return 1;
  }
  VEMO_FAIL_PARAM();
  return 0;
}

static int is_known(const char *kind, const char *name) {
  const int is_user = strcmp(kind, "user") == 0;
  struct passwd account;
  struct group group;
  char *texts = NULL;

  if (*name == '\0') return 1;
  const int error =
      is_user ? vemo_find_user(name, &account, &texts) : vemo_find_group(name, &group, &texts);
  free(texts);
  if (error == 0) return 1;
  VEMO_FAIL_AS(error, error != ENOENT ? VEMOERR_NO_SERVICE
                      : is_user       ? VEMOERR_NO_USER
                                      : VEMOERR_NO_GROUP);
  return 0;
}

static int change(const char *statement, const char *const texts[], int count) {
  struct vemo_grants grants;
  uid_t before;
  int changed = -1;

  if (vemo_root_begin(&before) != 0) return -1;
  VLIBCSigtermHold();
  if (vemo_grants_open(&grants, 1) == 1) {
    changed = vemo_grants_run(&grants, statement, texts, count, NULL, NULL);
    vemo_grants_close(&grants);
  }
  VLIBCSigtermRelease();
  vemo_root_end(before);
  return changed;
}

int VLIBAppPrivGrant(const char *app, const char *kind, const char *name, const char *range) {
  if (name == NULL) name = "";
  if (range == NULL) range = "";
  if (!is_grant(app, kind, name, range) || !is_known(kind, name)) return -1;
  return change("INSERT OR IGNORE INTO grants VALUES(?, ?, ?, ?)",
                (const char *const[]){app, kind, name, range}, 4);
}

int VLIBAppPrivRevoke(const char *app, const char *kind, const char *name, const char *range) {
  if (name == NULL) name = "";
  if (range == NULL) range = "";
  if (!is_grant(app, kind, name, range)) return -1;
  return change("DELETE FROM grants WHERE app = ? AND kind = ? AND name = ? AND cidr = ?",
                (const char *const[]){app, kind, name, range}, 4);
}

struct listing {
  int (*found)(const char *app, const char *kind, const char *name, const char *range, void *data);
  void *data;
};

static int hand_on(const char *const columns[], void *data) {
  const struct listing *listing = data;

  return listing->found(columns[0], columns[1], columns[2], columns[3], listing->data);
}

int VLIBAppPrivEnum(int (*found)(const char *app, const char *kind, const char *name,
                                 const char *range, void *data),
                    void *data) {
  struct listing listing = {found, data};
  struct vemo_grants grants;

  const int opened = vemo_grants_open(&grants, 0);
  if (opened <= 0) return opened;
  const int rows = vemo_grants_run(
      &grants, "SELECT app, kind, name, cidr FROM grants ORDER BY app, kind, name, cidr", NULL, 0,
      hand_on, &listing);
  vemo_grants_close(&grants);
  return rows;
}
