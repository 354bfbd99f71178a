/*
 * vemo/mail.h - mail of the appliance. See vemo/core.h for the conventions.
 */
#ifndef VEMO_MAIL_H
#define VEMO_MAIL_H

#include <vemo/core.h>

VEMO_BEGIN

/* Fills a template's placeholders from the hash, once and without searching what was filled in,
 * and hands the mail to the mailer, which runs on by itself. `mail_template` is a name, no path;
 * `language` NULL: the key "maillang", else "enu". 0 handed over; -1 (VEMOERR_BAD_PARAM,
 * VEMOERR_NOT_FOUND, VEMOERR_NO_SERVICE). */
int VEMOMailSendMessageWithoutBlock(const char *mail_template, const VEMOSZHASH *values,
                                    const char *recipient, const char *language);

VEMO_END
#endif
