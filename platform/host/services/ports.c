/* Lists of ports, as VLIBIsPortConflict makes them. */
#include <vemo/ports.h>

#include <stdlib.h>

void VEMOServiceConfPortsFree(VEMOSERVICEPORT *ports) {
  while (ports != NULL) {
    VEMOSERVICEPORT *next = ports->next;
    free(ports);
    ports = next;
  }
}
