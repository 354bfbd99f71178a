// Shares: what smb.conf says, as Samba reads it, and what accounts may do in them.
#include <sys/stat.h>
#include <unistd.h>
#include <vemo/core.h>
#include <vemo/share.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "cgi_accounts.h"

using namespace accounts;

namespace {

constexpr char kConf[] = "/etc/samba/smb.conf";

using Share = std::unique_ptr<VEMOSHARE, void (*)(VEMOSHARE*)>;

Share Get(const std::string& name) {
  VEMOSHARE* share = nullptr;
  const int result = VEMOShareGet(name.c_str(), &share);
  EXPECT_EQ(result, share == nullptr ? -1 : 0) << name;
  return {share, VEMOShareFree};
}

std::string PathOf(const std::string& name) {
  const Share share = Get(name);
  return share == nullptr ? "" : share->path;
}

int Priv(const std::string& user, const std::string& share) {
  return VEMOShareUserPrivGet(user.c_str(), Get(share).get());
}

std::string Why(const std::string& user, const std::string& share) {
  char reason[32] = "";
  VEMOShareUserPrivReasonGet(user.c_str(), Get(share).get(), reason, sizeof reason);
  return reason;
}

std::string At(const std::string& path) {
  char name[256], share_path[4096];
  if (VEMOShareNamePathGet(path.c_str(), name, sizeof name, share_path, sizeof share_path) != 0)
    return "";
  return std::string(name) + " " + share_path;
}

std::vector<std::string> Names() {
  VEMOSZLIST* list = nullptr;
  std::vector<std::string> names;
  const int count = VEMOShareEnum(&list);
  for (int i = 0; i < count; i++)
    names.emplace_back(VLIBCSzListGet(list, i));
  VLIBCSzListFree(list);
  return names;
}

class Shares : public testing::Test {
 protected:
  void SetUp() override {
    Shell(
        "mkdir -p /etc/samba; getent group administrators >/dev/null || groupadd administrators;"
        "groupadd games2; groupadd 'kids'; useradd -M -G games2 gamer; useradd -M -g kids kid;"
        "useradd -M stranger; useradd -M -G administrators boss;"
        "printf '%s\\n' 'CORP\\dora:x:7001:100::/:/bin/false' >> /etc/passwd;"
        "sed -i '/userhome/d' /etc/vemoinfo.conf");
  }
};

TEST_F(Shares, SectionsWithAPathAreShares) {
  Write(kConf, R"([global]
  workgroup = TEST
[Photo]
  path = /volume1/photo/
[no path]
  comment = x
[off]
  path = /volume1/off
  available = no
[printer]
  path = /var/spool
  printable = yes
[printers]
  path = /var/spool
[homes]
  path = /x
[relative]
  path = volume1
[two words]
  directory = "/volume1//two words"
[own]
  path = /volume1/%S
[other]
  path = /volume1/%U
[dots]
  path = /volume1/./a/../../volume2//b/..
[top]
  path = /../
)");
  EXPECT_EQ(PathOf("Photo"), "/volume1/photo");
  EXPECT_EQ(PathOf("pHOTO"), "/volume1/photo");
  EXPECT_STREQ(Get("photo")->name, "Photo");
  EXPECT_EQ(PathOf("Two Words"), "/volume1/two words");
  EXPECT_EQ(PathOf("own"), "/volume1/own");
  EXPECT_EQ(PathOf("dots"), "/volume2");
  EXPECT_EQ(PathOf("top"), "/");
  EXPECT_EQ(At("/volume2/x"), "dots /volume2");
  EXPECT_EQ(At("/etc"), "top /");
  for (const char* name : {"no path", "off", "printer", "printers", "homes", "relative", "other",
                           "global", "none", "Photo ", "pho"}) {
    VLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(PathOf(name), "") << name;
    EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_SHARE) << name;
  }
  EXPECT_EQ(Names(), (std::vector<std::string>{"dots", "own", "Photo", "top", "two words"}));
}

TEST_F(Shares, BadArguments) {
  Write(kConf, "[a]\npath=/a\n");
  VEMOSHARE* share = reinterpret_cast<VEMOSHARE*>(1);
  for (const char* name : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_EQ(VEMOShareGet(name, &share), -1);
    EXPECT_EQ(share, nullptr);
    EXPECT_EQ(VLIBCErrGet(), VEMOERR_BAD_PARAM);
  }
  EXPECT_EQ(VEMOShareGet("a", nullptr), -1);
  VEMOShareFree(nullptr);
  const Share good = Get("a");
  EXPECT_EQ(VEMOShareUserPrivGet(nullptr, good.get()), -1);
  EXPECT_EQ(VEMOShareUserPrivGet("", good.get()), -1);
  EXPECT_EQ(VEMOShareUserPrivGet("root", nullptr), -1);
  int hide;
  EXPECT_EQ(VLIBShareHideUnreadableGet(nullptr, &hide), -1);
  EXPECT_EQ(VLIBShareHideUnreadableGet(good.get(), nullptr), -1);
}

