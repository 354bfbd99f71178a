// registry bare|whole: reads the configurations of all modules, with the same JSON library.
//
// "bare" parses the files from buffers and drops the documents, and does nothing else;
// "whole" builds the desktop's registry of them.
#include <dirent.h>
#include <ui_config/js_config_parser.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "common/file.h"
#include "common/json.h"

namespace {

constexpr char kModules[] = "/usr/vemo/vemoman/webman/modules/";

int ParseBare() {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(kModules), closedir);
  size_t documents = 0;
  while (const dirent* entry = readdir(folder.get())) {
    const std::string path = std::string(kModules) + entry->d_name + "/config";
    const zem::Descriptor file = zem::OpenRegularFile(path.c_str());
    std::string text;
    Json::Value document;
    if (!file || !zem::ReadAll(file.get(), text)) continue;
    documents += zem::ParseJsonInto(text.data(), text.size(), document);
  }
  return documents > 0 ? 0 : 1;
}

int BuildWhole() {
  VEMO::KTR::JSConfigParser registry;
  registry.ParsePathFromVemoman(nullptr);
  // A small one: each getter gives a copy, which is not what is measured.
  return registry.GetTexts().empty() ? 1 : 0;
}

}  // namespace

int main(int count, char** values) {
  if (count != 2) return 2;
  return std::strcmp(values[1], "bare") == 0 ? ParseBare() : BuildWhole();
}
