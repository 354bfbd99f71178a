// The histories of pictures: the ring and its files, what becomes of a picture that is
// added, and every message.
#include "appearance/image_selector_utils.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vemo/core.h>
#include <vemo/user.h>

#include <cstring>

#include "common/json.h"
#include "unit/appearance/pictures.h"

// The helpers behind the three histories, for arguments that no history gives them.
class ImageSelectorUtilsPeer {
 public:
  static bool GetFileExtByIndex(const char* directory, int slot, const char* type, char* extension,
                                int size) {
    return ImageSelectorUtils::GetFileExtByIndex(directory, slot, type, extension, size);
  }
  static void RemoveHistoryIfExist(const char* directory, const char* type, int slot) {
    ImageSelectorUtils::RemoveHistoryIfExist(directory, type, slot);
  }
  static bool AddHistory(const char* directory, const char* type, const char* source,
                         const char* extension, char* outImage, char* outThumb, int imageSize,
                         int thumbSize, int slot, int edge) {
    return ImageSelectorUtils::AddHistory(directory, type, source, extension, outImage, outThumb,
                                          imageSize, thumbSize, slot, edge);
  }
};

namespace {

using pictures::Bitmap;
using pictures::Convert;
using pictures::Describe;
using pictures::Exists;
using pictures::Messages;
using pictures::Read;
using pictures::Replace;
using pictures::Shell;
using pictures::Texts;
using pictures::Write;
using Utils = ImageSelectorUtils;
using Peer = ImageSelectorUtilsPeer;

constexpr char kLogin[] = "/usr/vemo/etc/login_image/";
constexpr char kSharing[] = "/usr/vemo/etc/fbsharing_login_image/";
constexpr char kConvert[] = "/usr/bin/convert";
const std::string kPlace = "/run/pictures/";

std::string Message(const std::string& text) { return "image_selector_utils:N " + text; }

struct Added {
  bool done;
  std::string image, thumb;
};

using Adding = bool (*)(const char*, const char*, const char*, char*, char*, int, int);

Added AddTo(Adding add, const std::string& source, const char* extension, const char* type = "bg") {
  char image[4097] = "", thumb[4097] = "";
  const bool done = add(type, source.c_str(), extension, image, thumb, sizeof image, sizeof thumb);
  return {done, image, thumb};
}

Added AddLogin(const std::string& source, const char* extension, const char* type = "bg") {
  return AddTo(Utils::AddLoginHistory, source, extension, type);
}

Added AddDesktop(const std::string& user, const std::string& source, const char* extension) {
  char image[4097] = "", thumb[4097] = "";
  const bool done = Utils::AddDesktopHistory(user, source.c_str(), extension, image, thumb,
                                             sizeof image, sizeof thumb);
  return {done, image, thumb};
}

std::string Key(const char* key) {
  char value[64] = "";
  return VLIBCFileGetKeyValue("/etc/vemoinfo.conf", key, value, sizeof value) < 1 ? "none" : value;
}

class Pictures : public testing::Test {
 protected:
  void SetUp() override {
    umask(022);
    Shell("rm -rf /run/pictures /usr/vemo/etc/login_image /usr/vemo/etc/fbsharing_login_image");
    Shell("mkdir /run/pictures");
    Write("/etc/vemoinfo.conf", "language=\"def\"\n");
    Write(kPlace + "small.bmp", Bitmap(300, 200));
  }