TEST_F(Shares, FilesThatAreNone) {
  unlink(kConf);
  EXPECT_EQ(PathOf("a"), "");
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NOT_FOUND);
  EXPECT_TRUE(Names().empty());
  Write(kConf, std::string("[a]\npath=/a\0\n", 13));
  EXPECT_EQ(PathOf("a"), "");
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_FORMAT);
  unlink(kConf);
  mkdir(kConf, 0755);
  EXPECT_EQ(PathOf("a"), "");
  rmdir(kConf);
  ASSERT_EQ(mkfifo(kConf, 0644), 0);
  EXPECT_EQ(PathOf("a"), "");
  unlink(kConf);
  Write(kConf, "[a]\npath=/a\n");
  EXPECT_EQ(PathOf("a"), "/a");  // and it is read again
}

TEST_F(Shares, TheGrammar) {
  Write(kConf,
        "\xef\xbb\xbf; no comment, and no setting\n# another \\\n[Spaced   \tout]\n PATH=/a\n"
        "Read   Only = no\nnonsense\nread only\n"
        "[cont]\npa\\\nth = /b\\\n/c\n[crlf]\r\npath = /d\\\r\n/e\r\nwriteable = yes\r\n"
        "[again]\npath = /e\n[AGAIN]\npath = /f\n[cont 2] path = /x\npath = /g \\ \t\n  h  i\n"
        "[cont \\\n3]\n ; path = /no\n #path=/no\npath = /j ; k\n[last]\npath = /i");
  EXPECT_EQ(PathOf("Spaced out"), "/a");
  EXPECT_EQ(Priv("stranger", "Spaced out"), 2);
  EXPECT_EQ(PathOf("cont"), "/b/c");
  EXPECT_EQ(PathOf("crlf"), "/d/e");
  EXPECT_EQ(Priv("stranger", "crlf"), 2);
  EXPECT_EQ(PathOf("again"), "/f");
  EXPECT_EQ(PathOf("cont 2"), "/g h i");
  EXPECT_EQ(PathOf("cont 3"), "/j ; k");
  EXPECT_EQ(PathOf("last"), "/i");
}

// Samba does not start with these. Taken for what it seems, each of them could open a share.
TEST_F(Shares, AFileWithASlipIsRefusedWhole) {
  Write("/etc/samba/loop.conf", "include = /etc/samba/loop.conf\n");
  Write("/etc/samba/nul.conf", std::string("\0", 1));
  for (const std::string slip :
       {"[b\npath=/b", "[]\npath=/b", "= x", "  = x", "read only = maybe",
        "read only =", "writeable = \"yes\"", "available = sure", "printable = perhaps",
        "hide unreadable = 2", "copy = none", "copy = a", "copy =", "[global]\ncopy = a",
        "include = /etc/samba/loop.conf", "include = /etc/samba/nul.conf", "read only = yes\\"}) {
    Write(kConf, "[a]\npath=/a\n" + slip);
    VLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(PathOf("a"), "") << slip;
    EXPECT_EQ(VLIBCErrGet(), VEMOERR_FORMAT) << slip;
    EXPECT_TRUE(Names().empty()) << slip;
    EXPECT_EQ(At("/a"), "") << slip;
    if (slip.find("nul") == std::string::npos) {
      EXPECT_NE(system("testparm -s /etc/samba/smb.conf >/dev/null 2>&1"), 0) << slip;
    }
  }
  Write(kConf, "[a]\npath=/a\n[" + std::string(2000, 'n') + "]\npath=/b\n");
  EXPECT_EQ(PathOf("a"), "");
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_FORMAT);
  Write(kConf, "[a]\npath=/a\n" + std::string(2000, 'n') + " = x\n");
  EXPECT_EQ(PathOf("a"), "/a");
}

TEST_F(Shares, SynonymsAndTheLastOne) {
  Write(kConf, R"([w1]
path=/1
writable=yes
[w2]
path=/2
write ok = Yes
[w3]
path=/3
writeable=1
[r1]
path=/4
writable=yes
read only=yes
[r2]
path=/5
read only=no
writable=no
[t]
path=/6
read only=OFF
[f]
path=/7
read only=no
read only=oN
)");
  const std::map<std::string, int> rows = {{"w1", 2}, {"w2", 2}, {"w3", 2}, {"r1", 1},
                                           {"r2", 1}, {"t", 2},  {"f", 1}};
  for (const auto& [share, privilege] : rows)
    EXPECT_EQ(Priv("stranger", share), privilege) << share;
}

