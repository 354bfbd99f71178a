// desktop.cgi: the pages of the desktop, each with its policy.
//
//   GET               the desktop's page, for everybody: it is where people log in
//   GET page=JSID     an application on a page of its own, for those who are logged in
//
// On a port that serves one application alone, its page is the first one, after the login,
// and there is no other.
//
// A page on its own loads the style sheets and the script of its application, and nothing
// that stands in the page itself: policies let no inline script run.
#include <security/security_options.h>
#include <syslog.h>
#include <ui_config/js_config_parser.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "common/file.h"
#include "programs/program.h"

namespace {

constexpr char kDesktop[] = "/usr/vemo/vemoman/index.html";

std::string Escaped(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

// The web server adds a second policy to every answer, so a page is never bare; but one
// whose own is refused has lost it, and somebody must know.
void QueueSecurityHeaders(WebMan& request, const std::string& page) {
  const Json::Value headers = VEMO::ZEM::SecurityOptions(page.c_str()).GetSecurityHeaders();
  for (auto header = headers.begin(); header != headers.end(); ++header) {
    if (request.AddHeader(header.name().c_str(), header->asCString())) continue;
    syslog(LOG_ERR,
           "desktop.cgi: the header %s of page \"%s\" was refused: a rule holds what no "
           "header may",
           header.name().c_str(), page.c_str());
  }
}

void WritePage(WebMan& request, const std::string& page, const std::string& html) {
  QueueSecurityHeaders(request, page);
  request.WriteHeader("text/html; charset=\"UTF-8\"");
  std::fwrite(html.data(), 1, html.size(), stdout);
}

void WriteDesktop(WebMan& request) {
  std::string html;
  const zem::Descriptor file = zem::OpenRegularFile(kDesktop);
  if (!file || !zem::ReadAll(file.get(), html)) WebMan::ResponseNotFound();
  WritePage(request, "", html);
}

// The script that defines an entry, with the time of its last change; empty when none does.
std::string ScriptOf(const Json::Value& scripts, const std::string& jsid) {
  for (auto script = scripts.begin(); script != scripts.end(); ++script) {
    if (script->isMember(jsid)) return script.name();
  }
  return "";
}

std::string PageOf(VEMO::KTR::JSConfigParser& registry, const std::string& jsid,
                   const std::string& script) {
  const Json::Value sheets = registry.GetCSSFiles();
  const Json::Value entry = registry.GetAppConfig()[jsid];
  std::string html = "<!DOCTYPE html>\n<html>\n<head>\n<meta charset=\"utf-8\">\n<title>";
  html += Escaped(entry["title"].isString() ? entry["title"].asString() : jsid);
  html += "</title>\n<link rel=\"icon\" href=\"/first/icon.svg\" type=\"image/svg+xml\">\n";
  // The same ground as the desktop's, in the chosen theme.
  for (const char* sheet : {"/first/style.css", "/theme/theme.css"})
    html += std::string("<link rel=\"stylesheet\" href=\"") + sheet + "\">\n";
  for (const Json::Value& sheet : sheets) {
    const std::string address = sheet.asString();
    if (!entry["css_file"].isMember(address.substr(0, address.rfind("?v=")))) continue;
    html += "<link rel=\"stylesheet\" href=\"/" + Escaped(address) + "\">\n";
  }
  html += "<script type=\"module\" src=\"/" + Escaped(script) + "\"></script>\n</head>\n";
  html += "<body data-jsid=\"" + Escaped(jsid) + "\"></body>\n</html>\n";
  return html;
}

void WriteApplication(WebMan& request, const std::string& jsid) {
  VEMO::KTR::JSConfigParser registry;
  registry.language = request.GetUILanguage();
  registry.ParsePathFromVemoman(nullptr);
  const std::string script = ScriptOf(registry.GetJSConfigs(), jsid);
  if (script.empty() || !registry.GetAppConfig().isMember(jsid)) WebMan::ResponseNotFound();
  WritePage(request, jsid, PageOf(registry, jsid, script));
}

}  // namespace

int main() {
  WebMan request(true);
  program::QueuePrivateHeaders(request);
  const char* alone = std::getenv("REWRITE_APP");
  const std::string asked = program::Field(request, "page");
  const std::string page = asked.empty() && alone != nullptr ? alone : asked;
  if (alone != nullptr && page != alone) WebMan::ResponseNotFound();
  if (page.empty()) {
    WriteDesktop(request);
  } else if (alone != nullptr) {
    // Where there is no other page to lead to, the login stands here.
    const bool in = request.CheckAuthorized(VEMOCGI_PRIV_USER, VEMOCGI_POS_DESKTOP, false) == 1;
    in ? WriteApplication(request, page) : WriteDesktop(request);
  } else if (request.IsAuthorized("/", VEMOCGI_PRIV_USER, VEMOCGI_POS_DESKTOP)) {
    WriteApplication(request, page);
  }
  return 0;
}