  support::Syslog log_;
  const std::string small_ = kPlace + "small.bmp";
};

TEST_F(Pictures, AcceptedExtensions) {
  for (const char* good : {".jpg", ".jpeg", ".jpe", ".bmp", ".gif", ".png", ".PNG", ".JpG"})
    EXPECT_TRUE(Utils::CheckFileType(good)) << good;
  for (const char* bad : {".tif", "", "png", ".pn", ".pngx", ".png ", ".svg", ".webp", "."})
    EXPECT_FALSE(Utils::CheckFileType(bad)) << bad;
  EXPECT_FALSE(Utils::CheckFileType(nullptr));
}

TEST_F(Pictures, SizesAtTheirLimits) {
  const std::string file = kPlace + "size";
  Write(file, "");
  struct Row {
    off_t size;
    bool kept, compressed;
  };
  for (const Row& row : {Row{0, true, false}, Row{1048576, true, false}, Row{1048577, false, false},
                         Row{2097152, false, false}, Row{2097153, false, true}}) {
    ASSERT_EQ(truncate(file.c_str(), row.size), 0);
    EXPECT_EQ(Utils::CheckFileSize(file.c_str()), row.kept) << row.size;
    EXPECT_EQ(Utils::IsImageNeededCompress(file.c_str()), row.compressed) << row.size;
  }
  EXPECT_EQ(Messages(log_), Texts());
  EXPECT_FALSE(Utils::CheckFileSize("/run/none"));
  EXPECT_FALSE(Utils::IsImageNeededCompress("/run/none"));
  EXPECT_FALSE(Utils::CheckFileSize(nullptr));
  const std::string text = "stat /run/none failed. (No such file or directory)";
  EXPECT_EQ(Messages(log_), Texts(Message(text), Message(text),
                                  Message("stat  failed. (No such file or directory)")));
}

TEST_F(Pictures, TransparencyOfRealPictures) {
  Convert(small_ + " -alpha set -channel A -evaluate set 50% " + kPlace + "half.png");
  Convert(small_ + " -alpha set " + kPlace + "opaque.png");
  Convert(small_ + " -colorspace CMYK " + kPlace + "cmyk.jpg");
  EXPECT_TRUE(Utils::IsImageTransparent((kPlace + "half.png").c_str()));
  // A channel that says "opaque" everywhere is one, too.
  EXPECT_TRUE(Utils::IsImageTransparent((kPlace + "opaque.png").c_str()));
  EXPECT_FALSE(Utils::IsImageTransparent((kPlace + "cmyk.jpg").c_str()));
  EXPECT_FALSE(Utils::IsImageTransparent(small_.c_str()));
  EXPECT_FALSE(Utils::IsImageTransparent("/run/none"));
  EXPECT_EQ(Messages(log_), Texts());
}

TEST_F(Pictures, TheReportOfTheTool) {
  struct Row {
    const char* report;
    bool transparent;
  };
  const Row rows[] = {
      {"", false},
      {"Channel depth:\n  red: 8-bit\n  alpha: 8-bit\nChannel statistics:\n", true},
      {"Channel depth:\n  red: 8-bit\nChannel statistics:\n  alpha:\n", false},
      {"  alpha: 8-bit\nChannel depth:\n  red: 8-bit\n", false},
      {"  alpha: 8-bit\n", false},
      {"Channel depth: alpha: 1-bit\n", true},
      {"Channel depth:\nChannel statistics: alpha:\n", false},
      {"Channel statistics:\nChannel depth:\n  alpha: 8-bit\n", false},
      {"Channel depth:\n  Alpha: 8-bit\n", false},
      {"Channel depth:\nred: 1\nChannel depth:\n alpha: 1", true},
      {"Channel depth:\n  alpha 8-bit", false},
  };
  for (const Row& row : rows) {
    Write("/run/report", row.report);
    Replace(kConvert, std::string(pictures::kNote) + "cat /run/report\nexit 1\n");
    EXPECT_EQ(Utils::IsImageTransparent("/run/a b.png"), row.transparent) << row.report;
  }
  EXPECT_EQ(Read("/run/calls").substr(0, 50),
            "/usr/bin/convert /run/a b.png -verbose info:\n/usr/");
  EXPECT_EQ(Messages(log_), Texts());
}

TEST_F(Pictures, AReportWithoutEndIsNotReadToItsEnd) {
  Replace(kConvert, "echo 'Channel depth:'; echo 'alpha: 1'; while :; do echo more; done\n");
  EXPECT_TRUE(Utils::IsImageTransparent("x"));
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);  // and leaves no child
}

TEST_F(Pictures, WithoutTheToolNothingIsTransparent) {
  std::filesystem::remove(kConvert);
  EXPECT_FALSE(Utils::IsImageTransparent(small_.c_str()));
  EXPECT_FALSE(Utils::IsImageTransparent(nullptr));
  EXPECT_EQ(Messages(log_), Texts(Message("Failed to open pipe"), Message("Failed to open pipe")));
}

TEST_F(Pictures, StoredSlots) {
  EXPECT_EQ(Utils::GetLoginIndexKey("bg"), 0);
  struct Row {
    int slot;
    const char* stored;
  };
  for (const Row& row : {Row{5, "5"}, Row{13, "5"}, Row{-3, "0"}, Row{0, "0"}, Row{8, "0"},
                         Row{7, "7"}, Row{2147483647, "7"}}) {
    EXPECT_TRUE(Utils::SetLoginIndexKey("bg", row.slot));
    EXPECT_EQ(Key("login_bg_index"), row.stored);
    EXPECT_TRUE(Utils::SetFileSharingLoginIndexKey("bg", row.slot));
    EXPECT_EQ(Key("fbsharing_login_bg_index"), row.stored);
  }
  EXPECT_TRUE(Utils::SetLoginIndexKey("logo", 3));
  EXPECT_EQ(Utils::GetLoginIndexKey("logo"), 3);
  EXPECT_EQ(Utils::GetLoginIndexKey("bg"), 7);
  EXPECT_EQ(Utils::GetFileSharingLoginIndexKey("logo"), 0);
  EXPECT_EQ(Key("language"), "def");
  EXPECT_EQ(Messages(log_), Texts());
  EXPECT_FALSE(Utils::SetLoginIndexKey(nullptr, 1));
  EXPECT_FALSE(Utils::SetFileSharingLoginIndexKey(nullptr, 1));
  EXPECT_EQ(Utils::GetLoginIndexKey(nullptr), 0);
  EXPECT_EQ(Messages(log_), Texts(Message("Wrong type."), Message("Wrong type.")));
}

TEST_F(Pictures, StoredTextsThatAreNoSlots) {
  struct Row {
    const char* text;
    int slot;
  };
  for (const Row& row : {Row{"", 0}, Row{"x", 0}, Row{" 6x", 6}, Row{"-4", -4}, Row{"13", 13},
                         Row{"99999999999", 2147483647}}) {
    Write("/etc/vemoinfo.conf", std::string("login_bg_index=\"") + row.text + "\"\n");
    EXPECT_EQ(Utils::GetLoginIndexKey("bg"), row.slot) << row.text;
    const Added added = AddLogin(small_, ".bmp");
    const int next = static_cast<int>((static_cast<unsigned>(row.slot) + 1) % 8);
    EXPECT_EQ(added.image, kLogin + ("bg" + std::to_string(next)) + ".bmp") << row.text;
  }
}

