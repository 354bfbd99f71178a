// zem-mail: the mail that tells a user about an account.
//
//   zem-mail USER RECIPIENT [--template NAME] [--password]
//
// The template is "new_user" unless another is named. With --password the first line of
// standard input is the password that the mail tells; it is never an argument, which every
// user of the machine could read. Without it the mail shows asterisks.
//
// Exit status: 0 handed over, which does not say that it arrives; 2 it was called wrongly.
#include <webutils/system_info.h>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

namespace {

int Usage() {
  std::fputs("usage: zem-mail USER RECIPIENT [--template NAME] [--password]\n", stderr);
  return 2;
}

}  // namespace

int main(int count, char** values) {
  if (count < 3) return Usage();
  std::string name = "new_user", password;
  bool tells_password = false;
  for (int i = 3; i < count; i++) {
    if (std::strcmp(values[i], "--password") == 0) {
      tells_password = true;
    } else if (std::strcmp(values[i], "--template") == 0 && i + 1 < count) {
      name = values[++i];
    } else {
      return Usage();
    }
  }
  if (tells_password) std::getline(std::cin, password);
  WebUtils::SendUserInfoMail(values[1], password, values[2], name, tells_password);
  return 0;
}
