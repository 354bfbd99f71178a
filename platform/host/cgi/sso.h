/*
 * sso.h - ID tokens of single sign-on (OpenID Connect Core 1.0, section 3.1.3.7).
 *
 * The configuration, /usr/vemo/etc/sso/oidc.json or azure.json, root's:
 *
 *   {"issuer": "https://id.example",       may hold "{tenantid}"
 *    "audience": "client-id",
 *    "keys": "/usr/vemo/etc/sso/keys.json", a JSON Web Key Set (RFC 7517)
 *    "claim": "preferred_username",         which claim names the account
 *    "tenants": ["..."]}                    required where the issuer has a tenant
 */
#ifndef VEMO_HOST_CGI_SSO_H
#define VEMO_HOST_CGI_SSO_H

#include <vemo/types.h>

/* Checks a token: signature by a key of the key set and the algorithm that fits it,
 * issuer, audience, times (60 seconds of leeway), nonce. 1: good, and the account's
 * name in `user`, whether the provider vouches for more than one factor in
 * `*strong`; 0: refused; -1: no configuration, no library. The reason is logged,
 * the token never. */
int vemo_sso_verify(const char *config_file, const char *token, const char *nonce,
                    BOOL nonce_required, char *user, int size, int *strong);

#endif