TEST_F(Pictures, TheRingOfEight) {
  std::string expected[8];
  for (int turn = 1; turn <= 18; turn++) {
    const std::string source = kPlace + "turn" + std::to_string(turn);
    Convert(small_ + " -resize " + std::to_string(10 + turn) + "x " + source + ".png");
    const Added added = AddLogin(source + ".png", ".png");
    ASSERT_TRUE(added.done);
    const std::string name = kLogin + ("bg" + std::to_string(turn % 8));
    EXPECT_EQ(added.image, name + ".png");
    EXPECT_EQ(added.thumb, name + "thumb.png");
    EXPECT_EQ(Utils::GetLoginIndexKey("bg"), turn % 8);
    expected[turn % 8] = Read(source + ".png");
  }
  for (int slot = 0; slot < 8; slot++) {
    EXPECT_EQ(Read(kLogin + ("bg" + std::to_string(slot)) + ".png"), expected[slot]);
  }
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(kLogin), {}), 16);
  EXPECT_FALSE(Exists(kSharing));
  EXPECT_EQ(Messages(log_), Texts());
}

TEST_F(Pictures, TheHistoriesAreApart) {
  EXPECT_EQ(AddLogin(small_, ".bmp").image, std::string(kLogin) + "bg1.bmp");
  EXPECT_EQ(AddLogin(small_, ".bmp", "logo").image, std::string(kLogin) + "logo1.bmp");
  EXPECT_EQ(AddTo(Utils::AddFileSharingLoginHistory, small_, ".bmp").image,
            std::string(kSharing) + "bg1.bmp");
  char extension[8];
  EXPECT_TRUE(Utils::GetFileSharingLoginFileExtByIndex(1, "bg", extension, sizeof extension));
  Utils::RemoveFileSharingLoginHistoryIfExist("bg", 1);
  EXPECT_FALSE(Utils::GetFileSharingLoginFileExtByIndex(1, "bg", extension, sizeof extension));
  Utils::RemoveLoginHistoryIfExist("logo", 1);
  EXPECT_TRUE(Utils::GetLoginFileExtByIndex(1, "bg", extension, sizeof extension));
  EXPECT_EQ(Key("fbsharing_login_bg_index"), "1");
  EXPECT_EQ(Key("login_logo_index"), "1");
  EXPECT_EQ(Describe(std::string(kLogin) + "bg1thumb.bmp"), "BMP 160x107");
}

TEST_F(Pictures, ExtensionsAreFoundInTheirOrder) {
  Shell("mkdir -p /usr/vemo/etc/login_image");
  char extension[8] = "before";
  EXPECT_FALSE(Utils::GetLoginFileExtByIndex(2, "bg", extension, sizeof extension));
  EXPECT_STREQ(extension, "before");
  for (const char* found : {".png", ".gif", ".bmp", ".jpe", ".jpeg", ".jpg"}) {
    Write(kLogin + std::string("bg2") + found, "");
    EXPECT_TRUE(Utils::GetLoginFileExtByIndex(2, "bg", extension, sizeof extension));
    EXPECT_STREQ(extension, found);
  }
  char cut[4] = "xyz";
  EXPECT_TRUE(Utils::GetLoginFileExtByIndex(2, "bg", cut, sizeof cut));
  EXPECT_STREQ(cut, ".jp");
  EXPECT_TRUE(Utils::GetLoginFileExtByIndex(2, "bg", cut, 1));
  EXPECT_STREQ(cut, "");
  EXPECT_FALSE(Utils::GetLoginFileExtByIndex(-2, "bg", extension, sizeof extension));
  Write(kLogin + std::string("bg0.gif"), "");
  EXPECT_TRUE(Utils::GetLoginFileExtByIndex(-2, "bg", extension, sizeof extension));
  EXPECT_STREQ(extension, ".gif");
  EXPECT_FALSE(Utils::GetLoginFileExtByIndex(2, std::string(5000, 'x').c_str(), extension, 8));
  EXPECT_EQ(Messages(log_), Texts());
}

TEST_F(Pictures, AnExtensionNeedsItsArguments) {
  char extension[8] = "before";
  EXPECT_FALSE(Peer::GetFileExtByIndex(nullptr, 0, nullptr, nullptr, 0));
  EXPECT_FALSE(Utils::GetLoginFileExtByIndex(0, nullptr, nullptr, 0));
  EXPECT_FALSE(Utils::GetLoginFileExtByIndex(0, "bg", nullptr, 0));
  EXPECT_FALSE(Utils::GetLoginFileExtByIndex(0, "bg", extension, 0));
  EXPECT_FALSE(Utils::GetLoginFileExtByIndex(0, "bg", extension, -1));
  EXPECT_FALSE(Utils::GetFileSharingLoginFileExtByIndex(0, nullptr, extension, 8));
  EXPECT_EQ(Messages(log_),
            Texts(Message("Dir is null"), Message("Wrong type."),
                  Message("Wrong return extension."), Message("Wrong extension size."),
                  Message("Wrong extension size."), Message("Wrong type.")));
  EXPECT_STREQ(extension, "before");
}

TEST_F(Pictures, ARemovalTakesEveryFileOfItsSlotAndNoOther) {
  Shell("mkdir -p /usr/vemo/etc/login_image");
  for (const char* extension : {".jpg", ".jpeg", ".jpe", ".bmp", ".gif", ".png", ".tif"}) {
    for (const char* name : {"bg3", "bg3thumb", "bg4", "bg31", "x3"})
      Write(kLogin + std::string(name) + extension, "");
  }
  Utils::RemoveLoginHistoryIfExist("bg", 3);
  std::string left;
  for (const auto& entry : std::filesystem::directory_iterator(kLogin)) {
    const std::string name = entry.path().stem();
    if (name == "bg3" || name == "bg3thumb") left += entry.path().filename();
  }
  EXPECT_TRUE(left == "bg3.tifbg3thumb.tif" || left == "bg3thumb.tifbg3.tif") << left;
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(kLogin), {}), 35 - 12);
  Utils::RemoveLoginHistoryIfExist("bg", 3);
  EXPECT_EQ(Messages(log_), Texts());
  Peer::RemoveHistoryIfExist(nullptr, nullptr, -1);
  Utils::RemoveLoginHistoryIfExist(nullptr, -1);
  Utils::RemoveFileSharingLoginHistoryIfExist("bg", -1);
  EXPECT_EQ(Messages(log_),
            Texts(Message("Dir is null"), Message("Wrong type."), Message("Wrong index.")));
}

