/* Who asks, and over what. */
#include <arpa/inet.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "cgi/state.h"

/* An address in 16 bytes; IPv4 stands as an IPv4-mapped one (RFC 4291, 2.5.5.2). */
struct address {
  unsigned char bytes[16];
};

static const unsigned char mapped_prefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

static int is_ipv4(const struct address *address) {
  return memcmp(address->bytes, mapped_prefix, sizeof mapped_prefix) == 0;
}

static int parse(const char *text, size_t size, struct address *address) {
  char copy[INET6_ADDRSTRLEN + 1];

  if (size >= sizeof copy) return 0;
  memcpy(copy, text, size);
  copy[size] = '\0';
  memcpy(address->bytes, mapped_prefix, sizeof mapped_prefix);
  if (inet_pton(AF_INET, copy, address->bytes + 12) == 1) return 1;
  return inet_pton(AF_INET6, copy, address->bytes) == 1;
}

static int same_bits(const struct address *a, const struct address *b, int bits) {
  const size_t whole = (size_t)bits / 8;
  const int rest = bits % 8;

  if (memcmp(a->bytes, b->bytes, whole) != 0) return 0;
  return rest == 0 || (a->bytes[whole] ^ b->bytes[whole]) >> (8 - rest) == 0;
}

/* Whether the address lies within "ADDRESS" or "ADDRESS/BITS". */
static int lies_within(const struct address *address, const char *network, size_t size) {
  const char *slash = memchr(network, '/', size);
  const size_t address_size = slash == NULL ? size : (size_t)(slash - network);
  struct address base;
  long bits = 128;

  if (!parse(network, address_size, &base)) return 0;
  if (slash != NULL) {
    char *end;
    bits = strtol(slash + 1, &end, 10) + (is_ipv4(&base) ? 96 : 0);
    if (end == slash + 1 || end != network + size || bits < 0 || bits > 128) return 0;
  }
  return same_bits(address, &base, (int)bits);
}

static int is_trusted(const struct address *address) {
  static const char separators[] = ", \t";

  for (const char *at = vemo_cgi_config("trusted_proxies", "");;) {
    at += strspn(at, separators);
    const size_t size = strcspn(at, separators);
    if (size == 0) return 0;
    if (lies_within(address, at, size)) return 1;
    at += size;
  }
}

/* The client that the proxies name: the last address that is none of theirs. */
static int forwarded_for(struct address *address) {
  const char *list = vemo_cgi_env("HTTP_X_FORWARDED_FOR");
  size_t end = strlen(list);

  while (end > 0) {
    while (end > 0 && strchr(", \t", list[end - 1]) != NULL)
      end--;
    size_t start = end;
    while (start > 0 && strchr(", \t", list[start - 1]) == NULL)
      start--;
    struct address named;
    if (!parse(list + start, end - start, &named)) return 0;
    *address = named;
    if (!is_trusted(&named)) return 1;
    end = start;
  }
  return 1;
}

static int is_from_trusted_proxy(void) {
  const char *remote = vemo_cgi_env("REMOTE_ADDR");
  struct address address;

  return parse(remote, strlen(remote), &address) && is_trusted(&address);
}

const char *vemo_cgi_client_address(VEMOCGI *ctx) {
  const char *remote = vemo_cgi_env("REMOTE_ADDR");
  struct address address;
  char text[INET6_ADDRSTRLEN];

  if (!parse(remote, strlen(remote), &address)) return "";
  if (is_trusted(&address)) forwarded_for(&address);
  const char *written = is_ipv4(&address)
                            ? inet_ntop(AF_INET, address.bytes + 12, text, sizeof text)
                            : inet_ntop(AF_INET6, address.bytes, text, sizeof text);
  const char *copy = written == NULL ? NULL : vemo_cgi_strdup(ctx, written);
  return copy == NULL ? "" : copy;
}

int vemo_cgi_is_tls(VEMOCGI *ctx) {
  (void)ctx;
  if (strcasecmp(vemo_cgi_env("HTTPS"), "on") == 0) return 1;
  return strcasecmp(vemo_cgi_env("HTTP_X_FORWARDED_PROTO"), "https") == 0 &&
         is_from_trusted_proxy();
}

int vemo_cgi_same_address(const char *a, const char *b, int whole) {
  struct address first, second;

  if (!parse(a, strlen(a), &first) || !parse(b, strlen(b), &second)) return 0;
  if (is_ipv4(&first) != is_ipv4(&second)) return 0;
  return same_bits(&first, &second, whole ? 128 : (is_ipv4(&first) ? 96 + 24 : 64));
}
