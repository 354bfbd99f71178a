/*
 * vemo/ports.h - ports of the appliance's services. See vemo/core.h for the conventions and for
 * VLIBIsPortConflict, which makes these lists.
 */
#ifndef VEMO_PORTS_H
#define VEMO_PORTS_H

#include <vemo/types.h>

VEMO_BEGIN

/* Where ports are looked up; 28 is all three. */
enum { VEMOPORTS_RESERVED = 4, VEMOPORTS_DECLARED = 8, VEMOPORTS_LISTENING = 16 };

typedef struct _tag_VEMOSERVICEPORT {
  struct _tag_VEMOSERVICEPORT *next;
  int first, last;  /* 1 to 65535 */
  char protocol[8]; /* "tcp", "udp" */
  char service[64];
} VEMOSERVICEPORT;

void VEMOServiceConfPortsFree(VEMOSERVICEPORT *ports); /* NULL allowed */

VEMO_END
#endif
