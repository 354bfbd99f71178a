// zem-module: directories of modules and packages, for their authors.
//
//   zem-module check DIR...    names what the desktop would skip without a word, and what is
//                              likely a mistake: "file:line: problem"
//
// Each DIR is one module or package, as it is installed below "modules" or "3rdparty".
// Exit status: 0 good; 1 problems; 2 it was called wrongly.
#include <cstdio>
#include <cstring>

#include "programs/module_check.h"

int main(int count, char** values) {
  if (count < 3 || std::strcmp(values[1], "check") != 0) {
    std::fputs("usage: zem-module check DIR...\n", stderr);
    return 2;
  }
  program::ModuleChecker checker;
  for (int i = 2; i < count; i++) {
    std::string directory = values[i];
    while (directory.size() > 1 && directory.back() == '/')
      directory.pop_back();
    checker.Check(directory);
  }
  for (const program::ModuleProblem& problem : checker.problems()) {
    std::printf("%s:%d: %s\n", problem.file.c_str(), problem.line, problem.text.c_str());
  }
  return checker.problems().empty() ? 0 : 1;
}