TEST_F(Shares, DefaultsCopiesAndInclusions) {
  Write("/etc/samba/extra.conf", "vemo:restrictions = 4\n[included]\npath = /inc\n");
  for (int i = 0; i < 60; i++) {
    const std::string next = std::to_string(i + 1);
    Write("/etc/samba/deep" + std::to_string(i) + ".conf",
          "include = /etc/samba/deep" + next + ".conf\n");
  }
  Write("/etc/samba/deep60.conf", "[deep]\npath=/deep\n");
  Write(kConf, R"(
writable = yes
[before]
path = /1
[global]
read only = yes
hide unreadable = yes
[after]
path = /2
[copied]
copy = before
path = /3
[copied twice]
copy = after
copy = copied
[mine first]
path = /4
copy = after
[extra]
path = /5
include = /etc/samba/extra.conf
include = /etc/samba/%U.conf
include = relative.conf
include = /etc/samba/none.conf
include = /etc/samba
include = /etc/samba/deep0.conf
include = /etc/samba/smb.conf/x
include = /etc/samba/)" +
                   std::string(300, 'x') + "\n");
  EXPECT_EQ(Priv("stranger", "before"), 2);  // the defaults of the time when it began
  EXPECT_EQ(Priv("stranger", "after"), 1);
  EXPECT_EQ(PathOf("copied"), "/3");
  EXPECT_EQ(Priv("stranger", "copied"), 2);  // with the defaults that the other one has
  EXPECT_EQ(PathOf("copied twice"), "/3");
  EXPECT_EQ(Priv("stranger", "copied twice"), 2);
  EXPECT_EQ(PathOf("mine first"), "/4");
  EXPECT_EQ(Get("extra")->restrictions, 4);
  EXPECT_EQ(PathOf("included"), "/inc");
  EXPECT_EQ(PathOf("deep"), "/deep");
  int hide = -1;
  EXPECT_EQ(VLIBShareHideUnreadableGet(Get("after").get(), &hide), 0);
  EXPECT_EQ(hide, 1);
  EXPECT_EQ(VLIBShareHideUnreadableGet(Get("before").get(), &hide), 0);
  EXPECT_EQ(hide, 0);
}

TEST_F(Shares, OwnOptions) {
  Write(
      kConf,
      "[a]\npath=/a\nvemo:restrictions = 5\nVEMO:Encrypted = yes\n[b]\npath=/b\nvemo:encrypted=no\n"
      "vemo:restrictions=x\n");
  EXPECT_EQ(Get("a")->restrictions, 5);
  EXPECT_EQ(Get("a")->status, static_cast<unsigned>(VEMOSHARE_STATUS_ENCRYPTED));
  EXPECT_EQ(Get("b")->restrictions, 0);
  EXPECT_EQ(Get("b")->status, 0u);
}

TEST_F(Shares, PathsBelongToTheDeepestShare) {
  Write(kConf,
        "[photo]\npath=/volume1/photo\n[photo2]\npath=/volume1/photo2\n[deep]\npath=/volume1/photo/"
        "a/b\n"
        "[twin]\npath=/volume1/photo\n");
  EXPECT_EQ(At("/volume1/photo"), "photo /volume1/photo");
  EXPECT_EQ(At("/volume1/photo/"), "photo /volume1/photo");
  EXPECT_EQ(At("/volume1/photo/x"), "photo /volume1/photo");
  EXPECT_EQ(At("/volume1/photo2/x"), "photo2 /volume1/photo2");
  EXPECT_EQ(At("/volume1/photo/a"), "photo /volume1/photo");
  EXPECT_EQ(At("/volume1/photo/a/b/c"), "deep /volume1/photo/a/b");
  for (const char* path : {"/volume1", "/volume1/phot", "/", "/etc"}) {
    EXPECT_EQ(At(path), "") << path;
    EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_SHARE) << path;
  }
  for (const char* path : {"/volume1/photo/../x", "/volume1/photo/.", "/volume1/./photo", "/.."}) {
    EXPECT_EQ(At(path), "") << path;
    EXPECT_EQ(VLIBCErrGet(), VEMOERR_PATH_REFUSED) << path;
  }
  EXPECT_EQ(At("/volume1/photo/..."), "photo /volume1/photo");
  EXPECT_EQ(At("volume1/photo"), "");
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_BAD_PARAM);
  char name[3], path[4096];
  EXPECT_EQ(VEMOShareNamePathGet("/volume1/photo", name, sizeof name, path, sizeof path), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_TOO_LONG);
}

