#ifndef VEMO_WINS_H
#define VEMO_WINS_H
#include <vemo/types.h>
VEMO_BEGIN
BOOL VEMOWinsIsJoined(void);
BOOL VEMOWinsADSJoined(void);
int VEMOWorkgroupGet(char *buffer, int size); /* length >= 0; -1 */
int VEMOWinsUserNameFqdn2Netbios(const char *name, char *buffer,
                                 int size); /* 1 converted, 0 not known, -1 */
VEMO_END
#endif