TEST_F(Pictures, AnAdditionNeedsItsArguments) {
  char image[100], thumb[100];
  struct Row {
    const char *directory, *type, *source, *extension;
    char *image, *thumb;
    int image_size, thumb_size;
    const char* message;
  };
  const Row rows[] = {
      {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 0, 0, "Dir is null"},
      {"/run/d", nullptr, nullptr, nullptr, nullptr, nullptr, 0, 0, "Wrong type."},
      {"/run/d", "t", nullptr, nullptr, nullptr, nullptr, 0, 0, "Wrong file path."},
      {"/run/d", "t", "s", nullptr, nullptr, nullptr, 0, 0, "Wrong file extension."},
      {"/run/d", "t", "s", ".e", nullptr, nullptr, 0, 0, "Wrong return path."},
      {"/run/d", "t", "s", ".e", image, nullptr, 0, 0, "Wrong return thumb path."},
      {"/run/d", "t", "s", ".e", image, thumb, 0, 0, "Wrong Path length."},
      {"/run/d", "t", "s", ".e", image, thumb, -1, 1, "Wrong Path length."},
      {"/run/d", "t", "s", ".e", image, thumb, 1, 0, "Wrong Thumb Path length."},
      {"/run/d", "t", "s", ".e", image, thumb, 1, -1, "Wrong Thumb Path length."},
  };
  for (const Row& row : rows) {
    EXPECT_FALSE(Peer::AddHistory(row.directory, row.type, row.source, row.extension, row.image,
                                  row.thumb, row.image_size, row.thumb_size, 1, 160));
    EXPECT_EQ(Messages(log_), Texts(Message(row.message)));
  }
  EXPECT_FALSE(Exists("/run/d"));
  EXPECT_FALSE(Utils::AddLoginHistory(nullptr, "s", ".e", image, thumb, 100, 100));
  EXPECT_EQ(Messages(log_), Texts(Message("Wrong type."), Message("Wrong type.")));
  EXPECT_FALSE(Utils::AddFileSharingLoginHistory("t", nullptr, ".e", image, thumb, 100, 100));
  EXPECT_EQ(Messages(log_), Texts(Message("Wrong file path.")));
}

TEST_F(Pictures, EveryKindOfPicture) {
  struct Row {
    const char *options, *extension, *thumb;
  };
  const Row rows[] = {
      {"", ".jpg", "JPEG 160x107"},
      {"", ".jpeg", "JPEG 160x107"},
      {"", ".jpe", "JPEG 160x107"},
      {"", ".bmp", "BMP 160x107"},
      {"", ".png", "PNG 160x107"},
      {"-colorspace CMYK", ".jpg", "JPEG 160x107"},
      {"-interlace JPEG", ".jpg", "JPEG 160x107"},
      {"-depth 16 -define png:bit-depth=16", ".png", "PNG 160x107"},
      {"-alpha set -channel A -evaluate set 30%", ".png", "PNG 160x107"},
      {"-resize 20x30!", ".png", "PNG 107x160"},
      {"-resize 1x1!", ".bmp", "BMP 160x160"},
  };
  for (const Row& row : rows) {
    const std::string source = kPlace + "kind" + row.extension;
    Convert(small_ + " " + row.options + " " + source);
    const Added added = AddLogin(source, row.extension);
    EXPECT_TRUE(added.done) << source;
    EXPECT_EQ(Read(added.image), Read(source)) << row.options;
    EXPECT_EQ(Describe(added.thumb), row.thumb) << row.options << row.extension;
    struct stat status;
    ASSERT_EQ(stat(added.image.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644u);
  }
  struct stat directory;
  ASSERT_EQ(stat(kLogin, &directory), 0);
  EXPECT_EQ(directory.st_mode & 07777, 0755u);
  EXPECT_EQ(Messages(log_), Texts());
}

TEST_F(Pictures, ALargeOpaquePictureBecomesAJpeg) {
  Write(kPlace + "large.bmp", Bitmap(1100, 1000));
  Convert(kPlace + "large.bmp " + kPlace + "large.png");
  const std::string content = Read(kPlace + "large.png");
  ASSERT_GT(content.size(), 3u << 20);
  const Added added = AddLogin(kPlace + "large.png", ".png");
  EXPECT_TRUE(added.done);
  EXPECT_EQ(added.image, std::string(kLogin) + "bg1.jpg");
  EXPECT_EQ(Describe(added.image), "JPEG 1100x1000");
  // The thumbnail keeps the extension of before, and the copy stays.
  EXPECT_EQ(added.thumb, std::string(kLogin) + "bg1thumb.png");
  EXPECT_EQ(Describe(added.thumb), "PNG 160x145");
  EXPECT_EQ(Read(std::string(kLogin) + "bg1.png"), content);
  char extension[8];
  EXPECT_TRUE(Utils::GetLoginFileExtByIndex(1, "bg", extension, sizeof extension));
  EXPECT_STREQ(extension, ".jpg");
  Utils::RemoveLoginHistoryIfExist("bg", 1);
  EXPECT_TRUE(std::filesystem::is_empty(kLogin));
  EXPECT_EQ(Messages(log_), Texts());
}

TEST_F(Pictures, ALargeTransparentPictureStays) {
  Write(kPlace + "large.bmp", Bitmap(1100, 1000));
  Convert(kPlace + "large.bmp -alpha set -channel A -evaluate set 50% " + kPlace + "large.png");
  const Added added = AddLogin(kPlace + "large.png", ".png");
  EXPECT_TRUE(added.done);
  EXPECT_EQ(added.image, std::string(kLogin) + "bg1.png");
  EXPECT_EQ(Read(added.image), Read(kPlace + "large.png"));
  EXPECT_EQ(Describe(added.thumb), "PNG 160x145");
  EXPECT_FALSE(Exists(std::string(kLogin) + "bg1.jpg"));
}

TEST_F(Pictures, ALargeJpegIsCompressedInItsPlace) {
  Write(kPlace + "large.bmp", Bitmap(1400, 1000));
  Convert(kPlace + "large.bmp -quality 100 " + kPlace + "large.jpg");
  ASSERT_TRUE(Utils::IsImageNeededCompress((kPlace + "large.jpg").c_str()));
  const Added added = AddLogin(kPlace + "large.jpg", ".jpg");
  EXPECT_TRUE(added.done);
  EXPECT_EQ(added.image, std::string(kLogin) + "bg1.jpg");
  EXPECT_EQ(Describe(added.image), "JPEG 1400x1000");
  EXPECT_NE(Read(added.image), Read(kPlace + "large.jpg"));
}

TEST_F(Pictures, WhatMovesIsLeftAsItIs) {
  Convert(small_ + " \\( " + small_ + " -negate \\) -delay 10 " + kPlace + "small.gif");
  Added added = AddLogin(kPlace + "small.gif", ".GIF");
  EXPECT_TRUE(added.done);
  EXPECT_EQ(added.image, std::string(kLogin) + "bg1.gif");
  EXPECT_EQ(added.thumb, added.image);
  EXPECT_EQ(Read(added.image), Read(kPlace + "small.gif"));

  Write(kPlace + "large.bmp", Bitmap(1400, 1000));
  Convert(kPlace + "large.bmp " + kPlace + "large.bmp " + kPlace + "large.gif");
  ASSERT_TRUE(Utils::IsImageNeededCompress((kPlace + "large.gif").c_str()));
  added = AddLogin(kPlace + "large.gif", ".gif");
  EXPECT_TRUE(added.done);
  EXPECT_EQ(added.image, std::string(kLogin) + "bg2.gif");
  EXPECT_EQ(added.thumb, added.image);
  EXPECT_EQ(Read(added.image), Read(kPlace + "large.gif"));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(kLogin), {}), 2);
}

