/*
 * grants.h - the database in which grants of applications stand. Not installed.
 *
 *   CREATE TABLE grants(app TEXT NOT NULL, kind TEXT NOT NULL, name TEXT NOT NULL,
 *                       cidr TEXT NOT NULL, PRIMARY KEY(app, kind, name, cidr));
 *
 * kind "user", "group" or "everyone" (name ""); cidr "" or a range of addresses such as
 * "192.168.1.0/24", from where the grant holds. Everybody may read it; it keeps a rollback
 * journal, because readers under a write-ahead log would have to write.
 */
#ifndef VEMO_HOST_CORE_GRANTS_H
#define VEMO_HOST_CORE_GRANTS_H

#include <stdint.h>

#include <vemo/core.h>

struct vemo_grants {
  struct sqlite3 *database;
  const struct vemo_sqlite *calls;
};

/* Opens the database; with `writable` as root, and made when missing. 1; 0 nothing was ever
 * granted (only without `writable`); -1 (recorded). Closed in any case but -1. */
int vemo_grants_open(struct vemo_grants *grants, int writable);
void vemo_grants_close(struct vemo_grants *grants);

/* Runs a statement with these texts in the place of its question marks, and calls `found`
 * (NULL: no rows are expected) with up to four columns of each row until it returns non-zero.
 * The number of rows that were changed or handed over; -1 (recorded). */
int vemo_grants_run(struct vemo_grants *grants, const char *statement, const char *const texts[],
                    int count, int (*found)(const char *const columns[], void *data), void *data);

/* A client's address or a range of them, IPv4 mapped into IPv6 (RFC 4291, section 2.5.5.2).
 * 0; -1 the text is none. */
int vemo_parse_range(const char *text, unsigned char address[16], int *bits);

#endif
