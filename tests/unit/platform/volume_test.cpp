// Volumes on real mounts.
#include <unistd.h>
#include <vemo/core.h>
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

}  // namespace