TEST_F(Shares, RightsAreSambas) {
  // A real smbd gives these answers, but for the variables that it knows more of; netgroups
  // were not asked.
  Write(kConf, R"([global]
netbios name = NasBox
[ro]
path=/1
[rw]
path=/2
read only=no
[valid]
path=/3
read only=no
valid users = @games2, "kid"
[invalid]
path=/4
read only=no
invalid users = +games2 kid
[both]
path=/5
valid users=kid
invalid users=kid
[lists]
path=/6
read list = @games2
write list = kid
[lists rw]
path=/7
read only = no
read list = @games2 kid
write list = kid
[admin]
path=/8
admin users = gamer
[guest]
path=/9
guest ok = yes
valid users = kid
[own]
path=/10
valid users = %S gamer
[kid]
path=/11
valid users = %S
[asker]
path=/12
valid users = %U
[domain]
path=/13
valid users = "corp\dora"
[marks]
path=/14
valid users = +&kids @ "" &nogroup
[empty]
path=/15
valid users =
[unknown]
path=/16
valid users = %m gamer
[unknown invalid]
path=/17
invalid users = %m
[unknown read]
path=/18
read only = no
read list = %G
[unknown write]
path=/19
write list = %u
[semicolons]
path=/20
invalid users = kid;gamer
[machine]
path=/21
valid users = NASBOX\gamer "Unix User\kid"
[other domain]
path=/22
valid users = CORP\gamer NASBOX\games2 CORP\boss
[unix group]
path=/23
valid users = +"Unix Group\games2"
[odd marks]
path=/24
valid users = ++games2 @+games2 +&& @ +
[comma]
path=/25
valid users = ,
[quotes]
path=/26
valid users = ""
[open quote]
path=/27
valid users = "gamer
[group without mark]
path=/28
valid users = games2
[group case]
path=/29
valid users = @GAMES2
[user case]
path=/30
valid users = GAMER
[in quotes]
path=/31
valid users = "@games2" " kid"
[net]
path=/32
valid users = &team
[net first]
path=/33
valid users = @team
[no net]
path=/34
valid users = +team
)");
  Shell(
      "printf 'team (,kid,)\\n' > /etc/netgroup; sed -i '/^netgroup/d' /etc/nsswitch.conf; "
      "echo 'netgroup: files' >> /etc/nsswitch.conf");
  struct Row {
    const char *share, *user;
    int privilege;
    const char* why;
  };
  for (const Row& row : {Row{"ro", "stranger", 1, "read only"},
                         {"rw", "stranger", 2, "read only"},
                         {"valid", "gamer", 2, "read only"},
                         {"valid", "KID", -1, ""},
                         {"valid", "kid", 2, "read only"},
                         {"valid", "stranger", 0, "valid users"},
                         {"valid", "boss", 0, "valid users"},
                         {"invalid", "gamer", 0, "invalid users"},
                         {"invalid", "kid", 0, "invalid users"},
                         {"invalid", "stranger", 2, "read only"},
                         {"both", "kid", 0, "invalid users"},
                         {"lists", "gamer", 1, "read list"},
                         {"lists", "kid", 2, "write list"},
                         {"lists", "stranger", 1, "read only"},
                         {"lists rw", "gamer", 1, "read list"},
                         {"lists rw", "kid", 2, "write list"},
                         {"lists rw", "stranger", 2, "read only"},
                         {"admin", "gamer", 1, "read only"},
                         {"guest", "stranger", 0, "valid users"},
                         {"own", "gamer", 1, "read only"},
                         {"own", "kid", 0, "valid users"},
                         {"kid", "kid", 1, "read only"},
                         {"kid", "gamer", 0, "valid users"},
                         {"asker", "stranger", 1, "read only"},
                         {"domain", "CORP\\dora", 1, "read only"},
                         {"domain", "kid", 0, "valid users"},
                         {"marks", "kid", 1, "read only"},
                         {"marks", "gamer", 0, "valid users"},
                         {"empty", "stranger", 1, "read only"},
                         {"unknown", "gamer", 1, "read only"},
                         {"unknown", "kid", 0, "valid users"},
                         {"ro", "nobody-known", -1, ""},
                         {"unknown invalid", "kid", 0, "invalid users"},
                         {"unknown read", "kid", 1, "read list"},
                         {"unknown write", "kid", 1, "read only"},
                         {"semicolons", "gamer", 0, "invalid users"},
                         {"semicolons", "kid", 0, "invalid users"},
                         {"semicolons", "stranger", 1, "read only"},
                         {"machine", "gamer", 1, "read only"},
                         {"machine", "kid", 1, "read only"},
                         {"machine", "stranger", 0, "valid users"},
                         {"other domain", "gamer", 0, "valid users"},
                         {"other domain", "boss", 0, "valid users"},
                         {"unix group", "gamer", 1, "read only"},
                         {"unix group", "kid", 0, "valid users"},
                         {"odd marks", "gamer", 0, "valid users"},
                         {"comma", "gamer", 0, "valid users"},
                         {"quotes", "gamer", 0, "valid users"},
                         {"open quote", "gamer", 1, "read only"},
                         {"group without mark", "gamer", 0, "valid users"},
                         {"group case", "gamer", 0, "valid users"},
                         {"user case", "gamer", 1, "read only"},
                         {"in quotes", "gamer", 1, "read only"},
                         {"in quotes", "kid", 0, "valid users"},
                         {"net", "kid", 1, "read only"},
                         {"net", "gamer", 0, "valid users"},
                         {"net first", "kid", 1, "read only"},
                         {"no net", "kid", 0, "valid users"}}) {
    EXPECT_EQ(Priv(row.user, row.share), row.privilege) << row.share << " " << row.user;
    if (row.privilege < 0) {
      EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_USER);
    } else {
      EXPECT_EQ(Why(row.user, row.share), row.why) << row.share << " " << row.user;
    }
  }
}

