// The ports of the web server, from the file that it is started with.
#include <vemo/core.h>
#include <vemo/webserver.h>

#include <cstdlib>

namespace vemow3 {
namespace {

constexpr char kFile[] = "/usr/vemo/etc/www/ports.conf";

int Port(const char *key, int otherwise) {
  char text[16];
  if (VLIBCFileGetKeyValue(kFile, key, text, sizeof text) < 1) return otherwise;
  char *end;
  const long port = std::strtol(text, &end, 10);
  return *end == '\0' && port > 0 && port < 65536 ? static_cast<int>(port) : otherwise;
}

}  // namespace

// The file is read once a process by whoever asks first, so there is nothing to keep.
struct Engine::State {};

Engine::Engine() : state_(nullptr) {
}
Engine::~Engine() = default;

ZEM::ZEM(Engine &engine) : engine_(engine) {
}

int ZEM::GetHttpPort() const {
  static const int port = Port("vemo_http_port", 5000);
  return port;
}

int ZEM::GetHttpsPort() const {
  static const int port = Port("vemo_https_port", 5001);
  return port;
}

}  // namespace vemow3
