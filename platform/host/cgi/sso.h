/*
 * sso.h - ID tokens of single sign-on (OpenID Connect Core 1.0, section 3.1.3.7;
 * signatures after RFC 7515).
 *
 * The configuration is a JSON object in a file of root's that nobody else may write:
 * /usr/vemo/etc/sso/oidc.json for any OpenID provider,
 *
 *   {"issuer": "https://id.example",
 *    "audience": "client-id",               this appliance's name at the provider
 *    "keys": "/usr/vemo/etc/sso/oidc-keys.json",
 *    "claim": "preferred_username"}         the claim that names the account; that one
 *                                           when left out
 *
 * and /usr/vemo/etc/sso/azure.json for a provider with tenants, whose id, the claim
 * "tid", stands in the issuer's place "{tenantid}"; only those listed are let in:
 *
 *   {"issuer": "https://login.example/{tenantid}/v2.0",
 *    "tenants": ["11111111-2222-3333-4444-555555555555"],
 *    "audience": "client-id", "keys": "...", "claim": "..."}
 *
 * Both members are understood in both files. "keys" is the absolute path of a JSON Web
 * Key Set (RFC 7517), a file of root's too. Of its keys count those of kind RSA, with
 * 2048 bits or more, for RS256 to RS512 and PS256 to PS512, and EC on P-256, P-384 or
 * P-521 for ES256, ES384 or ES512; a key's "alg", "use" and "key_ops" narrow that.
 */
#ifndef VEMO_HOST_CGI_SSO_H
#define VEMO_HOST_CGI_SSO_H

#include <vemo/types.h>

VEMO_BEGIN

/* Checks a token of at most 16 KiB in compact form: its signature by the key that its
 * "kid" names (without one, by the only key) and an algorithm of that key, issuer,
 * tenant, audience, times (60 seconds of leeway), and the nonce: when one is given it
 * must be equal, with `nonce_required` it must be given.
 *
 * 1: good; the account's name in `user` (`size` bytes), a plain name that the name
 * service can be asked for, and in `*strong` whether the provider vouches for more
 * than one factor (RFC 8176's "mfa"). 0: refused (VEMOERR_NO_PERM). -1: no
 * configuration or key set that is root's and can be read, no library (recorded).
 * `user` is "" and `*strong` 0 then. The reason is logged, the token never. */
int vemo_sso_verify(const char *config_file, const char *token, const char *nonce,
                    BOOL nonce_required, char *user, int size, int *strong);

VEMO_END

#endif
