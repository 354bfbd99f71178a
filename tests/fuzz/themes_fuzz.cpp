// The file of themes: read, and looked up at every level. Nothing is applied.
#include <appearance/theme_helper.h>

#include "fuzz/input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string file = fuzz::Folder() + "/theme.json";
  fuzz::WriteFile(file, data, size, 0600);
  VEMO::KTR::ThemeHelper helper;
  helper.Parse(file);
  for (const char* theme : {"dark", "", "mappings"}) {
    VEMO::KTR::JsonThemeGetter actions = helper.GetTheme(theme);
    for (const char* action : {"apply", "", "mappings"})
      actions.GetThemeByKey(action);
  }
  return 0;
}