// Who cannot be told from those that a list keeps out, is kept out.
TEST_F(Shares, WithoutTheServiceOfGroupsListsCloseShares) {
  Write(kConf,
        "[invalid]\npath=/1\ninvalid users = @kids\n[valid]\npath=/2\nvalid users = @kids\n"
        "[read]\npath=/3\nread only = no\nread list = @kids\n[write]\npath=/4\nwrite list = @kids\n"
        "[names]\npath=/5\ninvalid users = kid\n");
  const std::map<std::string, int> before = {
      {"invalid", 1}, {"valid", 0}, {"read", 2}, {"write", 1}, {"names", 1}};
  for (const auto& [share, privilege] : before)
    EXPECT_EQ(Priv("stranger", share), privilege) << share;
  Shell(
      "sed -i '/^group/d' /etc/nsswitch.conf; echo 'group: nowhere [UNAVAIL=return]' >> "
      "/etc/nsswitch.conf; touch -d '+2 sec' /etc/nsswitch.conf");
  const std::map<std::string, int> after = {
      {"invalid", 0}, {"valid", 0}, {"read", 1}, {"write", 1}, {"names", 1}};
  for (const auto& [share, privilege] : after)
    EXPECT_EQ(Priv("stranger", share), privilege) << share;
}

TEST_F(Shares, TheHomesAreAShareWhileTheyAreOn) {
  Write(kConf,
        "[a]\npath=/a\n[homes]\ninvalid users = boss2\nvalid users = %S\nread only = yes\n"
        "vemo:restrictions = 1\n[z]\npath=/z\n");
  Shell("useradd -M -G administrators boss2");
  errno = ENOMEM;
  EXPECT_EQ(PathOf("homes"), "");
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_SHARE);
  Shell("printf 'userhome_enable=\"yes\"\\n' >> /etc/vemoinfo.conf");
  EXPECT_EQ(PathOf("Homes"), "/volume1/homes");
  EXPECT_EQ(Names(), (std::vector<std::string>{"a", "homes", "z"}));
  EXPECT_EQ(At("/volume1/homes/kid/x"), "homes /volume1/homes");
  EXPECT_EQ(Priv("boss", "homes"), 2);  // "%S" is everybody's own name there
  EXPECT_EQ(Priv("boss2", "homes"), 0);
  EXPECT_EQ(Priv("kid", "homes"), 0);
  EXPECT_EQ(Why("kid", "homes"), "homes");
  EXPECT_EQ(Get("homes")->restrictions, 1);
  Shell("printf 'userhome_location=\"/volume2/people/\"\\n' >> /etc/vemoinfo.conf");
  EXPECT_EQ(PathOf("homes"), "/volume2/people");
  Write(kConf, "[HOMES]\ncomment=x\npath=/x\n[a]\npath=/a\n");
  EXPECT_EQ(PathOf("homes"), "/volume2/people");
}

