/* audit.h - lines of the security log: who, from where, what became of it. They
 * never hold a password, a code, a token or a session's id. */
#ifndef VEMO_HOST_CGI_AUDIT_H
#define VEMO_HOST_CGI_AUDIT_H

/* Logs `user` from `address`: "login of user \"alice\" from 192.0.2.1 by password:
 * accepted". The name and the address may be anybody's text: they are cut, and what
 * is no printable ASCII is written as \xNN. */
void vemo_audit_login(const char *user, const char *address, const char *how, int accepted,
                      const char *outcome);

/* Logs a request that was refused. */
void vemo_audit_request(const char *user, const char *address, const char *outcome);

#endif
