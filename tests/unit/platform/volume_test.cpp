// Volumes on real mounts, and ports.
#include <unistd.h>
#include <vemo/core.h>
#include <vemo/ports.h>
#include <vemo/share.h>
#include <vemo/volume.h>

#include <string>

#include "cgi_accounts.h"

using namespace accounts;

namespace {

class Volumes : public testing::Test {
 protected:
  void SetUp() override {
    Shell(
        "mkdir -p /volume1 /volume2 /volume10 /volumes /volume0 /removable1 /card3; umount -l "
        "/volume1; true");
  }
  void TearDown() override {
    Shell(
        "mount -t proc proc /proc; for p in /volume1 /volume2 /volume10 /volumes /volume0 "
        "/removable1 /card3; do "
        "umount -l $p; done; true");
  }
  static void Mount(const std::string& point, const std::string& options = "size=4m") {
    Shell("mount -t tmpfs -o " + options + " none " + point);
  }
  // "path kind", or the reasons.
  static std::string Ask(unsigned long long kib, BOOL writable = TRUE) {
    VEMOVOLUME volume;
    int reasons = -7;
    const int result = VolumeAvailGet(kib, &volume, &reasons, writable);
    if (result == 1)
      return std::string(volume.path) + " " + std::to_string(volume.kind) + " " +
             std::to_string(reasons);
    return std::to_string(result) + " " + std::to_string(reasons);
  }
};

TEST_F(Volumes, TheOneWithMostRoom) {
  EXPECT_EQ(Ask(1), "0 0");
  Mount("/volume1", "size=4m");
  EXPECT_EQ(Ask(1024), "/volume1 1 0");
  Mount("/volume2", "size=8m");
  EXPECT_EQ(Ask(1024), "/volume2 1 0");
  Mount("/volume10", "size=8m");
  EXPECT_EQ(Ask(1024), "/volume2 1 0");  // of equals the first
  EXPECT_EQ(Ask(8192), "/volume2 1 0");
  EXPECT_EQ(Ask(8193), "0 4");
}

TEST_F(Volumes, OthersAreNone) {
  for (const char* point : {"/volumes", "/volume0", "/removable1", "/card3"})
    Mount(point, "size=64m");
  EXPECT_EQ(Ask(1), "0 0");
}

TEST_F(Volumes, FullOnesAndUnusableOnes) {
  Mount("/volume1", "size=512k");
  EXPECT_EQ(Ask(1024), "0 4");
  Mount("/volume2", "size=8m");
  Shell("mount -o remount,ro /volume2");
  EXPECT_EQ(Ask(1024), "0 5");
  EXPECT_EQ(Ask(1024, FALSE), "/volume2 1 0");
  Shell("umount /volume1");
  EXPECT_EQ(Ask(1024), "0 1");
  EXPECT_EQ(Ask(~0ull), "0 1");
}

TEST_F(Volumes, WithoutTheTableTheyCannotBeAsked) {
  Mount("/volume1");
  Shell("mount -t tmpfs none /proc");
  VEMOVOLUME volume;
  int reasons = -7;
  EXPECT_EQ(VolumeAvailGet(1, &volume, &reasons, TRUE), -1);
  EXPECT_EQ(reasons, 0);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_IO);
  EXPECT_EQ(VolumePathParse("/volume1/x", &volume), -1);
  Shell("umount /proc");
  EXPECT_EQ(VolumeAvailGet(1, nullptr, &reasons, TRUE), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_BAD_PARAM);
  EXPECT_EQ(VolumeAvailGet(1, &volume, nullptr, TRUE), -1);
}

TEST_F(Volumes, OfPaths) {
  for (const char* point : {"/volume1", "/removable1", "/card3", "/volumes"})
    Mount(point);
  struct Row {
    const char* path;
    int result;
    const char* volume;
    int kind;
  };
  for (const Row& row : {Row{"/volume1", 1, "/volume1", 1},
                         {"/volume1/a/b", 1, "/volume1", 1},
                         {"/volume10/a", 0, "", 0},
                         {"/volume2/a", 0, "", 0},
                         {"/volumes/a", 0, "", 0},
                         {"/removable1/a", 1, "/removable1", 4},
                         {"/card3/", 1, "/card3", 8},
                         {"/", 0, "", 0},
                         {"/etc/passwd", 0, "", 0},
                         {"/volume1x", 0, "", 0},
                         {"/volume01", 0, "", 0}}) {
    VEMOVOLUME volume;
    EXPECT_EQ(VolumePathParse(row.path, &volume), row.result) << row.path;
    EXPECT_STREQ(volume.path, row.volume) << row.path;
    EXPECT_EQ(volume.kind, row.kind) << row.path;
  }
  VEMOVOLUME volume;
  for (const char* bad : {static_cast<const char*>(nullptr), "", "volume1"}) {
    EXPECT_EQ(VolumePathParse(bad, &volume), -1);
    EXPECT_EQ(VLIBCErrGet(), VEMOERR_BAD_PARAM);
  }
  EXPECT_EQ(VolumePathParse("/volume1", nullptr), -1);
}

