/* account.h - the state of an account, as the name service tells it. */
#ifndef VEMO_HOST_CGI_ACCOUNT_H
#define VEMO_HOST_CGI_ACCOUNT_H

#include <stddef.h>

enum vemo_account {
  VEMO_ACCOUNT_FAULT = -1, /* the name service fails (recorded) */
  VEMO_ACCOUNT_UNKNOWN = 0,
  VEMO_ACCOUNT_GOOD = 1,
  VEMO_ACCOUNT_DISABLED = 2 /* its password is locked, or its date has passed */
};

enum { VEMO_HASH_LIMIT = 512 };

/* What is known of an account's password. */
struct vemo_password {
  int unchecked;              /* PAM has nothing to compare with: locked, or none at all */
  char hash[VEMO_HASH_LIMIT]; /* of a locked one, without the lock; else "" */
};

/* The state of the account; its name as the name service writes it in `name`
 * ("" when unknown); its password's state in `*password` unless NULL. */
enum vemo_account vemo_account_state(const char *user, char *name, size_t name_size,
                                     struct vemo_password *password);

/* Whether the account may use the system now. 1, 0; -1 the name service fails. */
int vemo_account_is_usable(const char *user);

/* Checks a password against a hash of crypt(5); with an empty hash against none,
 * in the same time. 1, 0. */
int vemo_password_matches(const char *password, const char *hash);

#endif
