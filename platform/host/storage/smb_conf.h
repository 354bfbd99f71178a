/*
 * smb_conf.h - the registry of shares: /etc/samba/smb.conf, read as Samba reads it
 * (smb.conf(5)). Not installed.
 *
 * Names of sections and parameters are compared without regard to case, those of parameters
 * without blanks; of a run of blanks the first one counts; later settings win; a section that
 * ends without a path is not available, even when it is given one later; a backslash at the
 * end of a line continues it; lines that begin with "#" or ";" are comments, and lines without
 * "=" say nothing. "include" takes a path without variables, but for "%h"; "copy" takes the
 * settings of an earlier section. What [global] says of shares before a section begins is that
 * section's default.
 *
 * A file that Samba refuses whole is refused whole: a header without its bracket or name, a
 * setting without a name, a yes or no that is neither (of the parameters known here), a copy
 * of nothing, inclusions without end. Else a slip would open what the next line closes.
 */
#ifndef VEMO_HOST_STORAGE_SMB_CONF_H
#define VEMO_HOST_STORAGE_SMB_CONF_H

#include <stddef.h>

#include <vemo/core.h>

VEMO_BEGIN

/* What is kept of a section. */
enum vemo_smb_parameter {
  VEMO_SMB_PATH,
  VEMO_SMB_READ_ONLY,
  VEMO_SMB_AVAILABLE,
  VEMO_SMB_PRINTABLE,
  VEMO_SMB_HIDE_UNREADABLE,
  VEMO_SMB_INVALID_USERS,
  VEMO_SMB_VALID_USERS,
  VEMO_SMB_READ_LIST,
  VEMO_SMB_WRITE_LIST,
  VEMO_SMB_RESTRICTIONS, /* from here on options "vemo:...", without defaults of their own */
  VEMO_SMB_ENCRYPTED,
  VEMO_SMB_PARAMETERS
};

struct vemo_smb_section {
  const char *name; /* as written first */
  const char *path; /* absolute, no slash at its end; NULL: it is no share */
  const char *values[VEMO_SMB_PARAMETERS];
  unsigned own; /* bits of the parameters that the section itself set */
};

struct vemo_smb_conf {
  const struct vemo_smb_section *sections;
  size_t count;
  size_t share_count;                             /* those with a path */
  const struct vemo_smb_section **shares_by_name; /* sorted, without regard to case */
  const struct vemo_smb_section **shares_by_path; /* sorted */
  const struct vemo_smb_section *homes;           /* [homes]; NULL: there is none */
  const VEMOSZHASH *global;                       /* names in lower case, without blanks */
};

/* The configuration, read once a process and again when one of its files changed: valid until
 * the next call. NULL when the file cannot be read (recorded): VEMOERR_NOT_FOUND,
 * VEMOERR_NO_PERM, VEMOERR_FORMAT for what Samba refuses, what holds a NUL byte or is more
 * than 16 MiB with all that it includes. */
const struct vemo_smb_conf *vemo_smb_conf(void);

/* The share of this name, or with this very path; NULL. */
const struct vemo_smb_section *vemo_smb_share_named(const struct vemo_smb_conf *conf,
                                                    const char *name);
const struct vemo_smb_section *vemo_smb_share_at(const struct vemo_smb_conf *conf,
                                                 const char *path);

/* Whether a text says yes, no, or neither (`otherwise`, also for NULL). */
int vemo_smb_bool(const char *text, int otherwise);

/* A parameter of [global], its name as one likes to write it, cut to the size. 1; 0 it is not
 * set; -1 the file cannot be read. */
int vemo_smb_conf_global(const char *parameter, char *buffer, size_t size);

VEMO_END
#endif
