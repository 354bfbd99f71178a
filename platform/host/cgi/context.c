/* The request context: its start and its end. */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "cgi/state.h"
#include "cgi/upload.h"

static const char default_text_dir[] = "/usr/vemo/vemoman/webman";

/* A file that is opened must never become standard output by chance. */
static void open_standard_descriptors(void) {
  for (int fd = 0; fd <= 2; fd++) {
    if (fcntl(fd, F_GETFD) >= 0 || errno != EBADF) continue;
    if (open("/dev/null", fd == 0 ? O_RDONLY : O_WRONLY) != fd) return;
  }
}

int VemoCgiInit(const char *text_dir, VEMOCGI *ctx) {
  if (ctx == NULL) {
    VEMO_FAIL(VEMOERR_BAD_PARAM);
    return 0;
  }
  memset(ctx, 0, sizeof *ctx);
  open_standard_descriptors();
  /* A client that hangs up is seen by the write that fails. */
  signal(SIGPIPE, SIG_IGN);

  const char *dir = text_dir == NULL || *text_dir == '\0' ? default_text_dir : text_dir;
  ctx->state = calloc(1, sizeof *ctx->state);
  ctx->texts = VLIBCSzHashAlloc(0);
  if (ctx->state != NULL) ctx->state->text_dir = strdup(dir);
  if (ctx->state != NULL && ctx->texts != NULL && ctx->state->text_dir != NULL) return 1;
  VemoCgiFree(ctx);
  VEMO_FAIL(VEMOERR_NO_MEMORY);
  return 0;
}

void VemoCgiFree(VEMOCGI *ctx) {
  if (ctx == NULL) return;
  if (ctx->state != NULL) {
    vemo_cgi_session_forget(ctx);
    vemo_cgi_texts_free(ctx);
    vemo_upload_free(ctx->state->upload);
    VLIBCSzHashFree(ctx->state->params);
    VLIBCSzHashFree(ctx->state->query);
    VLIBCSzHashFree(ctx->state->cookies);
    vemo_arena_free(&ctx->state->arena);
    free(ctx->state->text_dir);
    free(ctx->state);
  }
  VLIBCSzHashFree(ctx->texts);
  memset(ctx, 0, sizeof *ctx);
}

int vemo_cgi_is_ready(const VEMOCGI *ctx) {
  if (ctx != NULL && ctx->state != NULL) return 1;
  VEMO_FAIL(VEMOERR_BAD_PARAM);
  return 0;
}

void *vemo_cgi_alloc(VEMOCGI *ctx, size_t size) {
  return vemo_arena_alloc(&ctx->state->arena, size);
}

const char *vemo_cgi_strdup(VEMOCGI *ctx, const char *text) {
  return vemo_arena_copy(&ctx->state->arena, text, strlen(text));
}

const char *vemo_cgi_env(const char *name) {
  const char *value = getenv(name);

  return value == NULL ? "" : value;
}

int vemo_cgi_is_reading(void) {
  const char *method = vemo_cgi_env("REQUEST_METHOD");

  return *method == '\0' || strcmp(method, "GET") == 0 || strcmp(method, "HEAD") == 0;
}
