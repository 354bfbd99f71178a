/*
 * smb_conf.h - the registry of shares: /etc/samba/smb.conf, read as Samba reads it
 * (smb.conf(5)). Not installed.
 *
 * Names of sections and parameters are compared without regard to case, those of parameters
 * without blanks; runs of blanks in a section's name are one, also at its ends; later settings
 * win; a section that ends without a path is not available, even when it is given one later; a
 * backslash at the end of a line continues it; lines that begin with "#" or ";" are comments.
 * "include" takes a path without variables, but for
 * "%h"; "copy" takes the settings of an earlier section. What [global] says of shares before
 * a section begins is that section's default.
 */
#ifndef VEMO_HOST_STORAGE_SMB_CONF_H
#define VEMO_HOST_STORAGE_SMB_CONF_H

#include <stddef.h>

#include <vemo/core.h>

VEMO_BEGIN

struct vemo_smb_section {
  const char *name;         /* as written first */
  const char *path;         /* absolute, no slash at its end; NULL: it is no share */
  VEMOSZHASH *own;          /* parameter: value; names in lower case, without blanks */
  VEMOSZHASH *general;      /* what [global] had said before; shared by sections */
  const VEMOSZHASH *global; /* what it says in the end */
};

struct vemo_smb_conf {
  const struct vemo_smb_section *sections;
  size_t count;
  size_t share_count;                             /* those with a path */
  const struct vemo_smb_section **shares_by_name; /* sorted, without regard to case */
  const struct vemo_smb_section **shares_by_path; /* sorted */
  const struct vemo_smb_section *homes;           /* [homes]; NULL: there is none */
  const VEMOSZHASH *global;
};

/* The configuration, read once a process and again when one of its files changed: valid until
 * the next call. NULL when the file cannot be read (recorded): VEMOERR_NOT_FOUND,
 * VEMOERR_FORMAT for what is no text file of at most 16 MiB. */
const struct vemo_smb_conf *vemo_smb_conf(void);

/* The share of this name, or with this very path; NULL. */
const struct vemo_smb_section *vemo_smb_share_named(const struct vemo_smb_conf *conf,
                                                    const char *name);
const struct vemo_smb_section *vemo_smb_share_at(const struct vemo_smb_conf *conf,
                                                 const char *path);

/* A parameter, its name in lower case and without blanks; NULL: it is not set. */
const char *vemo_smb_value(const struct vemo_smb_section *section, const char *parameter);

/* Whether a text says yes, no, or neither (`otherwise`, also for NULL). */
int vemo_smb_bool(const char *text, int otherwise);

/* A parameter of [global], cut to the size. 1; 0 it is not set; -1 the file cannot be read. */
int vemo_smb_conf_global(const char *parameter, char *buffer, size_t size);

VEMO_END
#endif
