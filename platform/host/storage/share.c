/* Shares: sections of smb.conf with a path, and the virtual share of all homes. */
#include <vemo/share.h>

#include <errno.h>
#include <grp.h>
#include <netdb.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include <vemo/user.h>
#include <vemo/volume.h>

#include "core/internal.h"
#include "storage/smb_conf.h"

#define SETTINGS "/etc/vemoinfo.conf"
#define HOMES "homes"
#define HOMES_LOCATION "/volume1/homes"
#define LIST_SEPARATORS " \t,;\n\r"

/* What decides about rights, kept with the record: a later reading does not change it. */
struct vemo_share_state {
  char *invalid_users, *valid_users, *read_list, *write_list; /* NULL: not set */
  int read_only, hide_unreadable, is_homes;
};

/* --- Records --------------------------------------------------------------------- */

static int copy_value(const char *value, char **copy) {
  if (value == NULL || *value == '\0') return 0;
  *copy = strdup(value);
  return *copy == NULL ? -1 : 0;
}

static int fill_state(struct vemo_share_state *state, const struct vemo_smb_section *section) {
  if (section == NULL) return 0;
  const char *const *values = section->values;
  state->read_only = vemo_smb_bool(values[VEMO_SMB_READ_ONLY], 1);
  state->hide_unreadable = vemo_smb_bool(values[VEMO_SMB_HIDE_UNREADABLE], 0);
  return copy_value(values[VEMO_SMB_INVALID_USERS], &state->invalid_users) == 0 &&
                 copy_value(values[VEMO_SMB_VALID_USERS], &state->valid_users) == 0 &&
                 copy_value(values[VEMO_SMB_READ_LIST], &state->read_list) == 0 &&
                 copy_value(values[VEMO_SMB_WRITE_LIST], &state->write_list) == 0
             ? 0
             : -1;
}

static VEMOSHARE *make_share(const char *name, const char *path,
                             const struct vemo_smb_section *section) {
  VEMOSHARE *share = calloc(1, sizeof *share);

  if (share == NULL) return NULL;
  share->name = strdup(name);
  share->path = strdup(path);
  share->state = calloc(1, sizeof *share->state);
  if (share->name == NULL || share->path == NULL || share->state == NULL ||
      fill_state(share->state, section) != 0) {
    VEMOShareFree(share);
    return NULL;
  }
  if (section == NULL) return share;
  const char *restrictions = section->values[VEMO_SMB_RESTRICTIONS];
  if (restrictions != NULL) share->restrictions = (int)strtol(restrictions, NULL, 10);
  if (vemo_smb_bool(section->values[VEMO_SMB_ENCRYPTED], 0)) {
    share->status |= VEMOSHARE_STATUS_ENCRYPTED;
  }
  return share;
}

void VEMOShareFree(VEMOSHARE *share) {
  if (share == NULL) return;
  if (share->state != NULL) {
    free(share->state->invalid_users);
    free(share->state->valid_users);
    free(share->state->read_list);
    free(share->state->write_list);
  }
  free(share->state);
  free(share->path);
  free(share->name);
  free(share);
}

/* --- The virtual share of all homes --------------------------------------------------- */

/* Where homes are; 0 while the home service is off, or a section has the name. */
static int homes_path(const struct vemo_smb_conf *conf, char *path, size_t size) {
  if (vemo_smb_share_named(conf, HOMES) != NULL) return 0;
  if (!VEMOServiceUserHomeIsEnabled(VEMOUSER_LOCAL)) return 0;
  if (VLIBCFileGetKeyValue(SETTINGS, "userhome_location", path, (int)size) != 1 || *path != '/') {
    snprintf(path, size, HOMES_LOCATION);
  }
  size_t length = strlen(path);
  while (length > 1 && path[length - 1] == '/')
    path[--length] = '\0';
  return 1;
}

