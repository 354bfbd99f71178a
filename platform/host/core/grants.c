/* Grants of applications: the database. */
#include "core/grants.h"

#include <dlfcn.h>
#include <errno.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/internal.h"

#define DATABASE "/usr/vemo/etc/app_priv.db"
#define TABLE                                                                                     \
  "CREATE TABLE IF NOT EXISTS grants(app TEXT NOT NULL, kind TEXT NOT NULL, name TEXT NOT NULL, " \
  "cidr TEXT NOT NULL, PRIMARY KEY(app, kind, name, cidr))"

enum { BUSY_MILLISECONDS = 2000, COLUMNS = 4 };

struct vemo_sqlite {
  int (*open)(const char *, sqlite3 **, int, const char *);
  int (*close)(sqlite3 *);
  int (*busy_timeout)(sqlite3 *, int);
  int (*prepare)(sqlite3 *, const char *, int, sqlite3_stmt **, const char **);
  int (*bind_text)(sqlite3_stmt *, int, const char *, int, void (*)(void *));
  int (*step)(sqlite3_stmt *);
  int (*column_count)(sqlite3_stmt *);
  const unsigned char *(*column_text)(sqlite3_stmt *, int);
  int (*finalize)(sqlite3_stmt *);
  int (*changes)(sqlite3 *);
};

static const struct vemo_sqlite *find_sqlite(void) {
  static struct vemo_sqlite sql;
  static int found;

  if (found) return &sql;
  void *library = dlopen("libsqlite3.so.0", RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (library == NULL || vemo_find_function(library, "sqlite3_open_v2", &sql.open) ||
      vemo_find_function(library, "sqlite3_close", &sql.close) ||
      vemo_find_function(library, "sqlite3_busy_timeout", &sql.busy_timeout) ||
      vemo_find_function(library, "sqlite3_prepare_v2", &sql.prepare) ||
      vemo_find_function(library, "sqlite3_bind_text", &sql.bind_text) ||
      vemo_find_function(library, "sqlite3_step", &sql.step) ||
      vemo_find_function(library, "sqlite3_column_count", &sql.column_count) ||
      vemo_find_function(library, "sqlite3_column_text", &sql.column_text) ||
      vemo_find_function(library, "sqlite3_finalize", &sql.finalize) ||
      vemo_find_function(library, "sqlite3_changes", &sql.changes)) {
    VEMO_FAIL(VEMOERR_NO_SERVICE);
    return NULL;
  }
  found = 1;
  return &sql;
}

static int fail(void) {
  VEMO_FAIL(VEMOERR_NO_SERVICE);
  return -1;
}

/* Everybody is to read it, whatever the umask. */
static int open_writable(struct vemo_grants *grants) {
  const mode_t mask = umask(022);
  const int state = grants->calls->open(DATABASE, &grants->database,
                                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, NULL);
  int result = -1;

  if (state == SQLITE_OK) {
    grants->calls->busy_timeout(grants->database, BUSY_MILLISECONDS);
    result = vemo_grants_run(grants, TABLE, NULL, 0, NULL, NULL);
  }
  umask(mask);
  return result < 0 ? -1 : 1;
}

int vemo_grants_open(struct vemo_grants *grants, int writable) {
  *grants = (struct vemo_grants){0};
  if (!writable && access(DATABASE, F_OK) != 0 && errno == ENOENT) return 0;
  grants->calls = find_sqlite();
  if (grants->calls == NULL) return -1;
  int opened = -1;
  if (writable) {
    opened = open_writable(grants);
  } else if (grants->calls->open(DATABASE, &grants->database, SQLITE_OPEN_READONLY, NULL) ==
             SQLITE_OK) {
    grants->calls->busy_timeout(grants->database, BUSY_MILLISECONDS);
    opened = 1;
  }
  if (opened > 0) return 1;
  vemo_grants_close(grants);
  return fail();
}

void vemo_grants_close(struct vemo_grants *grants) {
  if (grants->calls != NULL) grants->calls->close(grants->database);
  *grants = (struct vemo_grants){0};
}

/* Hands a row over. Non-zero: that was enough. */
static int hand_over(const struct vemo_sqlite *sql, sqlite3_stmt *row,
                     int (*found)(const char *const columns[], void *data), void *data) {
  const char *columns[COLUMNS] = {"", "", "", ""};

  for (int i = 0; i < sql->column_count(row) && i < COLUMNS; i++) {
    const unsigned char *text = sql->column_text(row, i);
    if (text != NULL) columns[i] = (const char *)text;
  }
  return found != NULL && found(columns, data);
}

int vemo_grants_run(struct vemo_grants *grants, const char *statement, const char *const texts[],
                    int count, int (*found)(const char *const columns[], void *data), void *data) {
  const struct vemo_sqlite *sql = grants->calls;
  sqlite3_stmt *prepared = NULL;
  int rows = 0;

  int state = sql->prepare(grants->database, statement, -1, &prepared, NULL);
  for (int i = 0; i < count && state == SQLITE_OK; i++)
    state = sql->bind_text(prepared, i + 1, texts[i], -1, SQLITE_STATIC);
  if (state == SQLITE_OK) {
    while ((state = sql->step(prepared)) == SQLITE_ROW) {
      rows++;
      if (hand_over(sql, prepared, found, data)) break;
    }
  }
  sql->finalize(prepared);
  if (state == SQLITE_ROW) return rows;
  if (state != SQLITE_DONE) return fail();
  return found != NULL ? rows : sql->changes(grants->database);
}
