// One load and one save of a settings document by the store, beside the bare calls: what
// script/bench store counts. store PART ROUNDS, PART "load", "bare-load", "save",
// "bare-save", "headers", "bare-headers" (the policy's text for one request, beside one
// read and parse of its file).
#include <fcntl.h>
#include <security/security_options.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <webutils/json_store.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
#include <json/reader.h>
#include <json/writer.h>

namespace {

constexpr char kFile[] = "/run/bench-settings";
constexpr char kRule[] = "/run/csp/rule";

Json::Value Settings() {
  Json::Value settings(Json::objectValue);
  for (int i = 0; i < 100; i++) {
    Json::Value& window = settings["VEMO.App" + std::to_string(i)];
    window["x"] = i * 10;
    window["y"] = i * 7;
    window["title"] = "A window of the desktop";
    window["open"] = i % 2 == 0;
  }
  return settings;
}

std::string Read(const char* path) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  flock(fd, LOCK_SH);
  struct stat status;
  fstat(fd, &status);
  std::string text(static_cast<size_t>(status.st_size), '\0');
  if (read(fd, text.data(), text.size()) < 0) std::exit(1);
  close(fd);
  return text;
}

void BareLoad(const char* path) {
  const std::string text = Read(path);
  Json::Value value;
  Json::Reader().parse(text.data(), text.data() + text.size(), value, false);
}

void BareSave(const Json::Value& value) {
  const int fd = open(kFile, O_WRONLY | O_TRUNC | O_CLOEXEC);
  flock(fd, LOCK_EX);
  const std::string text = Json::FastWriter().write(value);
  if (write(fd, text.data(), text.size()) < 0) std::exit(1);
  close(fd);
}

}  // namespace

int main(int, char** arguments) {
  const std::string part = arguments[1];
  const Json::Value settings = Settings();
  WebUtils::SaveJsonFile(settings, kFile);
  for (int i = 0; i < std::atoi(arguments[2]); i++) {
    Json::Value value;
    if (part == "load") WebUtils::LoadJsonFile(value, kFile);
    if (part == "bare-load") BareLoad(kFile);
    if (part == "save") WebUtils::SaveJsonFile(settings, kFile);
    if (part == "bare-save") BareSave(settings);
    if (part == "headers") VEMO::ZEM::SecurityOptions("").GetCSPHeader();
    if (part == "bare-headers") BareLoad(kRule);
  }
  return 0;
}