static VEMOSHARE *make_homes(const struct vemo_smb_conf *conf, const char *path) {
  VEMOSHARE *share = make_share(HOMES, path, conf->homes);

  if (share != NULL) share->state->is_homes = 1;
  return share;
}

/* --- Finding ------------------------------------------------------------------------------ */

int VEMOShareGet(const char *name, VEMOSHARE **share) {
  char homes[4096];

  if (share == NULL) {
    VEMO_FAIL_PARAM();
    return -1;
  }
  *share = NULL;
  if (name == NULL || *name == '\0') {
    VEMO_FAIL_PARAM();
    return -1;
  }
  const struct vemo_smb_conf *conf = vemo_smb_conf();
  if (conf == NULL) return -1;
  const struct vemo_smb_section *section = vemo_smb_share_named(conf, name);
  if (section != NULL) {
    *share = make_share(section->name, section->path, section);
  } else if (strcasecmp(name, HOMES) == 0 && homes_path(conf, homes, sizeof homes)) {
    *share = make_homes(conf, homes);
  } else {
    VEMO_FAIL_AS(ENOENT, VEMOERR_NO_SHARE);
    return -1;
  }
  if (*share == NULL) VEMO_FAIL_AS(ENOMEM, VEMOERR_NO_MEMORY);
  return *share == NULL ? -1 : 0;
}

/* A real path has no such parts; one that has is not looked up, for it may lead anywhere. */
static int has_dots(const char *path) {
  for (const char *part = path; part != NULL; part = strchr(part, '/')) {
    part += *part == '/';
    const size_t size = strcspn(part, "/");
    if ((size == 1 && part[0] == '.') || (size == 2 && part[0] == '.' && part[1] == '.')) return 1;
  }
  return 0;
}

static int put_both(const char *name, int name_size, const char *path, int path_size,
                    char *name_buffer, char *path_buffer) {
  if (strlen(name) >= (size_t)name_size || strlen(path) >= (size_t)path_size) {
    VEMO_FAIL_AS(ENAMETOOLONG, VEMOERR_TOO_LONG);
    return -1;
  }
  strcpy(name_buffer, name);
  strcpy(path_buffer, path);
  return 0;
}

/* Cuts the last part off. 0: nothing is left. */
static int go_up(char *path) {
  char *slash = strrchr(path, '/');

  if (slash == NULL || path[1] == '\0') return 0;
  slash[slash == path ? 1 : 0] = '\0';
  return 1;
}

int VEMOShareNamePathGet(const char *path, char *name, int name_size, char *share_path,
                         int share_path_size) {
  char at[4096], homes[4096];

  if (path == NULL || *path != '/' || name == NULL || name_size < 1 || share_path == NULL ||
      share_path_size < 1) {
    VEMO_FAIL_PARAM();
    return -1;
  }
  if (has_dots(path) || strlen(path) >= sizeof at) {
    VEMO_FAIL_AS(EINVAL, VEMOERR_PATH_REFUSED);
    return -1;
  }
  const struct vemo_smb_conf *conf = vemo_smb_conf();
  if (conf == NULL) return -1;
  const int has_homes = homes_path(conf, homes, sizeof homes);
  strcpy(at, path);
  size_t length = strlen(at);
  while (length > 1 && at[length - 1] == '/')
    at[--length] = '\0';
  do {
    const struct vemo_smb_section *share = vemo_smb_share_at(conf, at);
    if (share != NULL) {
      return put_both(share->name, name_size, share->path, share_path_size, name, share_path);
    }
    if (has_homes && strcmp(at, homes) == 0) {
      return put_both(HOMES, name_size, homes, share_path_size, name, share_path);
    }
  } while (go_up(at));
  VEMO_FAIL_AS(ENOENT, VEMOERR_NO_SHARE);
  return -1;
}

