/* pam.h - password checks through PAM, service "vemo". */
#ifndef VEMO_HOST_CGI_PAM_H
#define VEMO_HOST_CGI_PAM_H

enum vemo_pam {
  VEMO_PAM_FAULT = -1,
  VEMO_PAM_REFUSED = 0, /* wrong name or password */
  VEMO_PAM_GOOD = 1,
  VEMO_PAM_NO_ACCOUNT = 2 /* the password is right, the account may not be used */
};

/* Asks PAM. libpam is opened here: no other request has to load it. */
enum vemo_pam vemo_pam_check(const char *user, const char *password, const char *address);

#endif