TEST_F(Pictures, ExtensionsBecomeLowerCaseAndAreCut) {
  Convert(small_ + " " + kPlace + "small.jpg");
  EXPECT_EQ(AddLogin(kPlace + "small.jpg", ".JPG").image, std::string(kLogin) + "bg1.jpg");
  EXPECT_EQ(AddLogin(kPlace + "small.jpg", ".ABCDEFGH").image, std::string(kLogin) + "bg2.abcdef");
}

TEST_F(Pictures, HowTheToolsAreCalled) {
  Replace("/bin/cp", std::string(pictures::kNote) + "echo x >\"$3\"; truncate -s 2097153 \"$3\"\n");
  Replace(kConvert, pictures::kNote);
  EXPECT_TRUE(AddLogin("/run/so urce", ".Png").done);
  EXPECT_EQ(Read("/run/calls"),
            "/bin/cp -f /run/so urce /usr/vemo/etc/login_image/bg1.png\n"
            "/usr/bin/convert /usr/vemo/etc/login_image/bg1.png -verbose info:\n"
            "/usr/bin/convert /usr/vemo/etc/login_image/bg1.png "
            "/usr/vemo/etc/login_image/bg1.jpg\n"
            "/usr/bin/convert -size 160x160 -thumbnail 160x160 -quality 90 -unsharp "
            "0.5x0.5+1.25+0.0 /usr/vemo/etc/login_image/bg1.jpg "
            "/usr/vemo/etc/login_image/bg1thumb.png\n");
}

TEST_F(Pictures, ACopyThatCannotBeRunFailsWithoutAMessage) {
  AddLogin(small_, ".bmp");
  Utils::SetLoginIndexKey("bg", 0);
  std::filesystem::remove("/bin/cp");
  EXPECT_FALSE(AddLogin(small_, ".bmp").done);
  EXPECT_EQ(Messages(log_), Texts());
  // The slot was emptied before, and the one in use is the one before.
  EXPECT_TRUE(std::filesystem::is_empty(kLogin));
  EXPECT_EQ(Utils::GetLoginIndexKey("bg"), 0);
}

TEST_F(Pictures, ACopyThatFailsCountsWhenThereIsAFile) {
  Replace("/bin/cp", "head -c 1000 \"$2\" >\"$3\"; exit 1\n");
  const Added added = AddLogin(small_, ".bmp");
  EXPECT_TRUE(added.done);
  EXPECT_EQ(Read(added.image), Read(small_).substr(0, 1000));
  EXPECT_EQ(Utils::GetLoginIndexKey("bg"), 1);
}

TEST_F(Pictures, ASourceThatDoesNotExist) {
  EXPECT_FALSE(AddLogin("/run/none", ".bmp").done);
  EXPECT_EQ(Messages(log_), Texts(Message("Failed to chmod, No such file or directory")));
  EXPECT_EQ(Key("login_bg_index"), "none");
}