TEST_F(Shares, TheFileIsReadAgainWhenItChanged) {
  Write(kConf, "[a]\npath=/a\ninclude = /etc/samba/more.conf\n");
  EXPECT_EQ(PathOf("b"), "");
  Write("/etc/samba/more.conf", "[b]\npath=/b\n");
  EXPECT_EQ(PathOf("b"), "/b");
  Write("/etc/samba/more.conf", "[b]\npath=/c\n");
  EXPECT_EQ(PathOf("b"), "/c");
  const Share kept = Get("b");
  Write(kConf, "[a]\npath=/a\n");
  EXPECT_EQ(PathOf("b"), "");
  EXPECT_STREQ(kept->path, "/c");  // a record is its holder's
}

TEST_F(Shares, AThousandOfThem) {
  std::string text;
  for (int i = 0; i < 1000; i++) {
    const std::string number = std::to_string(i);
    text += "[share" + number + "]\npath = /volume1/share" + number + "\nvalid users = gamer\n";
  }
  Write(kConf, text);
  Shell("touch -d '-1 hour' /etc/samba/smb.conf; sleep 0.2");
  for (int i = 0; i < 1000; i++) {
    const std::string name = "share" + std::to_string(i);
    EXPECT_EQ(PathOf(name), "/volume1/" + name);
    EXPECT_EQ(At("/volume1/" + name + "/a/b"), name + " /volume1/" + name);
  }
}

// What it costs must not depend on what stands in the file.
TEST_F(Shares, HostileFilesEndSoon) {
  const auto seconds = [](const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  const auto repeat = [](const std::string& text, size_t size) {
    std::string all;
    while (all.size() < size)
      all += text;
    return all;
  };
  std::mt19937 random(5);
  std::string noise(64 << 20, 'x');
  for (char& c : noise)
    c = static_cast<char>(random() % 255 + 1);
  std::string sections, copies, globals;
  for (int i = 0; i < 60000; i++) {
    const std::string number = std::to_string(i);
    sections += "[" + number + "]\npath=/p/" + number + "\n";
    globals +=
        "[global]\nx" + number + "=1\nread only=no\n[" + number + "]\npath=/" + number + "\n";
  }
  for (const auto& [text, code] : {std::pair{noise, int{VEMOERR_FORMAT}},
                                   {noise.substr(0, 1 << 20), VEMOERR_FORMAT},
                                   {repeat("[a]\npath=/a\nvemo:restrictions=1\n", 4 << 20), 0},
                                   {repeat("[global]\nx=1\n[b]\n", 4 << 20), VEMOERR_NO_SHARE},
                                   {"[a]\npath=/a\n" + repeat("\\\n", 4 << 20), 0},
                                   {"[a]\npath=/a\n" + repeat(" ;", 4 << 20), 0},
                                   {sections, VEMOERR_NO_SHARE},
                                   {globals, VEMOERR_NO_SHARE},
                                   {repeat(sections, 8 << 20), VEMOERR_NO_SHARE}}) {
    Write(kConf, text);
    VLIBCErrSetEx(0, "", 0);
    EXPECT_LT(seconds([] { PathOf("a"); }), 10) << text.substr(0, 40);
    EXPECT_EQ(VLIBCErrGet(), code) << text.substr(0, 40);
  }
  std::string more;
  for (int i = 0; i < 70000; i++)
    more += "[n" + std::to_string(i) + "]\n";
  Write(kConf, more);
  EXPECT_EQ(PathOf("n1"), "");
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_FORMAT);
  // Each file includes the next one twice.
  for (int i = 0; i < 40; i++) {
    const std::string line = "include = /etc/samba/twice" + std::to_string(i + 1) + "\n";
    Write("/etc/samba/twice" + std::to_string(i), line + line);
  }
  Write(kConf, "include = /etc/samba/twice0\n");
  EXPECT_LT(seconds([] { PathOf("a"); }), 10);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_FORMAT);
}

TEST_F(Shares, AFileThatTheProcessMayNotRead) {
  Write(kConf, "[a]\npath=/a\ninclude=/etc/samba/closed\n");
  Write("/etc/samba/closed", "[a]\ninvalid users = kid\n");
  chmod("/etc/samba/closed", 0600);
  ASSERT_EQ(setresuid(65534, 65534, 65534), 0);
  EXPECT_EQ(PathOf("a"), "");
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_PERM);
  EXPECT_EQ(errno, EACCES);
}

TEST_F(Shares, AfterTheProcessHasBecomeTheUser) {
  Write(kConf, "[a]\npath=/a\n");
  chmod(kConf, 0600);
  ASSERT_EQ(seteuid(65534), 0);
  EXPECT_EQ(PathOf("a"), "/a");
  EXPECT_EQ(geteuid(), 65534u);
  ASSERT_EQ(seteuid(0), 0);
}

