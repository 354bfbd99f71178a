/* Ports that are reserved, declared by services, or taken right now.
 *
 * /usr/vemo/etc/ports.d/SERVICE.conf and, for what nobody may take, "reserved":
 *
 *   tcp="80,443,5000:5010"
 *   udp="137:138"
 */
#include <vemo/ports.h>

#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/internal.h"

#define DECLARATIONS "/usr/vemo/etc/ports.d"
#define SUFFIX ".conf"

enum {
  LARGEST_PORT = 65535,
  LIST_SIZE = 1 << 16, /* as much as a line of a file may hold, so that no list is cut */
  TCP_LISTEN = 0x0a,
  UDP_OPEN = 0x07
};

struct question {
  const char *services; /* the asker's own */
  const char *protocol;
  int first, last;
  unsigned char own[LARGEST_PORT / 8 + 1]; /* the ports that they declare */
  VEMOSERVICEPORT **end;
  int count;
  int error, code; /* what failed, as an errno and for the error slot; 0: nothing */
};

/* "N" or "N:M" at the start of the text. Where it ends; NULL: it is none. */
static const char *parse_ports(const char *text, int *first, int *last) {
  char *end;

  if (!isdigit((unsigned char)*text)) return NULL;
  const long low = strtol(text, &end, 10);
  long high = low;
  if (*end == ':') {
    if (!isdigit((unsigned char)end[1])) return NULL;
    high = strtol(end + 1, &end, 10);
  }
  if (low < 1 || high < low || high > LARGEST_PORT) return NULL;
  *first = (int)low;
  *last = (int)high;
  return end;
}

/* Whether the list "a, b" holds the name. */
static int is_asker(const struct question *question, const char *service) {
  const char *at = question->services;

  while (*at != '\0') {
    at += strspn(at, ", \t");
    const size_t size = strcspn(at, ", \t");
    if (size == strlen(service) && size > 0 && memcmp(at, service, size) == 0) return 1;
    at += size;
  }
  return 0;
}

static void fail(struct question *question, int error, int code) {
  question->error = error;
  question->code = code;
}

static void add(struct question *question, const char *service, int first, int last) {
  VEMOSERVICEPORT *port = calloc(1, sizeof *port);

  if (port == NULL) {
    fail(question, ENOMEM, VEMOERR_NO_MEMORY);
    return;
  }
  port->first = first;
  port->last = last;
  snprintf(port->protocol, sizeof port->protocol, "%s", question->protocol);
  snprintf(port->service, sizeof port->service, "%s", service);
  *question->end = port;
  question->end = &port->next;
  question->count++;
}

static void take_own(struct question *question, int first, int last) {
  for (int port = first; port <= last; port++)
    question->own[port / 8] |= (unsigned char)(1 << port % 8);
}

/* What a file declares: the asker's own, or conflicts. What is no port in it is passed over. */
static void read_declaration(struct question *question, const char *file, const char *service,
                             int own) {
  char path[512], list[LIST_SIZE];
  int first, last;

  snprintf(path, sizeof path, DECLARATIONS "/%s", file);
  if (VLIBCFileGetKeyValue(path, question->protocol, list, sizeof list) != 1) return;
  for (const char *at = list; *at != '\0';) {
    at += strspn(at, ", \t");
    const size_t size = strcspn(at, ", \t");
    const int is_port = parse_ports(at, &first, &last) == at + size;
    if (is_port && own) {
      take_own(question, first, last);
    } else if (is_port && first <= question->last && last >= question->first) {
      add(question, service, first, last);
    }
    at += size;
  }
}

/* The declarations of all services: of the asker's own, or of the others. */
static void read_declarations(struct question *question, int own) {
  struct dirent **entries;
  char service[256];

  const int count = scandir(DECLARATIONS, &entries, NULL, alphasort);
  for (int i = 0; i < count; i++) {
    const char *name = entries[i]->d_name;
    const size_t size = strlen(name);
    if (size > strlen(SUFFIX) && strcmp(name + size - strlen(SUFFIX), SUFFIX) == 0 &&
        *name != '.') {
      snprintf(service, sizeof service, "%.*s", (int)(size - strlen(SUFFIX)), name);
      if (is_asker(question, service) == own) read_declaration(question, name, service, own);
    }
    free(entries[i]);
  }
  if (count >= 0) free(entries);
}

/* One of the kernel's tables of sockets (proc(5)). 0; -1: there is none. */
static int read_table(const char *path, unsigned wanted, unsigned char *seen) {
  char line[512];

  FILE *table = fopen(path, "re");
  if (table == NULL) return -1;
  while (fgets(line, sizeof line, table) != NULL) {
    unsigned port, state;
    if (sscanf(line, " %*[^:]: %*[0-9A-Fa-f]:%x %*[0-9A-Fa-f]:%*x %x", &port, &state) != 2)
      continue;
    if (state == wanted && port >= 1 && port <= LARGEST_PORT)
      seen[port / 8] |= (unsigned char)(1 << port % 8);
  }
  fclose(table);
  return 0;
}

static void read_listening(struct question *question) {
  unsigned char seen[LARGEST_PORT / 8 + 1] = {0};
  const int udp = strcmp(question->protocol, "udp") == 0;
  const unsigned wanted = udp ? UDP_OPEN : TCP_LISTEN;

  if (read_table(udp ? "/proc/net/udp" : "/proc/net/tcp", wanted, seen) != 0) {
    fail(question, errno, VEMOERR_IO);
    return;
  }
  /* Without IPv6 there is no such table. */
  read_table(udp ? "/proc/net/udp6" : "/proc/net/tcp6", wanted, seen);
  for (int port = question->first; port <= question->last; port++) {
    const unsigned char bit = (unsigned char)(1 << port % 8);
    /* The asker listens on its own ports, of course. */
    if ((seen[port / 8] & bit) != 0 && (question->own[port / 8] & bit) == 0)
      add(question, "listening", port, port);
  }
}

static void free_ports(VEMOSERVICEPORT *ports) {
  while (ports != NULL) {
    VEMOSERVICEPORT *next = ports->next;
    free(ports);
    ports = next;
  }
}

int VLIBIsPortConflict(const char *services, const char *range, const char *protocol, int checks,
                       VEMOSERVICEPORT **conflicts) {
  VEMOSERVICEPORT *list = NULL;
  struct question question = {.services = services, .protocol = protocol, .end = &list};

  if (conflicts != NULL) *conflicts = NULL;
  const char *end = range == NULL ? NULL : parse_ports(range, &question.first, &question.last);
  if (services == NULL || *services == '\0' || end == NULL || *end != '\0' || protocol == NULL ||
      (strcmp(protocol, "tcp") != 0 && strcmp(protocol, "udp") != 0)) {
    VEMO_FAIL_PARAM();
    return -1;
  }
  read_declarations(&question, 1);
  if ((checks & VEMOPORTS_RESERVED) != 0) read_declaration(&question, "reserved", "reserved", 0);
  if ((checks & VEMOPORTS_DECLARED) != 0) read_declarations(&question, 0);
  if ((checks & VEMOPORTS_LISTENING) != 0) read_listening(&question);
  if (question.code != 0 || conflicts == NULL || question.count == 0) {
    free_ports(list);
  } else {
    *conflicts = list;
  }
  if (question.code == 0) return question.count;
  VEMO_FAIL_AS(question.error, question.code);
  return -1;
}
