/*
 * vemo/mail.h - mail of the appliance. See vemo/core.h for the conventions.
 */
#ifndef VEMO_MAIL_H
#define VEMO_MAIL_H

#include <vemo/core.h>

VEMO_BEGIN

/* Sends a mail about the appliance: fills a template and hands it to the mailer, which
 * runs on by itself.
 *
 * `mail_template` is a name of [A-Za-z0-9_.-], no leading dot, no path: the file
 * /usr/vemo/share/mail/LANGUAGE/NAME, UTF-8, header lines (of which "Subject:" counts), an
 * empty line, the text. `language` is three letters; NULL: the key "maillang" of
 * /etc/vemoinfo.conf, else "enu", and "enu" also where the language lacks the template.
 *
 * `values` (NULL: none) maps placeholders as they stand in the template, "%USER_NAME%", to
 * texts. A placeholder is filled in once, and what was filled in is not searched again; one
 * that is not in the hash stays. In the subject, control characters become blanks.
 *
 * `recipient` is one address (RFC 5322 addr-spec without quotes, ASCII, at most 254 bytes);
 * the sender is the key "mail_from", else root at the host's name. The message is MIME,
 * quoted-printable (RFC 2045, 2047), marked as automatic (RFC 3834).
 *
 * /usr/sbin/sendmail runs as the user "mail", in a session of its own, without anything of
 * the caller's descriptors. 0: it was started; -1: VEMOERR_BAD_PARAM, VEMOERR_NOT_FOUND (no
 * such template), VEMOERR_FORMAT (one that is none, or above 1 MiB), VEMOERR_NO_SERVICE
 * (there is no mailer). Whether the mail arrives is not known. */
int VEMOMailSendMessageWithoutBlock(const char *mail_template, const VEMOSZHASH *values,
                                    const char *recipient, const char *language);

VEMO_END
#endif