// --- testparm is the judge of the reading ---

using Values = std::map<std::string, std::string>;

// What "testparm -sv" prints, by section: parameters that differ from those of [global], and all of
// [global]. Nothing when it refuses the file.
std::optional<std::map<std::string, Values>> Judge() {
  if (system("testparm -sv /etc/samba/smb.conf > /tmp/judged 2>/tmp/complaints") != 0) return {};
  std::map<std::string, Values> sections;
  std::ifstream file("/tmp/judged");
  std::string current;
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line[0] == '#') continue;
    if (line[0] == '[') {
      current = line.substr(1, line.size() - 2);
      sections[current];
      continue;
    }
    const size_t equals = line.find(" = ");
    if (equals == std::string::npos) continue;
    std::string key = line.substr(1, equals - 1);
    // Options are printed as they were written.
    if (key.find(':') != std::string::npos) std::erase(key, ' ');
    sections[current][key] = line.substr(equals + 3);
  }
  return sections;
}

// The judge's lists are plain: blanks between the entries, quotes around those with blanks.
bool IsListed(const std::string& user, const std::string& list) {
  static const std::map<std::string, std::string> groups = {{"gamer", "games2"}, {"kid", "kids"}};
  const auto group = groups.find(user);
  for (size_t i = 0; i < list.size();) {
    const bool quoted = list[i] == '"';
    const size_t end = std::min(list.find(quoted ? '"' : ' ', i + quoted), list.size());
    const std::string entry = list.substr(i + quoted, end - i - quoted);
    if (entry == user) return true;
    if (group != groups.end() && (entry == "@" + group->second || entry == "+" + group->second))
      return true;
    i = end + 1;
    while (i < list.size() && list[i] == ' ')
      i++;
  }
  return false;
}

class Grammar {
 public:
  explicit Grammar(unsigned seed) : random_(seed) {}

  std::string File() {
    std::string text = Pick({"[global]\n", "# x\n[GLOBAL]\n", "; y\n", "[ g l o b a l s ]\n"});
    for (int i = 0; i < 2; i++)
      text += Pick({Setting(), "workgroup = TEST\n", "\n"});
    text += "[base]\n";
    for (int i = 0; i < 3; i++)
      text += Setting();
    for (int i = 0; i < 6; i++) {
      const std::string number = std::to_string(random_() % 5);
      text += Pick({"[share" + number + "]\n", "[ Share" + number + " ]\n",
                    "  [SHARE" + number + "] junk\n", "[sh\\\nare" + number + "]\r\n",
                    "[two  words" + number + "]\n",
                    "[global]\n" + Setting() + "[share" + number + "]\n"});
      const auto settings = random_() % 7;
      for (auto j = 0ul; j < settings; j++)
        text += Setting();
    }
    // Now and then a slip, for which the whole file may be refused.
    if (random_() % 8 == 0) {
      text.insert(text.find('\n', random_() % text.size()) + 1,
                  Pick({"[broken\n", "[]\n", "= x\n", "copy = nobody\n", "read only = perhaps\n",
                        "just words\n", "path\n", "available =\n", "\xef\xbb\xbf[bom]\n", "]\n"}));
    }
    return text;
  }

 private:
  std::string Pick(const std::vector<std::string>& list) { return list[random_() % list.size()]; }
  std::string Bool() { return Pick({"yes", "no", "True", "FALSE", "1", "0", "on", "off"}); }
  std::string Name() {
    return Pick({"gamer", "kid", "stranger", "@games2", "+kids", "\"kid\"", "@\"games2\"",
                 "\"two words\"", "@none"});
  }
  std::string List() {
    std::string list;
    const auto names = random_() % 4;
    for (auto i = 0ul; i < names; i++)
      list += (i == 0 ? "" : Pick({" ", ", ", ";", "\t", ",", " \\\n  "})) + Name();
    return list;
  }
  std::string Setting() {
    const std::string indent = Pick({"", "  ", "\t"}), equals = Pick({" = ", "=", "\t=  "});
    const std::string end = Pick({"\n", "\n", "\r\n", "  \n", " \\\n\n"});
    switch (random_() % 12) {
      case 0:
      case 1:
        return indent + Pick({"path", "PATH", "directory", "Pa th"}) + equals + "/volume1/" +
               Pick({"a", "b/", "c  d", "e//f", "g\\\nh", "i/%S"}) + end;
      case 2:
        return indent + Pick({"read only", "Read  Only", "readonly"}) + equals + Bool() + end;
      case 3:
        return Pick({"writable", "WriteAble", "write ok", "writeok"}) + equals + Bool() + end;
      case 4:
        return indent + "hide unreadable" + equals + Bool() + end;
      case 5:
        return indent + "valid users" + equals + List() + end;
      case 6:
        return indent + "invalid\tusers" + equals + List() + end;
      case 7:
        return indent + Pick({"read list", "write list", "WriteList"}) + equals + List() + end;
      case 8:
        return indent + "vemo:" +
               Pick({"restrictions" + equals + Pick({"0", "1", "4", "5"}),
                     "encrypted" + equals + Bool(), "Restric tions" + equals + "3"}) +
               end;
      case 9:
        return Pick({"available" + equals + Pick({"yes", "yes", "no"}) + end,
                     "copy" + equals + Pick({"base", "BASE", "share0"}) + end});
      default:
        return Pick({"; path = /comment \\\n", " # other\n", "\n", "comment = [x] = y ; z # w\n",
                     "printable = no\n", "include = /etc/samba/inc.conf\n",
                     "include = /etc/samba/no-such.conf\n"});
    }
  }

