// The Windows network by its configuration.
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vemo/core.h>
#include <vemo/user.h>
#include <vemo/wins.h>

#include <string>

#include "cgi_accounts.h"

using namespace accounts;

namespace {

void Conf(const std::string& global) { Write("/etc/samba/smb.conf", "[global]\n" + global, 0644); }

TEST(Windows, MembershipIsTheConfigurations) {
  struct Row {
    const char* global;
    int joined, ads;
  };
  for (const Row& row : {Row{"", 0, 0},
                         {"security = user\n", 0, 0},
                         {"security = auto\n", 0, 0},
                         {"security = domain\n", 1, 0},
                         {"Security=ADS\n", 1, 1},
                         {"server role = member server\n", 1, 0},
                         {"server role = active directory domain controller\n", 1, 1},
                         {"server role = Member\n", 1, 0},
                         {"server role = domain controller\n", 1, 1},
                         {"SERVERROLE = DC\n", 1, 1},
                         {"security = user\nserver role = member server\n", 1, 0},
                         {"security = ads \n", 1, 1},
                         {"security = domains\n", 0, 0},
                         {"# security = ads\n", 0, 0},
                         {"security = ads\nsecurity = user\n", 0, 0},
                         {"server role = standalone server\n", 0, 0}}) {
    Conf(row.global);
    EXPECT_EQ(VEMOWinsIsJoined(), row.joined) << row.global;
    EXPECT_EQ(VEMOWinsADSJoined(), row.ads) << row.global;
  }
  Write("/etc/samba/smb.conf", "[share]\nsecurity = ads\npath = /x\n", 0644);
  EXPECT_EQ(VEMOWinsIsJoined(), 0);
  unlink("/etc/samba/smb.conf");
  EXPECT_EQ(VEMOWinsIsJoined(), 0);
}

TEST(Windows, TheWorkgroup) {
  char name[64];
  Conf("workgroup = CORP\n");
  EXPECT_EQ(VEMOWorkgroupGet(name, sizeof name), 4);
  EXPECT_STREQ(name, "CORP");
  EXPECT_EQ(VEMOWorkgroupGet(name, 3), 2);  // cut
  EXPECT_STREQ(name, "CO");
  Conf("");
  EXPECT_EQ(VEMOWorkgroupGet(name, sizeof name), 9);
  EXPECT_STREQ(name, "WORKGROUP");
  unlink("/etc/samba/smb.conf");
  EXPECT_EQ(VEMOWorkgroupGet(name, sizeof name), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NOT_FOUND);
  EXPECT_EQ(VEMOWorkgroupGet(nullptr, 3), -1);
  EXPECT_EQ(VEMOWorkgroupGet(name, 0), -1);
}

TEST(Windows, LongNamesBecomeShort) {
  Conf("security = ads\nrealm = CORP.EXAMPLE\nworkgroup = CORP\n");
  char name[64];
  EXPECT_EQ(VEMOWinsUserNameFqdn2Netbios("corp.example\\alice", name, sizeof name), 1);
  EXPECT_STREQ(name, "CORP\\alice");
  for (const char* other : {"CORP\\alice", "alice", "alice@corp.example", "\\alice"})
    EXPECT_EQ(VEMOWinsUserNameFqdn2Netbios(other, name, sizeof name), 0) << other;
  // Another domain is winbind's to know, which is not there.
  EXPECT_EQ(VEMOWinsUserNameFqdn2Netbios("other.example\\alice", name, sizeof name), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_SERVICE);
  EXPECT_EQ(VEMOWinsUserNameFqdn2Netbios("corp.example\\alice", name, 10), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_TOO_LONG);
  EXPECT_EQ(VEMOWinsUserNameFqdn2Netbios(nullptr, name, sizeof name), -1);
  EXPECT_EQ(
      VEMOWinsUserNameFqdn2Netbios((std::string(300, 'd') + ".x\\a").c_str(), name, sizeof name),
      -1);
}

TEST(Windows, LoginNamesOfTheOwnDomain) {
  Conf("security = ads\nrealm = CORP.EXAMPLE\nworkgroup = CORP\n");
  char name[64];
  EXPECT_EQ(VEMOUserLoginNameConvert("alice@corp.example", name, sizeof name), 1);
  EXPECT_STREQ(name, "CORP\\alice");
  EXPECT_EQ(VEMOUserLoginNameConvert("root", name, sizeof name), 1);
  EXPECT_STREQ(name, "root");
  EXPECT_EQ(VEMOUserLoginNameConvert("a@b@Corp.Example", name, sizeof name), 1);
  EXPECT_STREQ(name, "CORP\\a@b");
  EXPECT_EQ(VEMOUserLoginNameConvert("alice@corp.example", name, 19), 1);
  for (const char* other : {"nobody-known", "alice@other.example", "@corp.example", "alice@"}) {
    EXPECT_EQ(VEMOUserLoginNameConvert(other, name, sizeof name), 0) << other;
    EXPECT_STREQ(name, other);  // as it was typed
  }
  // A member by its role alone has joined too.
  Conf("server role = member server\nrealm = CORP.EXAMPLE\nworkgroup = CORP\n");
  EXPECT_EQ(VEMOUserLoginNameConvert("alice@corp.example", name, sizeof name), 1);
  EXPECT_STREQ(name, "CORP\\alice");
  for (const char* none : {"security = user\n", "security = auto\n"}) {
    Conf(none + std::string("realm = CORP.EXAMPLE\nworkgroup = CORP\n"));
    EXPECT_EQ(VEMOUserLoginNameConvert("alice@corp.example", name, sizeof name), 0) << none;
  }
  Conf("workgroup = CORP\nrealm = CORP.EXAMPLE\n");
  EXPECT_EQ(VEMOUserLoginNameConvert("alice@corp.example", name, sizeof name), 0);
  EXPECT_EQ(VEMOUserLoginNameConvert("root", name, 4), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_TOO_LONG);
}

// In the place of the library that asks winbind, with answers as winbind gives them.
const char kWinbind[] = R"(
#include <stdbool.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <wbclient.h>
static int handed_out;
wbcErr wbcDomainInfo(const char *domain, struct wbcDomainInfo **info) {
  if (strcmp(domain, "none.example") == 0) return WBC_ERR_DOMAIN_NOT_FOUND;
  if (strcmp(domain, "down.example") == 0) return WBC_ERR_WINBIND_NOT_AVAILABLE;
  *info = calloc(1, sizeof **info);
  if (strcmp(domain, "other.example") == 0) (*info)->short_name = "OTHER";
  if (strcmp(domain, "long.example") == 0)
    (*info)->short_name = "LONGLONGLONGLONGLONGLONGLONGLONGLONGLONGLONGLONGLONGLONGLONGLONG";
  handed_out++;
  return WBC_ERR_SUCCESS;
}
void wbcFreeMemory(void *memory) {
  if (memory != NULL) handed_out--;
  free(memory);
}
int handed_out_now(void) { return handed_out; }
)";