TEST_F(Volumes, ThePlatformsPlaceOnThem) {
  Mount("/volume1");
  char path[64] = "x";
  EXPECT_EQ(VEMOShareBinPathGet("/volume1", path, sizeof path), 0);
  EXPECT_STREQ(path, "/volume1");
  EXPECT_EQ(VEMOShareBinPathGet("/volume1", path, 8), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_TOO_LONG);
  for (const char* other : {"/volume2", "/etc", "volume1", "/volume1/"}) {
    EXPECT_EQ(VEMOShareBinPathGet(other, path, sizeof path), -1) << other;
    EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_VOLUME) << other;
  }
  EXPECT_EQ(VEMOShareBinPathGet(nullptr, path, sizeof path), -1);
}

// --- Ports ---

class Ports : public testing::Test {
 protected:
  void SetUp() override {
    Shell("rm -rf /usr/vemo/etc/ports.d; mkdir -p /usr/vemo/etc/ports.d");
    Write("/usr/vemo/etc/ports.d/reserved", "tcp=\"1:1023\"\n");
    Write("/usr/vemo/etc/ports.d/web.conf", "tcp=\"8000, 8100:8110\"\nudp=\"9000\"\n");
    Write("/usr/vemo/etc/ports.d/web_extra.conf", "tcp=\"8200\"\n");
    Write("/usr/vemo/etc/ports.d/other.conf", "tcp=\"8105:8200,nonsense,70000,5:1\"\n");
    Write("/usr/vemo/etc/ports.d/note.txt", "tcp=\"8300\"\n");
  }
  static std::string Ask(const char* services, const char* range, int checks = 28,
                         const char* protocol = "tcp") {
    VEMOSERVICEPORT* list = reinterpret_cast<VEMOSERVICEPORT*>(1);
    const int count = VLIBIsPortConflict(services, range, protocol, checks, &list);
    if (count <= 0) {
      EXPECT_EQ(list, nullptr);
    }
    std::string text = std::to_string(count);
    for (const VEMOSERVICEPORT* port = list; count > 0 && port != nullptr; port = port->next) {
      text += std::string(" ") + port->service + "/" + port->protocol + ":" +
              std::to_string(port->first) + "-" + std::to_string(port->last);
    }
    if (count > 0) VEMOServiceConfPortsFree(list);
    return text;
  }
};

TEST_F(Ports, OfOtherServicesAreConflicts) {
  EXPECT_EQ(Ask("ftp", "8000"), "1 web/tcp:8000-8000");
  EXPECT_EQ(Ask("ftp", "8100:8104"), "1 web/tcp:8100-8110");
  EXPECT_EQ(Ask("ftp", "8106"), "2 other/tcp:8105-8200 web/tcp:8100-8110");
  EXPECT_EQ(Ask("web", "8106"), "1 other/tcp:8105-8200");
  EXPECT_EQ(Ask("web, other", "8106"), "0");
  EXPECT_EQ(Ask("web", "8200"), "2 other/tcp:8105-8200 web_extra/tcp:8200-8200");
  EXPECT_EQ(Ask("web,web_extra", "8200"), "1 other/tcp:8105-8200");
  EXPECT_EQ(Ask("ftp", "80"), "1 reserved/tcp:1-1023");
  EXPECT_EQ(Ask("ftp", "8300"), "0");
  EXPECT_EQ(Ask("ftp", "8000", 4), "0");
  EXPECT_EQ(Ask("ftp", "80", 8), "0");
  EXPECT_EQ(Ask("ftp", "9000"), "0");
  EXPECT_EQ(Ask("ftp", "9000", 28, "udp"), "1 web/udp:9000-9000");
  EXPECT_EQ(VLIBIsPortConflict("ftp", "8000", "tcp", 28, nullptr), 1);
}

TEST_F(Ports, ThatAreListenedOnAreConflicts) {
  Shell(
      "setsid socat TCP-LISTEN:8400,bind=127.0.0.1,fork /dev/null & setsid socat "
      "TCP6-LISTEN:8000,bind=[::1] /dev/null & "
      "setsid socat -u UDP-RECV:8500 /dev/null & sleep 0.5");
  EXPECT_EQ(Ask("ftp", "8399:8401"), "1 listening/tcp:8400-8400");
  EXPECT_EQ(Ask("ftp", "8399:8401", 12), "0");
  EXPECT_EQ(Ask("web", "8000"), "0");  // its own, though somebody listens
  EXPECT_EQ(Ask("ftp", "8000"), "2 web/tcp:8000-8000 listening/tcp:8000-8000");
  EXPECT_EQ(Ask("ftp", "8500"), "0");
  EXPECT_EQ(Ask("ftp", "8500", 28, "udp"), "1 listening/udp:8500-8500");
}

TEST_F(Ports, WhatIsNoRange) {
  for (const char* range :
       {static_cast<const char*>(nullptr), "", "0", "65536", "-1", "5:1", "1:", ":1", "1:x", "x",
        "1 ", " 1", "1:2:3", "1:65536", "99999999999999999999"}) {
    VLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(Ask("ftp", range), "-1");
    EXPECT_EQ(VLIBCErrGet(), VEMOERR_BAD_PARAM);
  }
  EXPECT_EQ(Ask("", "80"), "-1");
  EXPECT_EQ(Ask(nullptr, "80"), "-1");
  EXPECT_EQ(Ask("ftp", "80", 28, "icmp"), "-1");
  EXPECT_EQ(Ask("ftp", "65535", 28), "0");
  VEMOServiceConfPortsFree(nullptr);
}

TEST_F(Ports, WithoutDeclarationsThereAreNone) {
  Shell("rm -rf /usr/vemo/etc/ports.d");
  EXPECT_EQ(Ask("ftp", "80"), "0");
}

}  // namespace