int VEMOShareEnum(VEMOSZLIST **names) {
  char homes[4096];
  int failed = 0;

  if (names == NULL) {
    VEMO_FAIL_PARAM();
    return -1;
  }
  *names = NULL;
  const struct vemo_smb_conf *conf = vemo_smb_conf();
  if (conf == NULL) return -1;
  int with_homes = homes_path(conf, homes, sizeof homes);
  const int count = (int)conf->share_count + with_homes;
  VEMOSZLIST *list = VLIBCSzListAlloc(count);
  if (list == NULL) return -1;
  for (size_t i = 0; i < conf->share_count && !failed; i++) {
    const char *name = conf->shares_by_name[i]->name;
    if (with_homes && strcasecmp(HOMES, name) < 0) {
      failed = VLIBCSzListPush(&list, HOMES);
      with_homes = 0;
    }
    failed = failed || VLIBCSzListPush(&list, name);
  }
  if (with_homes && !failed) failed = VLIBCSzListPush(&list, HOMES);
  if (failed) {
    VLIBCSzListFree(list);
    return -1;
  }
  *names = list;
  return count;
}

/* --- Rights ---------------------------------------------------------------------------------- */

struct account {
  const char *name; /* as the account is called */
  gid_t gid;
};

/* Whether an entry means the account. One that nobody here can tell is held against it: it
 * takes rights away where it can, and gives none. */
enum answer { NO, YES, UNKNOWN };

static enum answer is_in_unix_group(const struct account *account, const char *name) {
  struct group group;
  char *texts;

  const int error = vemo_find_group(name, &group, &texts);
  if (error == ENOENT) return NO;
  if (error != 0) return UNKNOWN;
  const int member = vemo_is_in_group(account->name, account->gid, group.gr_gid);
  free(texts);
  return member < 0 ? UNKNOWN : member ? YES : NO;
}

/* The name behind "DOMAIN\"; the whole name where another domain stands before it. */
static const char *without_domain(const char *name, const char *domain) {
  const size_t size = strlen(domain);

  return size > 0 && strncasecmp(name, domain, size) == 0 && name[size] == '\\' ? name + size + 1
                                                                                : name;
}

/* Local accounts belong to this machine's own domain. */
static int is_account(const struct account *account, const char *name) {
  char machine[256] = "";

  if (strcasecmp(name, account->name) == 0) return 1;
  if (strchr(name, '\\') == NULL || strchr(account->name, '\\') != NULL) return 0;
  if (vemo_smb_conf_global("netbios name", machine, sizeof machine) != 1) {
    gethostname(machine, sizeof machine - 1);
    machine[strcspn(machine, ".")] = '\0';
    machine[15] = '\0'; /* what a name may have there */
  }
  return strcasecmp(without_domain(name, machine), account->name) == 0 ||
         strcasecmp(without_domain(name, "Unix User"), account->name) == 0;
}

/* "@" is a netgroup and then a group, "+" a group, "&" a netgroup, "+&" and "&+" both. */
static enum answer is_meant(const struct account *account, const char *entry) {
  const int both = *entry == '@' || strncmp(entry, "+&", 2) == 0 || strncmp(entry, "&+", 2) == 0;
  const int group = both || *entry == '+', netgroup = both || *entry == '&';
  const char *name = entry + (both && *entry != '@' ? 2 : group || netgroup);

  if (*name == '\0') return NO;
  if (!group && !netgroup) return is_account(account, name) ? YES : NO;
  if (netgroup && innetgr(name, NULL, account->name, NULL) == 1) return YES;
  return group ? is_in_unix_group(account, without_domain(name, "Unix Group")) : NO;
}

/* Puts the share's or the user's name in the place of "%S" and "%U". 0; -1: another variable,
 * or too long. */
static int fill_in(const char *entry, const char *share, const char *user, char *filled,
                   size_t size) {
  size_t used = 0;

  for (const char *c = entry; *c != '\0'; c++) {
    const char *piece = c;
    size_t length = 1;
    if (*c == '%') {
      c++;
      piece = *c == 'S' ? share : *c == 'U' ? user : NULL;
      if (piece == NULL) return -1;
      length = strlen(piece);
    }
    if (used + length >= size) return -1;
    memcpy(filled + used, piece, length);
    used += length;
  }
  filled[used] = '\0';
  return 0;
}

