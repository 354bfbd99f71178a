#ifndef VEMO_MAIL_H
#define VEMO_MAIL_H
#include <vemo/core.h>
VEMO_BEGIN
int VEMOMailSendMessageWithoutBlock(const char *mail_template, const VEMOSZHASH *values,
                                    const char *recipient, const char *language);
VEMO_END
#endif