TEST_F(Pictures, ADirectoryThatCannotBeMade) {
  Shell("rm -rf /usr/vemo/etc; touch /usr/vemo/etc");
  EXPECT_FALSE(AddLogin(small_, ".bmp").done);
  EXPECT_EQ(Messages(log_),
            Texts(Message("Failed to mkdir /usr/vemo/etc/login_image, Not a directory")));
}

TEST_F(Pictures, ACompressionThatFails) {
  Write(kPlace + "broken.png", std::string(3 << 20, 'x'));
  AddLogin(small_, ".bmp");
  EXPECT_FALSE(AddLogin(kPlace + "broken.png", ".png").done);
  EXPECT_EQ(Messages(log_), Texts(Message("Fail to execute /usr/bin/convert, "
                                          "/usr/vemo/etc/login_image/bg2.png "
                                          "/usr/vemo/etc/login_image/bg2.jpg"),
                                  Message("Failed to compress")));
  EXPECT_EQ(Utils::GetLoginIndexKey("bg"), 1);
}

TEST_F(Pictures, AThumbnailThatFailsIsNoFailure) {
  Write(kPlace + "broken.png", "x");
  const Added added = AddLogin(kPlace + "broken.png", ".png");
  EXPECT_TRUE(added.done);
  EXPECT_EQ(added.thumb, std::string(kLogin) + "bg1thumb.png");
  EXPECT_FALSE(Exists(added.thumb));
  EXPECT_EQ(Messages(log_), Texts(Message("Fail to execute /usr/bin/convert, "
                                          "/usr/vemo/etc/login_image/bg1.png "
                                          "/usr/vemo/etc/login_image/bg1thumb.png")));
  EXPECT_EQ(Utils::GetLoginIndexKey("bg"), 1);
}

TEST_F(Pictures, ASlotThatCannotBeStored) {
  Shell("mount --bind /etc /etc && mount -o remount,ro,bind /etc");
  EXPECT_FALSE(AddLogin(small_, ".bmp").done);
  EXPECT_FALSE(Utils::SetLoginIndexKey("bg", 1));
  EXPECT_FALSE(Utils::SetFileSharingLoginIndexKey("bg", 1));
}

TEST_F(Pictures, PathsThatWouldBeCutAreNotUsed) {
  char image[64], thumb[64];
  const std::string whole = "/run/pictures/d/t1.bmp";  // 22 bytes
  auto add = [&](int image_size, int thumb_size) {
    return Peer::AddHistory("/run/pictures/d", "t", small_.c_str(), ".bmp", image, thumb,
                            image_size, thumb_size, 1, 160);
  };
  EXPECT_FALSE(add(22, 64));
  EXPECT_FALSE(add(16, 64));  // the directory's own name
  EXPECT_FALSE(add(23, 27));
  EXPECT_EQ(Messages(log_), Texts(Message("Wrong Path length."), Message("Wrong Path length."),
                                  Message("Wrong Thumb Path length.")));
  EXPECT_TRUE(std::filesystem::is_empty("/run/pictures/d"));
  EXPECT_TRUE(add(23, 28));
  EXPECT_EQ(image, whole);
  EXPECT_STREQ(thumb, "/run/pictures/d/t1thumb.bmp");
}

TEST_F(Pictures, TheCompressedFileHasANameOfAtMost255Bytes) {
  Write(kPlace + "large.bmp", Bitmap(1100, 1000));
  const std::string above = kPlace + std::string(200, 'd');
  Shell("mkdir " + above);
  char image[4097], thumb[4097];
  // "/", the type, "1" and ".jpg" follow.
  for (const size_t room : {255u, 256u}) {
    const std::string directory = above + "/" + std::string(room - 8 - above.size(), 'e');
    ASSERT_EQ((directory + "/t1.jpg").size(), room);
    const bool done = Peer::AddHistory(directory.c_str(), "t", (kPlace + "large.bmp").c_str(),
                                       ".bmp", image, thumb, sizeof image, sizeof thumb, 1, 160);
    EXPECT_EQ(done, room == 255);
    EXPECT_EQ(Exists(directory + "/t1.jpg"), room == 255);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory), {}),
              room == 255 ? 3 : 1);
  }
  EXPECT_EQ(Messages(log_), Texts(Message("Failed to compress")));
  // Nor one that the caller has no room for.
  EXPECT_FALSE(Peer::AddHistory("/run/pictures/d", "t", (kPlace + "large.bmp").c_str(), ".b", image,
                                thumb, 21, sizeof thumb, 1, 160));
  EXPECT_EQ(Messages(log_), Texts(Message("Failed to compress")));
}

class Desktop : public Pictures {
 protected:
  void SetUp() override {
    Pictures::SetUp();
    Shell("useradd -M -u 5001 mona");
    char directory[4096];
    ASSERT_EQ(VEMOUserPreferenceDirGet("mona", directory, sizeof directory), 0);
    directory_ = directory;
    file_ = directory_ + "/usersettings";
    log_.Take();  // what was said of the account
  }

  std::string directory_, file_;
};