/* Takes the next entry of a list: quotes, wherever they stand, keep separators in and are
 * dropped. Where the list goes on; NULL at its end. */
static const char *next_entry(const char *list, char *entry, size_t size) {
  size_t used = 0;
  int quoted = 0;

  list += strspn(list, LIST_SEPARATORS);
  if (*list == '\0') return NULL;
  for (; *list != '\0' && (quoted || strchr(LIST_SEPARATORS, *list) == NULL); list++) {
    if (*list == '"')
      quoted = !quoted;
    else if (used + 1 < size)
      entry[used++] = *list;
  }
  entry[used] = '\0';
  return list;
}

static enum answer is_listed(const struct account *account, const VEMOSHARE *share,
                             const char *list) {
  char entry[1024], filled[2048];
  enum answer result = NO;
  /* To Samba everybody's home is a share of that name. */
  const char *name = share->state->is_homes ? account->name : share->name;

  if (list == NULL) return NO;
  while ((list = next_entry(list, entry, sizeof entry)) != NULL) {
    const int filled_in = fill_in(entry, name, account->name, filled, sizeof filled) == 0;
    const enum answer answer = filled_in ? is_meant(account, filled) : UNKNOWN;
    if (answer == YES) return YES;
    if (answer == UNKNOWN) result = UNKNOWN;
  }
  return result;
}

static int decide(const struct account *account, const VEMOSHARE *share, const char **reason) {
  const struct vemo_share_state *state = share->state;

  *reason = "homes";
  if (state->is_homes && VLIBGroupIsAdminGroupMem(account->name, 0) != 1)
    return VEMOSHARE_PRIV_NONE;
  *reason = "invalid users";
  if (is_listed(account, share, state->invalid_users) != NO) return VEMOSHARE_PRIV_NONE;
  *reason = "valid users";
  if (state->valid_users != NULL && is_listed(account, share, state->valid_users) != YES) {
    return VEMOSHARE_PRIV_NONE;
  }
  *reason = "write list";
  if (is_listed(account, share, state->write_list) == YES) return VEMOSHARE_PRIV_RW;
  *reason = "read list";
  if (is_listed(account, share, state->read_list) != NO) return VEMOSHARE_PRIV_RO;
  *reason = state->is_homes ? "homes" : "read only";
  return state->read_only && !state->is_homes ? VEMOSHARE_PRIV_RO : VEMOSHARE_PRIV_RW;
}

int VEMOShareUserPrivReasonGet(const char *user, const VEMOSHARE *share, char *reason, int size) {
  struct passwd record;
  char *texts;
  const char *why;

  if (user == NULL || *user == '\0' || share == NULL || share->state == NULL || reason == NULL ||
      size < 1) {
    VEMO_FAIL_PARAM();
    return -1;
  }
  const int error = vemo_find_user(user, &record, &texts);
  if (error != 0) {
    VEMO_FAIL_AS(error, error == ENOENT ? VEMOERR_NO_USER : VEMOERR_NO_SERVICE);
    return -1;
  }
  const struct account account = {record.pw_name, record.pw_gid};
  const int privilege = decide(&account, share, &why);
  snprintf(reason, (size_t)size, "%s", why);
  free(texts);
  return privilege;
}

int VEMOShareUserPrivGet(const char *user, const VEMOSHARE *share) {
  char reason[32];

  return VEMOShareUserPrivReasonGet(user, share, reason, sizeof reason);
}

int VLIBShareHideUnreadableGet(const VEMOSHARE *share, int *hide) {
  if (share == NULL || share->state == NULL || hide == NULL) {
    VEMO_FAIL_PARAM();
    return -1;
  }
  *hide = share->state->hide_unreadable;
  return 0;
}
