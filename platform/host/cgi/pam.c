/* Password checks through PAM. */
#include "cgi/pam.h"

#include <dlfcn.h>
#include <security/pam_appl.h>
#include <stdlib.h>
#include <string.h>

#include "cgi/state.h"

struct pam_calls {
  int (*start)(const char *, const char *, const struct pam_conv *, pam_handle_t **);
  int (*set_item)(pam_handle_t *, int, const void *);
  int (*authenticate)(pam_handle_t *, int);
  int (*acct_mgmt)(pam_handle_t *, int);
  int (*end)(pam_handle_t *, int);
};

static int find(void *library, const char *name, void *function) {
  void *found = dlsym(library, name);

  memcpy(function, &found, sizeof found);
  return found == NULL;
}

static int open_pam(struct pam_calls *pam) {
  void *library = dlopen("libpam.so.0", RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);

  if (library == NULL || find(library, "pam_start", &pam->start) ||
      find(library, "pam_set_item", &pam->set_item) ||
      find(library, "pam_authenticate", &pam->authenticate) ||
      find(library, "pam_acct_mgmt", &pam->acct_mgmt) || find(library, "pam_end", &pam->end)) {
    VEMO_FAIL(VEMOERR_NO_SERVICE);
    return -1;
  }
  return 0;
}

/* Answers the question for the password; any other is not ours to answer. */
static int answer(int count, const struct pam_message **messages, struct pam_response **responses,
                  void *password) {
  struct pam_response *answers;

  if (count < 1 || count > PAM_MAX_NUM_MSG) return PAM_CONV_ERR;
  answers = calloc((size_t)count, sizeof *answers);
  if (answers == NULL) return PAM_BUF_ERR;
  for (int i = 0; i < count; i++) {
    const int style = messages[i]->msg_style;
    if (style == PAM_TEXT_INFO || style == PAM_ERROR_MSG) continue;
    if (style == PAM_PROMPT_ECHO_OFF && (answers[i].resp = strdup(password)) != NULL) continue;
    while (i-- > 0)
      free(answers[i].resp);
    free(answers);
    return PAM_CONV_ERR;
  }
  *responses = answers;
  return PAM_SUCCESS;
}

/* The counters slow guessing down: a delay here would only hold the process, and
 * tell by its length. */
static void no_delay(int result, unsigned int microseconds, void *data) {
  (void)result;
  (void)microseconds;
  (void)data;
}

/* What an answer of PAM's says; `refused` is what a refusal means at this step. */
static enum vemo_pam meaning_of(int result, enum vemo_pam refused) {
  switch (result) {
    case PAM_SUCCESS:
      return VEMO_PAM_GOOD;
    case PAM_AUTH_ERR:
    case PAM_USER_UNKNOWN:
    case PAM_MAXTRIES:
    case PAM_CRED_INSUFFICIENT:
    case PAM_PERM_DENIED:
      return refused;
    case PAM_ACCT_EXPIRED:
    case PAM_NEW_AUTHTOK_REQD:
    case PAM_AUTHTOK_EXPIRED:
      return VEMO_PAM_NO_ACCOUNT;
    default:
      VEMO_FAIL(VEMOERR_NO_SERVICE);
      return VEMO_PAM_FAULT;
  }
}

static enum vemo_pam ask(const struct pam_calls *pam, pam_handle_t *handle, const char *address) {
  void (*delay)(int, unsigned int, void *) = no_delay;
  const void *delay_item;

  memcpy(&delay_item, &delay, sizeof delay_item);
  pam->set_item(handle, PAM_FAIL_DELAY, delay_item);
  if (*address != '\0') pam->set_item(handle, PAM_RHOST, address);
  const int result = pam->authenticate(handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
  if (result != PAM_SUCCESS) return meaning_of(result, VEMO_PAM_REFUSED);
  return meaning_of(pam->acct_mgmt(handle, PAM_SILENT), VEMO_PAM_NO_ACCOUNT);
}

enum vemo_pam vemo_pam_check(const char *user, const char *password, const char *address) {
  char *copy = strdup(password);
  const struct pam_conv conversation = {answer, copy};
  pam_handle_t *handle = NULL;
  struct pam_calls pam;
  enum vemo_pam result = VEMO_PAM_FAULT;

  if (copy != NULL && open_pam(&pam) == 0) {
    if (pam.start("vemo", user, &conversation, &handle) == PAM_SUCCESS) {
      result = ask(&pam, handle, address);
      pam.end(handle, PAM_SUCCESS);
    } else {
      VEMO_FAIL(VEMOERR_NO_SERVICE);
    }
  }
  if (copy != NULL) explicit_bzero(copy, strlen(copy));
  free(copy);
  return result;
}
