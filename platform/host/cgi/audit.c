/* Lines of the security log. */
#include "cgi/audit.h"

#include <stdio.h>
#include <syslog.h>

enum { LOGGED_SIZE = 80 };

/* A text as it may stand in the log: cut, and nothing that ends a line, moves a
 * terminal's cursor or closes the quotes. */
static const char *loggable(const char *text, char buffer[LOGGED_SIZE]) {
  size_t used = 0;

  if (text == NULL) text = "";
  for (; *text != '\0'; text++) {
    if (used + sizeof "\\xNN..." > LOGGED_SIZE) {
      used += (size_t)snprintf(buffer + used, LOGGED_SIZE - used, "...");
      break;
    }
    if (*text >= 0x20 && *text < 0x7f && *text != '\\' && *text != '"') {
      buffer[used++] = *text;
    } else {
      used += (size_t)snprintf(buffer + used, LOGGED_SIZE - used, "\\x%02x", (unsigned char)*text);
    }
  }
  buffer[used] = '\0';
  return buffer;
}

void vemo_audit_login(const char *user, const char *address, const char *how, int accepted,
                      const char *outcome) {
  char name[LOGGED_SIZE], from[LOGGED_SIZE];

  syslog(LOG_AUTH | (accepted ? LOG_INFO : LOG_WARNING), "login of user \"%s\" from %s by %s: %s",
         loggable(user, name), loggable(address, from), how, outcome);
}

void vemo_audit_request(const char *user, const char *address, const char *outcome) {
  char name[LOGGED_SIZE], from[LOGGED_SIZE];

  syslog(LOG_AUTH | LOG_NOTICE, "request of user \"%s\" from %s refused: %s", loggable(user, name),
         loggable(address, from), outcome);
}
