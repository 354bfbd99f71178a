// Session records that somebody has edited by hand.
#include <sys/stat.h>
#include <vemo/cgi.h>

#include <cstring>

#include "fuzz/input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const char kId[] = "AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA";
  mkdir("/run/vemo", 0755);
  mkdir("/run/vemo/session", 0700);
  fuzz::WriteFile(std::string("/run/vemo/session/") + kId, data, size, 0600);
  setenv("REQUEST_METHOD", "GET", 1);
  setenv("REMOTE_ADDR", "127.0.0.1", 1);
  setenv("HTTP_COOKIE", (std::string("id=") + kId).c_str(), 1);

  VEMOCGI context;
  VemoCgiInit("", &context);
  VemoCgiLoadInCookies(&context);
  char user[493] = "";
  const _tag_cgi_auth_request request = {VEMOCGI_PRIV_USER, FALSE};
  const int result =
      VemoCgiIsAuthorized(&context, user, sizeof user, &request, VEMOCGI_POS_DESKTOP);
  fuzz::Require(result <= 1);
  fuzz::Require(result == 1 || *user == '\0');
  VemoCgiGetOption(&context, VEMOCGI_OPT_TOKEN, "");
  VemoCgiFree(&context);
  return 0;
}
