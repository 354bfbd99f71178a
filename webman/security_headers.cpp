// The request object: the security headers of a page.

#include <security/security_options.h>

#include "webman/webman.h"

void WebMan::AddSecurityHeaders(const char* page) {
  const Json::Value headers = VEMO::ZEM::SecurityOptions(page).GetSecurityHeaders();
  for (auto header = headers.begin(); header != headers.end(); ++header)
    AddHeader(header.name().c_str(), header->asCString());
}
