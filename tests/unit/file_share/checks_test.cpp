// Which paths and names may be used.
#include <sys/stat.h>

#include <cerrno>

#include "faults/faults.h"
#include "unit/file_share/shares.h"

using namespace shares;
using faults::hooks;

namespace {

constexpr int kNone = 0x1234;  // no code of the platform

class Checks : public WithLog {
 protected:
  void SetUp() override {
    Prepare();
    MakeVolume();
    Shell("mkdir -p /volume1/share/sub; touch /volume1/share/sub/file");
    BeginLog();
    VLIBCErrSetEx(kNone, "test", 1);
    WebmanFileShare::WfmLibSetErr(WEBFMERR_OTHER);
  }
  void TearDown() override {
    // Not the code of the other operations.
    EXPECT_EQ(WebmanFileShare::WfmLibGetErr(), WEBFMERR_OTHER);
  }

  static int Code() {
    const int code = VLIBCErrGet();
    VLIBCErrSetEx(kNone, "test", 1);
    return code;
  }

  static int Name(const char* dir, const std::string& name) {
    std::string copy = name;
    return WebmanFileShare::WfmCheckFileName(dir, copy.data());
  }
};

TEST_F(Checks, PathsOfDirectoriesAndFiles) {
  for (const char* path : {"/", "/volume1", "/volume1/share/sub/file", "/volume1/share/sub/",
                           "//volume1///share//", "/volume1/share/sub"}) {
    EXPECT_EQ(WebmanFileShare::WfmCheckPath(path), 0) << path;
    EXPECT_EQ(Code(), kNone) << path;
  }
  EXPECT_EQ(Logged(), Texts{});
}

TEST_F(Checks, PathsThatAreNone) {
  for (const char* path : {static_cast<const char*>(nullptr), "", "volume1/share", "./x"}) {
    EXPECT_EQ(WebmanFileShare::WfmCheckPath(path), -1);
    EXPECT_EQ(Code(), 0x0D00);
  }
  for (const char* path : {"/volume1/share/none", "/volume1/none/file", "/none"}) {
    EXPECT_EQ(WebmanFileShare::WfmCheckPath(path), -1);
    EXPECT_EQ(Code(), 0x0600);
  }
  EXPECT_EQ(Logged(), Texts{});
}

TEST_F(Checks, PathsWithLinksAndDevices) {
  Shell(
      "cd /volume1/share; ln -s sub link; ln -s sub/file filelink; mkfifo pipe; "
      "mknod device c 1 3; ln -s none dangling; "
      "python3 -c \"import socket; socket.socket(socket.AF_UNIX).bind('socket')\"");
  const struct {
    std::string path, refused;
  } rows[] = {{"/volume1/share/link", "/volume1/share/link"},
              {"/volume1/share/link/", "/volume1/share/link"},
              {"/volume1/share/link/file", "/volume1/share/link"},
              {"/volume1/share/filelink", "/volume1/share/filelink"},
              {"/volume1/share/dangling", "/volume1/share/dangling"},
              {"/volume1/share/pipe", "/volume1/share/pipe"},
              {"/volume1/share/device", "/volume1/share/device"},
              {"/volume1/share/socket", "/volume1/share/socket"}};
  for (const auto& row : rows) {
    EXPECT_EQ(WebmanFileShare::WfmCheckPath(row.path.c_str()), -1) << row.path;
    EXPECT_EQ(Code(), 0x8100);
    EXPECT_EQ(Logged(), Texts{"WfmCheckPath(N):file_share Path is not regular file and directory:" +
                              row.refused});
  }
}

TEST_F(Checks, PathsWithDots) {
  for (const std::string path :
       {"/volume1/share/..", "/volume1/share/.", "/volume1/share/../share/sub", "/..", "/."}) {
    EXPECT_EQ(WebmanFileShare::WfmCheckPath(path.c_str()), -1) << path;
    EXPECT_EQ(Code(), 0x8100);
    // The path as it was when the component came off.
    const std::string cut = path.size() > 17 ? "/volume1/share/.." : path;
    EXPECT_EQ(Logged(),
              Texts{"WfmCheckPath(N):file_share Path contains '.' or '..', path = " + cut});
  }
  Shell("mkdir -p /volume1/.../..x");
  EXPECT_EQ(WebmanFileShare::WfmCheckPath("/volume1/.../..x"), 0);
}

TEST_F(Checks, PathsThatCannotBeExamined) {
  const std::string file = "/volume1/share/sub/file";
  EXPECT_EQ(WebmanFileShare::WfmCheckPath((file + "/x").c_str()), -1);
  EXPECT_EQ(Code(), 0x8100);
  EXPECT_EQ(Logged(), Texts{"WfmCheckPath(N):file_share failed to lstat " + file +
                            "/x, reason=Not a directory"});
  for (const size_t size : {4096UL, 5000UL}) {
    std::string path;
    while (path.size() + 2 <= size)
      path += "/a";
    path.resize(size, '/');
    EXPECT_EQ(WebmanFileShare::WfmCheckPath(path.c_str()), -1);
    EXPECT_EQ(Code(), 0x8100);
    const Texts lines = Logged();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_TRUE(lines[0].starts_with("WfmCheckPath(N):file_share failed to lstat /a/a"));
  }
  std::string longest = "/volume1";
  longest += std::string(4095 - longest.size(), '/');
  EXPECT_EQ(WebmanFileShare::WfmCheckPath(longest.c_str()), 0);  // 4,095 bytes are a path

  Shell("chmod 0700 /volume1/share");
  EXPECT_EQ(As("alice",
               [&] {
                 std::printf("%d", WebmanFileShare::WfmCheckPath(file.c_str()));
                 std::printf(" %x", Code());
               }),
            "-1 300");
  EXPECT_EQ(Logged(), Texts{});
}

TEST_F(Checks, PathsWithoutMemory) {
  hooks.strdup = [](const char*) -> char* {
    errno = ENOMEM;
    return nullptr;
  };
  EXPECT_EQ(WebmanFileShare::WfmCheckPath("/volume1"), -1);
  hooks.strdup = nullptr;
  EXPECT_EQ(Code(), 0x8100);
  EXPECT_EQ(Logged(),
            Texts{"WfmCheckPath(N):file_share strdup fail, error:Cannot allocate memory"});
}

TEST_F(Checks, ReservedNames) {
  const struct {
    const char* name;
    bool free;
    int code;
  } rows[] = {{nullptr, true, 0x0D00},       {"", true, 0x0D00},        {".", false, 0x9A00},
              {"..", false, 0x9A00},         {"._", false, 0x9A00},     {"._foo", false, 0x9A00},
              {"...", true, kNone},          {".foo", true, kNone},     {"_foo", true, kNone},
              {"a._b", true, kNone},         {"@eaDir", false, 0x9A00}, {"@tmp", false, 0x9A00},
              {"lost+found", false, 0x9A00}, {"@EADIR", true, kNone},   {"a/b", true, kNone},
              {"a:b", true, kNone}};
  for (const auto& row : rows) {
    EXPECT_EQ(WebmanFileShare::WfmCheckReservedName(row.name), row.free) << row.name;
    EXPECT_EQ(Code(), row.code) << row.name;
  }
  EXPECT_EQ(Logged(), Texts{});
}

TEST_F(Checks, NamesOfFiles) {
  const char* dir = "/volume1/share";
  EXPECT_EQ(WebmanFileShare::WfmCheckFileName(dir, nullptr), -1);
  EXPECT_EQ(Code(), 0x0D00);
  EXPECT_EQ(Name(dir, ""), -1);
  EXPECT_EQ(Code(), 0x0D00);
  EXPECT_EQ(Name(nullptr, "a"), -1);
  EXPECT_EQ(Code(), 0x0D00);
  for (const char* name : {".", "..", "._a", "@eaDir"}) {
    EXPECT_EQ(Name(dir, name), -1) << name;
    EXPECT_EQ(Code(), 0x9A00) << name;
  }
  // What FAT cannot store, there and elsewhere.
  for (const char character : std::string("\\/:*?\"><|\r\n")) {
    const std::string name = std::string("a") + character + "b";
    hooks.VEMOGetFSType = [](const char* path, int) {
      EXPECT_STREQ(path, "/volume1/share");
      return 0;
    };
    EXPECT_EQ(Name(dir, name), -1) << name;
    EXPECT_EQ(Code(), 0xA500) << name;
    hooks.VEMOGetFSType = nullptr;
    const bool elsewhere = character != '/' && character != ':';
    EXPECT_EQ(Name(dir, name), elsewhere ? 0 : -1) << name;
    EXPECT_EQ(Code(), elsewhere ? kNone : 0x9A00) << name;
  }
  for (const int type : {0, 1, 3, 12, 15}) {
    hooks.VEMOGetFSType = [type](auto...) { return type; };
    for (const char* name : {"a", "a b'&;,+=[]", "\xc3\xa4\xff", "..a", "-"}) {
      EXPECT_EQ(Name(dir, name), 0) << name;
      EXPECT_EQ(Code(), kNone);
    }
  }
  EXPECT_EQ(Logged(), Texts{});
}

TEST_F(Checks, NamesWhereTheFileSystemIsNotKnown) {
  const auto refused = [&](const std::string& dir, int code, const std::string& reason) {
    EXPECT_EQ(Name(dir.c_str(), "a"), -1) << dir;
    EXPECT_EQ(Code(), code) << dir;
    EXPECT_EQ(Logged(), Texts{"file_share:N(WfmCheckFileName) failed to statfs " + dir +
                              ", reason=" + reason});
  };
  refused("/none", 0x0600, "No such file or directory");
  refused("/etc/passwd/x", 0x0600, "Not a directory");
  const std::string longest = "/" + std::string(300, 'x');
  refused(longest, 0x2700, "File name too long");
  for (const auto& [error, code] : {std::pair{EIO, 0x0600},
                                    {ENOENT, 0x0600},
                                    {ENOTDIR, 0x0600},
                                    {EACCES, 0x0300},
                                    {EPERM, 0x2700},
                                    {ELOOP, 0x2700}}) {
    hooks.VEMOGetFSType = [error = error](auto...) {
      VLIBCErrSetEx(0x0400, "platform", 1);
      errno = error;
      return -1;
    };
    refused("/volume1/share", code, strerror(error));
  }
}

TEST_F(Checks, SupportedFileSystems) {
  EXPECT_TRUE(WebmanFileShare::WfmLibFileSystemSupported("/volume1/share"));
  EXPECT_EQ(Logged(), Texts{});
  for (const char* path : {"/etc", "/removable1x"}) {
    EXPECT_TRUE(WebmanFileShare::WfmLibFileSystemSupported(path));
    EXPECT_EQ(Logged(), Texts{std::string("file_share:N Bad parameters: ") + path});
  }
  EXPECT_TRUE(WebmanFileShare::WfmLibFileSystemSupported(""));
  EXPECT_EQ(Logged(), Texts{"file_share:N Bad parameters: "});

  for (const std::string point : {"/removable1", "/card1"}) {
    MakeVolume(point);
    EXPECT_FALSE(WebmanFileShare::WfmLibFileSystemSupported(point.c_str()));  // tmpfs
    EXPECT_EQ(Logged(), Texts{});
    EXPECT_FALSE(WebmanFileShare::WfmLibFileSystemSupported((point + "/none").c_str()));
    EXPECT_EQ(Logged(), Texts{"file_share:N VEMOGetFSType got error"});
    for (int type = 0; type < 25; type++) {
      hooks.VEMOGetFSType = [type](auto...) { return type; };
      const bool supported =
          std::string(",0,1,2,3,5,7,8,9,18,19,").find("," + std::to_string(type) + ",") !=
          std::string::npos;
      EXPECT_EQ(WebmanFileShare::WfmLibFileSystemSupported(point.c_str()), supported) << type;
      EXPECT_TRUE(WebmanFileShare::WfmLibFileSystemSupported("/volume1")) << type;
    }
    hooks.VEMOGetFSType = nullptr;
  }
  Shell("truncate -s 8M /run/image && mkfs.ext4 -q -F /run/image");
  if (system("mount -o loop -t ext4 /run/image /removable1 2>/dev/null") != 0) return;
  EXPECT_TRUE(WebmanFileShare::WfmLibFileSystemSupported("/removable1"));
}

}  // namespace