  std::mt19937 random_;
};

// What is as in [global] is not printed again.
std::string ValueOf(const std::map<std::string, Values>& judged, const std::string& section,
                    const std::string& key) {
  for (const std::string& where : {section, std::string("global")}) {
    const auto found = judged.find(where);
    if (found == judged.end() || found->second.count(key) == 0) continue;
    return found->second.at(key);
  }
  return "";
}

int PrivOf(const std::map<std::string, Values>& judged, const std::string& section,
           const std::string& user) {
  const auto listed = [&](const char* list) {
    return IsListed(user, ValueOf(judged, section, list));
  };
  if (listed("invalid users")) return 0;
  if (!ValueOf(judged, section, "valid users").empty() && !listed("valid users")) return 0;
  if (listed("write list")) return 2;
  return listed("read list") || ValueOf(judged, section, "read only") != "No" ? 1 : 2;
}

void Compare(const std::map<std::string, Values>& judged, const std::string& name) {
  const Share share = Get(name);
  ASSERT_NE(share, nullptr);
  std::string path = ValueOf(judged, name, "path");
  if (const size_t variable = path.find("%S"); variable != std::string::npos)
    path.replace(variable, 2, name);
  while (path.find("//") != std::string::npos)
    path.erase(path.find("//"), 1);
  if (path.back() == '/') path.pop_back();
  EXPECT_EQ(share->path, path);
  EXPECT_EQ(share->restrictions, std::atoi(ValueOf(judged, name, "vemo:restrictions").c_str()));
  std::string encrypted = ValueOf(judged, name, "vemo:encrypted");
  std::transform(encrypted.begin(), encrypted.end(), encrypted.begin(), ::tolower);
  EXPECT_EQ(share->status != 0, std::set<std::string>({"yes", "true", "1", "on"}).count(encrypted));
  int hide = -1;
  EXPECT_EQ(VLIBShareHideUnreadableGet(share.get(), &hide), 0);
  EXPECT_EQ(hide, ValueOf(judged, name, "hide unreadable") == "Yes");
  for (const char* user : {"gamer", "kid", "stranger"})
    EXPECT_EQ(VEMOShareUserPrivGet(user, share.get()), PrivOf(judged, name, user)) << user;
}

TEST_F(Shares, ReadAsTestparmReadsIt) {
  if (system("command -v testparm >/dev/null") != 0) GTEST_SKIP() << "no testparm";
  Write("/etc/samba/inc.conf", "read list = gamer\n; end");
  Grammar grammar(20260101);
  int refused = 0, shares = 0;
  for (int round = 0; round < 300 && !HasFailure(); round++) {
    const std::string text = grammar.File();
    SCOPED_TRACE(text);
    Write(kConf, text);
    const auto judged = Judge();
    if (!judged) {
      refused++;
      EXPECT_EQ(PathOf("base"), "");
      EXPECT_EQ(VLIBCErrGet(), VEMOERR_FORMAT);
      continue;
    }
    std::set<std::string> wanted, ours;
    for (const auto& [name, section] : *judged) {
      if (name == "global") continue;
      if (ValueOf(*judged, name, "path").empty() || ValueOf(*judged, name, "available") == "No")
        continue;
      wanted.insert(name);
      SCOPED_TRACE(name);
      Compare(*judged, name);
    }
    for (const std::string& name : Names())
      ours.insert(name);
    EXPECT_EQ(ours, wanted);
    shares += static_cast<int>(wanted.size());
  }
  EXPECT_GT(refused, 10);
  EXPECT_GT(shares, 300);
}

}  // namespace
