#include "support/syslog.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace support {
namespace {

// "<11>Nov 20 12:00:00 program[1]: text"
LogLine Parse(const std::string& packet) {
  LogLine line{0, packet};
  const size_t angle = packet.find('>');
  if (packet.empty() || packet[0] != '<' || angle == std::string::npos) return line;
  line.priority = std::atoi(packet.c_str() + 1);
  constexpr size_t kDateSize = sizeof "Nov 20 12:00:00";
  const size_t colon = packet.find(": ", angle + kDateSize);
  if (colon != std::string::npos) line.text = packet.substr(colon + 2);
  while (!line.text.empty() && (line.text.back() == '\n' || line.text.back() == '\0')) {
    line.text.pop_back();
  }
  return line;
}

}  // namespace

Syslog::Syslog() : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/dev/log");
  unlink(address.sun_path);
  if (bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) std::abort();
  chmod(address.sun_path, 0666);  // processes that have become somebody else log too
  // A connection that this process made to an earlier socket is dropped.
  closelog();
}

Syslog::~Syslog() {
  close(socket_);
  unlink("/dev/log");
}

std::vector<LogLine> Syslog::Take() {
  std::vector<LogLine> lines;
  char packet[65536];
  for (ssize_t size; (size = recv(socket_, packet, sizeof packet, 0)) > 0;) {
    lines.push_back(Parse(std::string(packet, static_cast<size_t>(size))));
  }
  return lines;
}

std::vector<std::string> Syslog::TakeTexts() {
  std::vector<std::string> texts;
  for (const LogLine& line : Take())
    texts.push_back(line.text);
  return texts;
}

}  // namespace support