TEST(Windows, OtherDomainsAreWinbindsToKnow) {
  Write("/run/winbind.c", kWinbind);
  Shell(
      "rm -f /usr/lib/*/libwbclient.so.0; gcc -shared -fPIC $(pkg-config --cflags wbclient) -o "
      "$(dirname $(ls /usr/lib/*/libc.so.6))/libwbclient.so.0 /run/winbind.c");
  Conf("security = ads\nrealm = CORP.EXAMPLE\nworkgroup = CORP\n");
  struct Row {
    const char* name;
    int result, code;
    const char* converted;
  };
  for (const Row& row : {Row{"other.example\\alice", 1, 0, "OTHER\\alice"},
                         {"corp.example\\alice", 1, 0, "CORP\\alice"},
                         {"none.example\\alice", 0, 0, ""},
                         {"down.example\\alice", -1, VEMOERR_NO_SERVICE, ""},
                         {"nameless.example\\alice", -1, VEMOERR_NO_SERVICE, ""},
                         {"long.example\\alice", -1, VEMOERR_TOO_LONG, ""}}) {
    char name[64] = "";
    VLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(VEMOWinsUserNameFqdn2Netbios(row.name, name, sizeof name), row.result) << row.name;
    EXPECT_STREQ(name, row.converted) << row.name;
    EXPECT_EQ(VLIBCErrGet(), row.code) << row.name;
  }
  char name[64];
  EXPECT_EQ(VEMOUserLoginNameConvert("alice@other.example", name, sizeof name), 1);
  EXPECT_STREQ(name, "OTHER\\alice");
  void* library = dlopen("libwbclient.so.0", RTLD_NOW | RTLD_NOLOAD);
  ASSERT_NE(library, nullptr);
  EXPECT_EQ(reinterpret_cast<int (*)()>(dlsym(library, "handed_out_now"))(), 0);
}

TEST(Windows, WithoutTheLibraryNobodyIsAsked) {
  Shell("rm -f /usr/lib/*/libwbclient.so*");
  Conf("security = ads\nrealm = CORP.EXAMPLE\nworkgroup = CORP\n");
  char name[64];
  EXPECT_EQ(VEMOWinsUserNameFqdn2Netbios("corp.example\\alice", name, sizeof name), 1);
  EXPECT_EQ(VEMOWinsUserNameFqdn2Netbios("other.example\\alice", name, sizeof name), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_SERVICE);
}

TEST(Homes, AreOnByKindOfUser) {
  struct Row {
    const char* conf;
    int local, domain, directory;
  };
  for (const Row& row : {Row{"", 0, 0, 0},
                         {"userhome_enable=\"yes\"\n", 1, 1, 1},
                         {"userhome_enable=\"YES\"\nuserhome_enable_domain=\"no\"\n", 1, 0, 1},
                         {"userhome_enable_directory=\"yes\"\n", 0, 0, 1},
                         {"userhome_enable=\"no\"\nuserhome_enable_domain=\"yes\"\n", 0, 1, 0}}) {
    Configure(row.conf);
    EXPECT_EQ(VEMOServiceUserHomeIsEnabled(VEMOUSER_LOCAL), row.local) << row.conf;
    EXPECT_EQ(VEMOServiceUserHomeIsEnabled(VEMOUSER_DOMAIN), row.domain) << row.conf;
    EXPECT_EQ(VEMOServiceUserHomeIsEnabled(VEMOUSER_DIRECTORY), row.directory) << row.conf;
  }
}

}  // namespace
