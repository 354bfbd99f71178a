/* Network masks. */
#include <arpa/inet.h>

#include "core/internal.h"

int BlVLIBIsIpMask(const char *text) {
  struct in_addr address;

  if (text == NULL || inet_pton(AF_INET, text, &address) != 1) return 0;
  const uint32_t mask = ntohl(address.s_addr);
  const uint32_t host = ~mask;
  /* Contiguous ones leave host bits that are one less than a power of two. */
  return mask != 0 && (host & (host + 1)) == 0;
}
