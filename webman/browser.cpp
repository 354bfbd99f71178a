// The request object: which browser asks.
#include <cstdlib>
#include <cstring>

#include "common/log.h"
#include "webman/names.h"
#include "webman/webman.h"

namespace {

struct Marker {
  const char* text;
  int type;
};

// The order is what tells browsers apart: one of Chrome's kind also calls itself Safari.
constexpr Marker kMarkers[] = {{"MSIE", VEMO_BROWSER_IE},
                               {"Firefox", VEMO_BROWSER_FIREFOX},
                               {"Chrome", VEMO_BROWSER_CHROME},
                               {"Safari", VEMO_BROWSER_SAFARI},
                               {"facebookexternalhit", VEMO_BROWSER_FACEBOOK}};

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

void SetVersion(_tag_vemo_browser_info_& info, const char* version) {
  std::strncpy(info.version, version, sizeof info.version - 1);
}

// Those that are known by a word of their own, without a version behind it.
int SetByWord(_tag_vemo_browser_info_& info, const char* agent) {
  if (std::strstr(agent, "Trident/7.0") != nullptr) {
    info.type = VEMO_BROWSER_IE;
    SetVersion(info, "11");
  } else if (std::strstr(agent, "Edge/12.0") != nullptr) {
    info.type = VEMO_BROWSER_IE;
    SetVersion(info, "12");
  } else {
    info.type = VEMO_BROWSER_OTHER;
  }
  return 0;
}

// The text behind the marker that decides the type; null when there is none.
const char* FindMarker(_tag_vemo_browser_info_& info, const char* agent) {
  for (const Marker& marker : kMarkers) {
    const char* found = std::strstr(agent, marker.text);
    if (found == nullptr) continue;
    info.type = marker.type;
    if (marker.type == VEMO_BROWSER_SAFARI) {
      // What follows its own name is the engine's version.
      const char* version = std::strstr(agent, "Version/");
      if (version != nullptr) return version + std::strlen("Version/");
    }
    return found + std::strlen(marker.text);
  }
  return nullptr;
}

}  // namespace

int WebMan::GetBrowserInfo(_tag_vemo_browser_info_* info) {
  if (info == nullptr) return -1;
  const char* agent = std::getenv("HTTP_USER_AGENT");
  if (agent == nullptr) {
    info->type = VEMO_BROWSER_NONE;
    return 0;
  }
  std::memset(info->version, 0, sizeof info->version);
  const char* at = FindMarker(*info, agent);
  if (at == nullptr) return SetByWord(*info, agent);

  while (*at != '\0' && !IsDigit(*at))
    at++;
  if (*at == '\0') {
    ZEM_LOG("%s(%d): not supported browser type, USER_AGENT: %s", zem::kWebmanSource, agent);
    return -1;
  }
  for (std::size_t size = 0; IsDigit(*at) || *at == '.'; at++) {
    info->version[size++] = *at;
    if (size < sizeof info->version) continue;
    info->version[size - 1] = '\0';
    ZEM_LOG("%s(%d): version size not enough, USER_AGENT: %s", zem::kWebmanSource, agent);
    return -1;
  }
  return 0;
}

std::string WebMan::GetIEPNGFixStyle() {
  const char* agent = std::getenv("HTTP_USER_AGENT");
  if (agent == nullptr) return std::string();
  if (std::strstr(agent, "MSIE 6") == nullptr && std::strstr(agent, "MSIE 5.5") == nullptr)
    return std::string();
  return "img, .fixpng {behavior: url(\"/scripts/iepngfix.htc\");}";
}
