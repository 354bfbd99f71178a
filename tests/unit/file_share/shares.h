/// \file shares.h
/// Shares on a volume of the test's own, and the accounts that use them.
#ifndef ZEM_TESTS_UNIT_FILE_SHARE_SHARES_H
#define ZEM_TESTS_UNIT_FILE_SHARE_SHARES_H

#include <file_share/webman_file_share.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <syslog.h>
#include <unistd.h>
#include <vemo/core.h>

#include <functional>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "support/request.h"
#include "support/syslog.h"
#include "unit/platform/cgi_accounts.h"

namespace shares {

using namespace accounts;

/// Mounts a file system of its own, with access control lists, at /volume1.
inline void MakeVolume(const std::string& path = "/volume1") {
  Shell("mkdir -p " + path + " && mount -t tmpfs -o mode=0755 none " + path);
}

inline void WriteShares(const std::string& text) {
  Write("/etc/samba/smb.conf", "[global]\nworkgroup = WG\n" + text, 0644);
}

/// The section of a share.
inline std::string Section(const std::string& name, const std::string& path,
                           const std::string& options = "") {
  return std::string("[")
      .append(name)
      .append("]\npath = ")
      .append(path)
      .append("\n")
      .append(options);
}

/// A line of an account that useradd refuses, as those of domains.
inline void AddDomainUser(const std::string& name, int id, const std::string& home) {
  Shell("printf '%s:x:%d:%d::%s:/bin/false\\n' '" + name + "' " + std::to_string(id) + " " +
        std::to_string(id) + " '" + home + "' >>/etc/passwd");
}

/// Effective ids and groups of an account, for the rest of the process.
inline void Become(const std::string& user) {
  const passwd* record = getpwnam(user.c_str());
  ASSERT_NE(record, nullptr) << user;
  ASSERT_EQ(initgroups(user.c_str(), record->pw_gid), 0);
  ASSERT_EQ(setegid(record->pw_gid), 0);
  ASSERT_EQ(seteuid(record->pw_uid), 0);
}

/// Runs something in a process of its own; what it printed.
inline std::string InChild(const std::function<void()>& program) {
  return support::RunRequest({}, "",
                             [&] {
                               program();
                               fflush(stdout);
                             })
      .output;
}

/// The same as a user.
inline std::string As(const std::string& user, const std::function<void()>& program) {
  return InChild([&] {
    Become(user);
    program();
  });
}

/// Mode, owner and group of what is at a path itself.
inline std::string Describe(const std::string& path) {
  struct stat status;
  if (lstat(path.c_str(), &status) != 0) return "none";
  char text[64];
  std::snprintf(text, sizeof text, "%o %u %u", status.st_mode & 07777, status.st_uid,
                status.st_gid);
  return text;
}

/// The platform's last failure, as it stands in messages.
inline std::string PlatformError() {
  char text[512];
  std::snprintf(text, sizeof text, "[0x%04X %s:%d]", static_cast<unsigned>(VLIBCErrGet()),
                VLIBCErrorGetFile(), VLIBCErrorGetLine());
  return text;
}

class WithLog : public testing::Test {
 protected:
  /// What makes accounts logs too, and waits when nobody reads: begin after that.
  void BeginLog() { log_.emplace(); }

  /// The library's lines since the last call, with N for line numbers.
  std::vector<std::string> Logged() {
    std::vector<std::string> texts;
    static const std::regex lines(
        "^(file_share|webutils|WfmCheckPath|WfmLibChown2Admin)([(:])[0-9]+");
    for (const support::LogLine& line : log_->Take()) {
      if (!std::regex_search(line.text, lines)) continue;
      EXPECT_EQ(line.priority & LOG_PRIMASK, LOG_ERR) << line.text;
      facilities_.push_back(line.priority & LOG_FACMASK);
      texts.push_back(std::regex_replace(line.text, lines, "$1$2N"));
    }
    return texts;
  }

  std::optional<support::Syslog> log_;
  std::vector<int> facilities_;  ///< of the lines
};

using Texts = std::vector<std::string>;

}  // namespace shares

#endif  // ZEM_TESTS_UNIT_FILE_SHARE_SHARES_H
