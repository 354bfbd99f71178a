// A real smbd on the loopback is the judge of rights in shares: what accounts can do there is
// what the library says of them.
#include <sys/wait.h>
#include <unistd.h>
#include <vemo/core.h>
#include <vemo/share.h>

#include <array>
#include <chrono>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "cgi_accounts.h"

using namespace accounts;

namespace {

constexpr char kConf[] = "/etc/samba/smb.conf";
constexpr int kShares = 48;

constexpr char kGlobal[] = R"([global]
  server role = standalone server
  netbios name = NASBOX
  workgroup = CORP
  private dir = /run/judge
  state directory = /run/judge
  lock directory = /run/judge
  cache directory = /run/judge
  pid directory = /run/judge
  ncalrpc dir = /run/judge/ncalrpc
  log file = /run/judge/log
  smb ports = 1445
  interfaces = 127.0.0.1
  bind interfaces only = yes
  map to guest = never
  load printers = no
  disable spoolss = yes
)";

const std::vector<std::string> kUsers = {"gamer", "kid", "stranger", "boss"};

// Variables that only smbd can fill in are left out: they are a known difference.
std::string RandomShare(std::mt19937& random, int number) {
  static const std::vector<std::string> entries = {"gamer",
                                                   "KID",
                                                   "stranger",
                                                   "@games2",
                                                   "+kids",
                                                   "&kids",
                                                   "+&games2",
                                                   "&+kids",
                                                   "@+games2",
                                                   "++kids",
                                                   "games2",
                                                   "@GAMES2",
                                                   "%U",
                                                   "%S",
                                                   "x%U",
                                                   "NASBOX\\gamer",
                                                   "nasbox\\kid",
                                                   "CORP\\gamer",
                                                   "\"Unix User\\kid\"",
                                                   "+\"Unix Group\\games2\"",
                                                   "+NASBOX\\kids",
                                                   "@\"games2\"",
                                                   "\"@kids\"",
                                                   "\" gamer\"",
                                                   "\"\"",
                                                   "@",
                                                   "nobody-known",
                                                   "@no-group",
                                                   "@administrators"};
  static const std::vector<std::string> separators = {" ", ", ", ";", "\t", " \\\n "};
  const auto one_of = [&](const std::vector<std::string>& list) {
    return list[random() % list.size()];
  };
  std::string text =
      "[share" + std::to_string(number) + "]\npath = /run/judged/" + std::to_string(number) + "\n";
  for (const char* list : {"valid users", "invalid users", "read list", "write list"}) {
    if (random() % 5 < 3) continue;
    text += std::string(list) + " = ";
    for (auto i = random() % 3 + 1; i > 0; i--)
      text += one_of(entries) + (i > 1 ? one_of(separators) : "\n");
  }
  return text + one_of({"read only = no\n", "writable = yes\n", "\n", "admin users = gamer\n",
                        "guest ok = yes\n", "valid users =\n", "valid users = ,\n"});
}

// What the account can do there.
int Judged(const std::string& user, int number) {
  const std::string made = "made-" + user;
  const std::string command = "timeout 20 smbclient //127.0.0.1/share" + std::to_string(number) +
                              " -p 1445 -U '" + user + "%" + user + "-demo' -c 'ls; mkdir " + made +
                              "' >/run/judge/said 2>&1; true";
  Shell(command);
  if (Exists("/run/judged/" + std::to_string(number) + "/" + made)) return VEMOSHARE_PRIV_RW;
  std::ifstream file("/run/judge/said");
  const std::string said((std::istreambuf_iterator<char>(file)), {});
  if (said.find("blocks of size") != std::string::npos) return VEMOSHARE_PRIV_RO;
  EXPECT_NE(said.find("tree connect failed: NT_STATUS_ACCESS_DENIED"), std::string::npos) << said;
  return VEMOSHARE_PRIV_NONE;
}

bool Listens() {
  for (int i = 0; i < 100; i++) {
    if (system("smbclient -N -p 1445 -L 127.0.0.1 >/run/judge/said 2>&1") == 0) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return false;
}

TEST(SharesAndSamba, AgreeOnRights) {
  if (system("command -v smbd smbclient >/dev/null") != 0) GTEST_SKIP() << "no smbd";
  Shell(
      "mkdir -p /run/judge/ncalrpc /run/judged /etc/samba; groupadd games2; groupadd kids;"
      "getent group administrators >/dev/null || groupadd administrators;"
      "useradd -M -G games2 gamer; useradd -M -g kids kid; useradd -M stranger;"
      "useradd -M -G administrators boss");
  std::mt19937 random(11);
  std::string text = kGlobal;
  for (int i = 0; i < kShares; i++) {
    text += RandomShare(random, i);
    Shell("mkdir -m 0777 /run/judged/" + std::to_string(i));
  }
  Write(kConf, text);
  for (const std::string& user : kUsers) {
    Shell("printf '%s\\n%s\\n' " + user + "-demo " + user + "-demo | smbpasswd -c " + kConf +
          " -s -a " + user + " >/dev/null");
  }
  Shell(std::string("setsid smbd -F --no-process-group -s ") + kConf +
        " >/dev/null 2>&1 & echo $! > /run/judge/started");
  ASSERT_TRUE(Listens());
  std::array<int, 3> seen{};
  for (int i = 0; i < kShares; i++) {
    VEMOSHARE* share = nullptr;
    ASSERT_EQ(VEMOShareGet(("share" + std::to_string(i)).c_str(), &share), 0);
    for (const std::string& user : kUsers) {
      const int privilege = VEMOShareUserPrivGet(user.c_str(), share);
      EXPECT_EQ(privilege, Judged(user, i)) << user << " in share" << i;
      seen.at(static_cast<size_t>(privilege))++;
    }
    VEMOShareFree(share);
  }
  Shell("kill $(cat /run/judge/started); true");
  for (const int count : seen)
    EXPECT_GT(count, 10);
  if (HasFailure()) ADD_FAILURE() << text;
}

}  // namespace
