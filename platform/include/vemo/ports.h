#ifndef VEMO_PORTS_H
#define VEMO_PORTS_H
#include <vemo/types.h>
VEMO_BEGIN
enum {
  VEMOPORTS_RESERVED = 4,
  VEMOPORTS_DECLARED = 8,
  VEMOPORTS_LISTENING = 16
}; /* 28 = all three */
typedef struct _tag_VEMOSERVICEPORT {
  struct _tag_VEMOSERVICEPORT *next;
  int first, last;
  char protocol[8];
  char service[64];
} VEMOSERVICEPORT;
void VEMOServiceConfPortsFree(VEMOSERVICEPORT *ports); /* NULL allowed */
VEMO_END
#endif