TEST_F(Desktop, TheRingIsInTheUsersDirectory) {
  for (int turn = 1; turn <= 9; turn++) {
    const Added added = AddDesktop("mona", small_, ".bmp");
    ASSERT_TRUE(added.done);
    EXPECT_EQ(added.image, directory_ + "/" + std::to_string(turn % 8) + ".bmp");
    EXPECT_EQ(added.thumb, directory_ + "/" + std::to_string(turn % 8) + "thumb.bmp");
    EXPECT_EQ(Utils::GetDesktopIndexKey("mona"), turn % 8);
  }
  EXPECT_EQ(Describe(directory_ + "/1thumb.bmp"), "BMP 120x80");
  EXPECT_EQ(Read(file_), "{\"Desktop\":{\"wallpaper\":{\"index\":1}}}\n");
  char extension[8];
  EXPECT_TRUE(Utils::GetDesktopFileExtByIndex("mona", 3, extension, sizeof extension));
  EXPECT_STREQ(extension, ".bmp");
  Utils::RemoveDesktopHistoryIfExist("mona", 3);
  EXPECT_FALSE(Utils::GetDesktopFileExtByIndex("mona", 3, extension, sizeof extension));
  EXPECT_EQ(Messages(log_), Texts());
}

TEST_F(Desktop, AFailedAdditionEmptiesItsSlot) {
  for (int turn = 0; turn < 8; turn++)
    ASSERT_TRUE(AddDesktop("mona", small_, ".bmp").done);
  ASSERT_TRUE(Exists(directory_ + "/1.bmp"));
  std::filesystem::remove("/bin/cp");
  EXPECT_FALSE(AddDesktop("mona", small_, ".bmp").done);
  EXPECT_FALSE(Exists(directory_ + "/1.bmp"));
  EXPECT_FALSE(Exists(directory_ + "/1thumb.bmp"));
  EXPECT_EQ(Utils::GetDesktopIndexKey("mona"), 0);
  EXPECT_TRUE(Exists(directory_ + "/0.bmp"));
}

TEST_F(Desktop, TheStoredSlotIsNotReduced) {
  for (const int slot : {13, 2147483647, 0}) {
    EXPECT_TRUE(Utils::SetDesktopIndexKey("mona", slot));
    EXPECT_EQ(Utils::GetDesktopIndexKey("mona"), slot);
  }
  EXPECT_TRUE(Utils::SetDesktopIndexKey("mona", -5));
  EXPECT_EQ(Utils::GetDesktopIndexKey("mona"), 0);
  Utils::SetDesktopIndexKey("mona", 13);
  EXPECT_EQ(AddDesktop("mona", small_, ".bmp").image, directory_ + "/6.bmp");
}

TEST_F(Desktop, WhereTheSlotIsStored) {
  struct Row {
    const char *before, *after;
  };
  const Row rows[] = {
      {"", "{\"Desktop\":{\"wallpaper\":{\"index\":4}}}\n"},
      {"{", "{\"Desktop\":{\"wallpaper\":{\"index\":4}}}\n"},
      {"[1]", "{\"Desktop\":{\"wallpaper\":{\"index\":4}}}\n"},
      {"7", "{\"Desktop\":{\"wallpaper\":{\"index\":4}}}\n"},
      {"{\"a\":1}", "{\"Desktop\":{\"wallpaper\":{\"index\":4}},\"a\":1}\n"},
      {"{\"Desktop\":{\"x\":1}}", "{\"Desktop\":{\"wallpaper\":{\"index\":4},\"x\":1}}\n"},
      {"{\"Desktop\":{\"wallpaper\":{\"index\":1,\"color\":2}}}",
       "{\"Desktop\":{\"wallpaper\":{\"color\":2,\"index\":4}}}\n"},
      {"{\"Desktop\":{\"wallpaper\":\"blue\"}}", "{\"Desktop\":{\"wallpaper\":{\"index\":4}}}\n"},
      {"{\"Desktop\":[]}", "{\"Desktop\":{\"wallpaper\":{\"index\":4}}}\n"},
      {"{\"Desktop\":null}", "{\"Desktop\":{\"wallpaper\":{\"index\":4}}}\n"},
  };
  for (const Row& row : rows) {
    Write(file_, row.before);
    EXPECT_TRUE(Utils::SetDesktopIndexKey("mona", 4));
    EXPECT_EQ(Read(file_), row.after) << row.before;
  }
}

TEST_F(Desktop, SettingsWithoutASlot) {
  for (const char* text : {"", "{", "[]", "5", "{}", "{\"Desktop\":5}", "{\"Desktop\":{}}",
                           "{\"Desktop\":{\"wallpaper\":[5]}}", "{\"Desktop\":{\"wallpaper\":{}}}",
                           "{\"Desktop\":{\"wallpaper\":{\"index\":\"5\"}}}",
                           "{\"Desktop\":{\"wallpaper\":{\"index\":5.5}}}",
                           "{\"Desktop\":{\"wallpaper\":{\"index\":99999999999}}}",
                           "{\"Desktop\":{\"wallpaper\":{\"index\":null}}}"}) {
    Write(file_, text);
    EXPECT_EQ(Utils::GetDesktopIndexKey("mona"), 0) << text;
  }
  EXPECT_EQ(Messages(log_), Texts());
}

TEST_F(Desktop, SettingsAreLoadedAndSaved) {
  Json::Value settings = 5;
  EXPECT_TRUE(Utils::loadUserSettings("mona", settings));
  EXPECT_EQ(settings, Json::Value(Json::objectValue));
  settings["a"] = 1;
  EXPECT_TRUE(Utils::saveUserSettings("mona", settings));
  EXPECT_EQ(Read(file_), "{\"a\":1}\n");
  Json::Value loaded;
  EXPECT_TRUE(Utils::loadUserSettings("mona", loaded));
  EXPECT_EQ(loaded, settings);
  Write(file_, "{\"a\":1,");
  EXPECT_TRUE(Utils::loadUserSettings("mona", loaded));
  EXPECT_EQ(loaded, Json::Value(Json::objectValue));
}

