/* account.h - the state of an account, as the name service tells it. */
#ifndef VEMO_HOST_CGI_ACCOUNT_H
#define VEMO_HOST_CGI_ACCOUNT_H

#include <stddef.h>

enum vemo_account {
  VEMO_ACCOUNT_FAULT = -1,
  VEMO_ACCOUNT_UNKNOWN = 0,
  VEMO_ACCOUNT_GOOD = 1,
  VEMO_ACCOUNT_LOCKED = 2, /* the password is locked */
  VEMO_ACCOUNT_EXPIRED = 3 /* the account's date has passed */
};

/* The state of the account; its name as the name service writes it in `name`,
 * and, for a locked one, the password's hash without the lock in `hash`. */
enum vemo_account vemo_account_state(const char *user, char *name, size_t name_size, char *hash,
                                     size_t hash_size);

/* Whether the account may use the system now. 1, 0; -1 the name service fails. */
int vemo_account_is_usable(const char *user);

/* Checks a password against a hash of crypt(5); with an empty hash against none,
 * in the same time. 1, 0. */
int vemo_password_matches(const char *password, const char *hash);

#endif
