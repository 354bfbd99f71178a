// zem-csp: the rules of the Content-Security-Policy, for package scripts.
//
//   zem-csp check FILE...                  names what is wrong: "file: path: problem"
//   zem-csp save [--package] NAME FILE     stores a module's document, and generates
//   zem-csp delete [--package] NAME
//   zem-csp generate
//   zem-csp show [JSID]                    the generated policy, as a browser takes it
//
// Exit status: 0 good; 1 problems, or it failed; 2 it was called wrongly.
#include <security/csp_rule.h>
#include <security/security_options.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "common/json.h"
#include "common/json_file.h"
#include "programs/csp_check.h"

namespace {

using Arguments = std::vector<std::string>;

int Usage() {
  std::fputs(
      "usage: zem-csp check FILE...\n"
      "       zem-csp save [--package] NAME FILE\n"
      "       zem-csp delete [--package] NAME\n"
      "       zem-csp generate\n"
      "       zem-csp show [JSID]\n",
      stderr);
  return 2;
}

int Fail(const std::string& text) {
  std::fprintf(stderr, "zem-csp: %s\n", text.c_str());
  return 1;
}

bool CheckFile(const std::string& file) {
  Json::Value document;
  if (!zem::JsonFromFile(document, file)) {
    std::printf("%s: : cannot be read, or is no JSON\n", file.c_str());
    return false;
  }
  const auto problems = program::CheckCspDocument(document);
  for (const program::CspProblem& problem : problems)
    std::printf("%s: %s: %s\n", file.c_str(), problem.path.c_str(), problem.text.c_str());
  return problems.empty();
}

int Check(const Arguments& files) {
  if (files.empty()) return Usage();
  bool good = true;
  for (const std::string& file : files)
    good = CheckFile(file) && good;
  return good ? 0 : 1;
}

// Takes "--package" out of the arguments.
bool TakePackage(Arguments& arguments) {
  if (arguments.empty() || arguments[0] != "--package") return false;
  arguments.erase(arguments.begin());
  return true;
}

int Save(Arguments arguments) {
  const bool package = TakePackage(arguments);
  if (arguments.size() != 2) return Usage();
  Json::Value document;
  if (!zem::JsonFromFile(document, arguments[1])) {
    return Fail(arguments[1] + " cannot be read, or is no JSON");
  }
  if (!VEMO::ZEM::CspRule::IsValidConf(document)) {
    CheckFile(arguments[1]);
    return Fail(arguments[1] + " is no document of rules");
  }
  if (!VEMO::ZEM::CspRule(arguments[0], package).Save(document)) {
    return Fail("saving " + arguments[0] + " failed; the system log says why");
  }
  return 0;
}

int Delete(Arguments arguments) {
  const bool package = TakePackage(arguments);
  if (arguments.size() != 1) return Usage();
  if (!VEMO::ZEM::CspRule(arguments[0], package).Delete()) {
    return Fail("deleting " + arguments[0] + " failed; the system log says why");
  }
  return 0;
}

int Generate(const Arguments& arguments) {
  if (!arguments.empty()) return Usage();
  if (VEMO::ZEM::CspRule::GenerateCSPTarget()) return 0;
  return Fail("generating failed; the system log says why");
}

int Show(const Arguments& arguments) {
  if (arguments.size() > 1) return Usage();
  const char* jsid = arguments.empty() ? "" : arguments[0].c_str();
  const std::string header = VEMO::ZEM::SecurityOptions(jsid).GetCSPHeader();
  if (header.empty()) return Fail("there is no policy; the system log says why");
  std::fputs(zem::StyledJson(program::EffectivePolicies(header)).c_str(), stdout);
  return 0;
}

}  // namespace

int main(int count, char** values) {
  if (count < 2) return Usage();
  const std::string command = values[1];
  const Arguments arguments(values + 2, values + count);
  if (command == "check") return Check(arguments);
  if (command == "save") return Save(arguments);
  if (command == "delete") return Delete(arguments);
  if (command == "generate") return Generate(arguments);
  return command == "show" ? Show(arguments) : Usage();
}