TEST_F(Desktop, OnlyTheSettingsAreSavedAsRoot) {
  Shell("chmod 0755 /run/pictures");
  ASSERT_EQ(setegid(5001), 0);
  ASSERT_EQ(seteuid(5001), 0);
  const Added added = AddDesktop("mona", small_, ".bmp");
  EXPECT_TRUE(added.done);
  EXPECT_EQ(geteuid(), 5001u);
  ASSERT_EQ(seteuid(0), 0);
  struct stat status;
  for (const std::string& path : {added.image, added.thumb, file_}) {
    ASSERT_EQ(stat(path.c_str(), &status), 0) << path;
    EXPECT_EQ(status.st_uid, path == file_ ? 0u : 5001u) << path;
  }
}

TEST_F(Desktop, EveryOperationNeedsAUser) {
  char text[8] = "before";
  Json::Value settings = 5;
  const std::string bad = Message("Bad parameter");
  EXPECT_FALSE(Utils::loadUserSettings("", settings));
  EXPECT_FALSE(Utils::saveUserSettings("", settings));
  EXPECT_EQ(Utils::GetDesktopIndexKey(""), 0);
  EXPECT_FALSE(Utils::SetDesktopIndexKey("", 1));
  EXPECT_EQ(Messages(log_), Texts(bad, bad, bad, bad));
  EXPECT_FALSE(Utils::GetDesktopFileExtByIndex("", 1, text, sizeof text));
  Utils::RemoveDesktopHistoryIfExist("", 1);
  EXPECT_FALSE(AddDesktop("", small_, ".bmp").done);
  EXPECT_EQ(Messages(log_), Texts(bad, bad, bad));
  EXPECT_EQ(settings, Json::Value(5));
}

TEST_F(Desktop, AUserWithoutDirectory) {
  char text[8] = "before";
  Json::Value settings = 5;
  const std::string none = Message("Get preference directory failed");
  const std::string coded = Message("Get preference directory failed: -1");
  const std::string load = Message("Load user settings failed");
  EXPECT_FALSE(Utils::loadUserSettings("nobody-there", settings));
  EXPECT_EQ(Utils::GetDesktopIndexKey("nobody-there"), 0);
  EXPECT_FALSE(Utils::SetDesktopIndexKey("nobody-there", 1));
  EXPECT_EQ(Messages(log_), Texts(coded, coded, load, coded, load));
  EXPECT_FALSE(Utils::saveUserSettings("nobody-there", settings));
  EXPECT_FALSE(Utils::GetDesktopFileExtByIndex("nobody-there", 1, text, sizeof text));
  Utils::RemoveDesktopHistoryIfExist("nobody-there", 1);
  EXPECT_FALSE(AddDesktop("nobody-there", small_, ".bmp").done);
  EXPECT_EQ(Messages(log_), Texts(none, none, none, none));
  EXPECT_EQ(settings, Json::Value(5));
}

TEST_F(Desktop, SettingsThatCannotBeSaved) {
  Shell("mkdir " + file_);
  EXPECT_FALSE(Utils::SetDesktopIndexKey("mona", 1));
  EXPECT_EQ(Messages(log_), Texts(Message("Save user settings failed")));
  EXPECT_FALSE(AddDesktop("mona", small_, ".bmp").done);
  EXPECT_EQ(Messages(log_), Texts(Message("Save user settings failed")));
}

TEST_F(Desktop, ArgumentsAreCheckedHereToo) {
  char text[8] = "before";
  EXPECT_FALSE(Utils::GetDesktopFileExtByIndex("mona", 1, nullptr, 8));
  EXPECT_FALSE(Utils::GetDesktopFileExtByIndex("mona", 1, text, 0));
  Utils::RemoveDesktopHistoryIfExist("mona", -1);
  EXPECT_FALSE(Utils::AddDesktopHistory("mona", nullptr, nullptr, nullptr, nullptr, 0, 0));
  EXPECT_EQ(Messages(log_),
            Texts(Message("Wrong return extension."), Message("Wrong extension size."),
                  Message("Wrong index."), Message("Wrong file path.")));
}

// Not the library's work but the machine's: what the shipped policy of the tool lets pass.
TEST_F(Pictures, TheToolReadsNothingButPictures) {
  const std::string victim = "/run/secret";
  Write(victim, "secret");
  const std::string contents[] = {
      "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"9\" height=\"9\"><rect/></svg>",
      "push graphic-context\nviewbox 0 0 9 9\nimage over 0,0 0,0 '/run/secret'\npop "
      "graphic-context\n",
      "<?xml version=\"1.0\"?><image><read filename=\"/run/secret\"/></image>",
      "%PDF-1.4\n%EOF\n",
      "%!PS-Adobe-3.0\nshowpage\n",
      "https://127.0.0.1/picture.png",
      "msl:/run/secret",
      "P3 1 1 255 1 1 1\n",
      "#FIG 3.2\n",
      "/* XPM */\nstatic char *x[] = {\"1 1 1 1\",\"a c red\",\"a\"};\n",
      "GIF89a",
      std::string("\x89PNG\r\n\x1a\n", 8),
      "\xff\xd8\xff",
      "BM",
      "",
  };
  for (const std::string& content : contents) {
    for (const char* extension : {".jpg", ".png", ".bmp"}) {
      Write(kPlace + "hostile", content);
      const Added added = AddLogin(kPlace + "hostile", extension);
      EXPECT_TRUE(added.done);
      EXPECT_FALSE(Exists(added.thumb)) << content << extension;
      EXPECT_EQ(Messages(log_).size(), 1u);
    }
  }
}

}  // namespace
