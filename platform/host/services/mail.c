/* Mail through the sendmail interface. */
#include <vemo/mail.h>

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <limits.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/internal.h"
#include "services/mail.h"

#define TEMPLATES "/usr/vemo/share/mail"
#define MAILER "/usr/sbin/sendmail"
#define MAILER_USER "mail"
#define CONFIGURATION "/etc/vemoinfo.conf"
#define FALLBACK_LANGUAGE "enu"

enum { TEMPLATE_LIMIT = 1 << 20 };

static int is_template_name(const char *name) {
  if (*name == '.') return 0;
  for (const char *c = name; *c != '\0'; c++) {
    const int plain = (*c >= 'a' && *c <= 'z') || (*c >= 'A' && *c <= 'Z') ||
                      (*c >= '0' && *c <= '9') || strchr("_.-", *c) != NULL;
    if (!plain) return 0;
  }
  return strlen(name) <= 200;
}

static int is_language(const char *code) {
  return strlen(code) == 3 && strspn(code, "abcdefghijklmnopqrstuvwxyz") == 3;
}

/* Lines may end as they do on Windows. */
static size_t drop_carriage_returns(char *text, size_t size) {
  size_t kept = 0;

  for (size_t i = 0; i < size; i++) {
    if (text[i] != '\r' || text[i + 1] != '\n') text[kept++] = text[i];
  }
  return kept;
}

static char *read_template(const char *language, const char *name, size_t *size) {
  char path[sizeof TEMPLATES + 256];

  snprintf(path, sizeof path, TEMPLATES "/%s/%s", language, name);
  char *text = vemo_read_file(path, O_NOFOLLOW, TEMPLATE_LIMIT, size, NULL);
  if (text != NULL) *size = drop_carriage_returns(text, *size);
  return text;
}

static char *find_template(const char *language, const char *name, size_t *size) {
  char configured[8];

  if (language == NULL) {
    const int found =
        VLIBCFileGetKeyValue(CONFIGURATION, "maillang", configured, sizeof configured);
    language = found == 1 && is_language(configured) ? configured : FALLBACK_LANGUAGE;
  }
  char *text = read_template(language, name, size);
  if (text != NULL || VLIBCErrGet() != VEMOERR_NOT_FOUND) return text;
  return read_template(FALLBACK_LANGUAGE, name, size);
}

static void find_sender(char *buffer, size_t size) {
  char host[HOST_NAME_MAX + 1] = "";

  if (VLIBCFileGetKeyValue(CONFIGURATION, "mail_from", buffer, (int)size) == 1 &&
      vemo_mail_is_address(buffer)) {
    return;
  }
  gethostname(host, sizeof host - 1);
  snprintf(buffer, size, "root@%s", host);
  if (!vemo_mail_is_address(buffer)) snprintf(buffer, size, "root@localhost");
}

/* The message as a file without a name: the mailer reads it at its own pace, and nobody has
 * to stay to feed it. */
static int open_message(const struct vemo_text *message) {
  const int fd = memfd_create("mail", MFD_CLOEXEC);
  size_t written = 0;

  while (fd >= 0 && written < message->size) {
    const ssize_t count = write(fd, message->bytes + written, message->size - written);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    written += (size_t)count;
  }
  if (fd >= 0 && written == message->size && lseek(fd, 0, SEEK_SET) == 0) return fd;
  VEMO_FAIL_ERRNO();
  if (fd >= 0) close(fd);
  return -1;
}

/* A mailer needs nothing of root's. A process that cannot become root runs it as itself. */
static int become_mailer(void) {
  struct passwd account;
  char *texts;

  if (geteuid() != 0 && seteuid(0) != 0) return 0;
  if (vemo_find_user(MAILER_USER, &account, &texts) != 0) return -1;
  const int failed = initgroups(MAILER_USER, account.pw_gid) != 0 ||
                     setresgid(account.pw_gid, account.pw_gid, account.pw_gid) != 0 ||
                     setresuid(account.pw_uid, account.pw_uid, account.pw_uid) != 0;
  free(texts);
  return failed ? -1 : 0;
}

/* In a process of its own, which ends at once: the mailer then belongs to nobody who would
 * have to wait for it. A web server holds an answer back while anybody keeps its pipe. */
static int run_mailer(char *const argv[], int message) {
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);

  if (null < 0 || dup2(null, 2) < 0) return 1;
  if (setsid() < 0 || become_mailer() != 0) return 1;
  umask(077);
  if (chdir("/") != 0) return 1;
  return vemo_start(MAILER, argv, message, -1) < 0;
}

static int hand_over(const char *from, const char *recipient, int message) {
  char *const argv[] = {(char *)MAILER,
                        (char *)"-i",
                        (char *)"-f",
                        (char *)(uintptr_t)from,
                        (char *)"--",
                        (char *)(uintptr_t)recipient,
                        NULL};

  if (access(MAILER, F_OK) != 0) {
    VEMO_FAIL(VEMOERR_NO_SERVICE);
    return -1;
  }
  vemo_want_exit_statuses();
  const pid_t child = fork();
  if (child == 0) _exit(run_mailer(argv, message));
  if (child > 0 && vemo_wait_for(child) == 0) return 0;
  VEMO_FAIL(VEMOERR_NO_SERVICE);
  return -1;
}

int VEMOMailSendMessageWithoutBlock(const char *mail_template, const VEMOSZHASH *values,
                                    const char *recipient, const char *language) {
  char from[256];
  struct vemo_text message = {0};
  struct vemo_mail mail = {.from = from, .to = recipient, .values = values};
  int result = -1;

  if (mail_template == NULL || *mail_template == '\0' || !is_template_name(mail_template) ||
      recipient == NULL || !vemo_mail_is_address(recipient) ||
      (language != NULL && !is_language(language))) {
    VEMO_FAIL_PARAM();
    return -1;
  }
  char *text = find_template(language, mail_template, &mail.template_size);
  if (text == NULL) return -1;
  mail.template_text = text;
  find_sender(from, sizeof from);
  if (vemo_mail_compose(&mail, &message) == 0) {
    const int fd = open_message(&message);
    if (fd >= 0) {
      result = hand_over(from, recipient, fd);
      close(fd);
    }
  }
  vemo_text_free(&message);
  free(text);
  return result;
}
