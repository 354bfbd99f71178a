/* Grants of applications, in an SQLite database that everybody may read:
 *
 *   CREATE TABLE grants(app TEXT NOT NULL, kind TEXT NOT NULL, name TEXT NOT NULL,
 *                       cidr TEXT NOT NULL, PRIMARY KEY(app, kind, name, cidr));
 *
 * kind "user", "group" or "everyone" (name ""); cidr "" or a range of addresses such as
 * "192.168.1.0/24", from where the grant holds. */
#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <grp.h>
#include <pwd.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "core/internal.h"

#define DATABASE "/usr/vemo/etc/app_priv.db"

enum { BUSY_MILLISECONDS = 2000 };

struct sqlite_calls {
  int (*open)(const char *, sqlite3 **, int, const char *);
  int (*close)(sqlite3 *);
  int (*busy_timeout)(sqlite3 *, int);
  int (*prepare)(sqlite3 *, const char *, int, sqlite3_stmt **, const char **);
  int (*bind_text)(sqlite3_stmt *, int, const char *, int, void (*)(void *));
  int (*step)(sqlite3_stmt *);
  const unsigned char *(*column_text)(sqlite3_stmt *, int);
  int (*finalize)(sqlite3_stmt *);
};

static int open_sqlite(struct sqlite_calls *sql) {
  void *library = dlopen("libsqlite3.so.0", RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);

  if (library == NULL || vemo_find_function(library, "sqlite3_open_v2", &sql->open) ||
      vemo_find_function(library, "sqlite3_close", &sql->close) ||
      vemo_find_function(library, "sqlite3_busy_timeout", &sql->busy_timeout) ||
      vemo_find_function(library, "sqlite3_prepare_v2", &sql->prepare) ||
      vemo_find_function(library, "sqlite3_bind_text", &sql->bind_text) ||
      vemo_find_function(library, "sqlite3_step", &sql->step) ||
      vemo_find_function(library, "sqlite3_column_text", &sql->column_text) ||
      vemo_find_function(library, "sqlite3_finalize", &sql->finalize)) {
    VEMO_FAIL(VEMOERR_NO_SERVICE);
    return -1;
  }
  return 0;
}

/* An address or a range, as 16 bytes and a number of bits; IPv4 mapped into IPv6 (RFC
 * 4291, section 2.5.5.2). 0; -1 it is none. */
static int parse_range(const char *text, unsigned char *address, int *bits) {
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
  const long given = strtol(text + size + 1, &end, 10);
  if (end == text + size + 1 || *end != '\0' || given < 0 || given > (is_v4 ? 32 : 128)) return -1;
  *bits = (int)given + (is_v4 ? 96 : 0);
  return 0;
}

/* A range that cannot be read holds nobody. */
static int is_within(const char *address, const char *range) {
  unsigned char a[16], r[16];
  int all, bits;

  if (*range == '\0' || *address == '\0') return 1;
  if (parse_range(address, a, &all) != 0 || parse_range(range, r, &bits) != 0) return 0;
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

static const char *text_at(const struct sqlite_calls *sql, sqlite3_stmt *row, int column) {
  const unsigned char *text = sql->column_text(row, column);

  return text == NULL ? "" : (const char *)text;
}

static int ask(const struct sqlite_calls *sql, sqlite3 *database, const char *user, const char *app,
               const char *address) {
  sqlite3_stmt *rows = NULL;
  int granted = 0, state;

  sql->busy_timeout(database, BUSY_MILLISECONDS);
  state =
      sql->prepare(database, "SELECT kind, name, cidr FROM grants WHERE app = ?", -1, &rows, NULL);
  if (state == SQLITE_OK) state = sql->bind_text(rows, 1, app, -1, SQLITE_STATIC);
  if (state == SQLITE_OK) {
    while (!granted && (state = sql->step(rows)) == SQLITE_ROW) {
      granted = is_within(address, text_at(sql, rows, 2)) &&
                is_for(user, text_at(sql, rows, 0), text_at(sql, rows, 1));
    }
  }
  sql->finalize(rows);
  if (granted) return 1;
  if (state == SQLITE_DONE) return 0;
  VEMO_FAIL(VEMOERR_NO_SERVICE);
  return -1;
}

int VLIBAppPrivUserHas(const char *user, const char *app, const char *address) {
  struct sqlite_calls sql;
  sqlite3 *database = NULL;
  int result = -1;

  if (user == NULL || *user == '\0' || app == NULL || *app == '\0') {
    VEMO_FAIL_PARAM();
    return -1;
  }
  /* Nothing was ever granted. */
  if (access(DATABASE, F_OK) != 0 && errno == ENOENT) return 0;
  if (open_sqlite(&sql) != 0) return -1;
  if (sql.open(DATABASE, &database, SQLITE_OPEN_READONLY, NULL) == SQLITE_OK) {
    result = ask(&sql, database, user, app, address == NULL ? "" : address);
  } else {
    VEMO_FAIL(VEMOERR_NO_SERVICE);
  }
  sql.close(database);
  return result;
}
