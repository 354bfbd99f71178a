// The system configuration reader.
#include <gtest/gtest.h>
#include <unistd.h>
#include <webman/vemo_conf.h>

#include <fstream>

namespace {

class VemoConfTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(system("mkdir -p /etc.defaults"), 0);
    std::ofstream("/etc/vemoinfo.conf")
        << "k=\"YES\"\nn=\"42x\"\nword=\"abc\"\nempty=\"\"\nneg=\" -7\"\nbig=\"99999999999\"\n"
           "small=\"-2147483649\"\nhex=\"0x10\"\n";
    std::ofstream("/etc.defaults/vemoinfo.conf") << "k=\"no\"\nonly=\"default\"\n";
  }
};

TEST_F(VemoConfTest, CurrentAndFactoryValuesAreApart) {
  VemoConf conf;
  EXPECT_STREQ(conf.Info("k", "-"), "YES");
  EXPECT_STREQ(conf.Def("k", "-"), "no");
  EXPECT_STREQ(conf.Info("only", "-"), "-");  // no fall-back
  EXPECT_STREQ(conf.Def("only", "-"), "default");
  EXPECT_STREQ(conf.Info("empty", "-"), "");
  EXPECT_EQ(conf.Info("none", nullptr), nullptr);
  EXPECT_STREQ(conf.Info(nullptr, "-"), "-");
}

TEST_F(VemoConfTest, NumbersAreReadAsStrtolDoes) {
  VemoConf conf;
  EXPECT_EQ(conf.InfoInt("n", 5), 42);
  EXPECT_EQ(conf.InfoInt("word", 5), 0);
  EXPECT_EQ(conf.InfoInt("empty", 5), 0);
  EXPECT_EQ(conf.InfoInt("neg", 5), -7);
  EXPECT_EQ(conf.InfoInt("none", 5), 5);
  EXPECT_EQ(conf.InfoInt("big", 5), 2147483647);
  EXPECT_EQ(conf.InfoInt("small", 5), -2147483647 - 1);
  EXPECT_EQ(conf.InfoInt("hex", 5), 0);
  EXPECT_EQ(conf.InfoInt("only", 5), 5);
}

TEST_F(VemoConfTest, ValuesAreComparedWithoutCase) {
  VemoConf conf;
  EXPECT_TRUE(conf.InfoCheckValue("k", "yes", false));
  EXPECT_FALSE(conf.InfoCheckValue("k", "no", true));
  EXPECT_FALSE(conf.InfoCheckValue("k", "ye", true));
  EXPECT_TRUE(conf.InfoCheckValue("none", "x", true));
  EXPECT_FALSE(conf.InfoCheckValue("none", "x", false));
  EXPECT_FALSE(conf.InfoCheckValue(nullptr, "yes", true));
  EXPECT_FALSE(conf.InfoCheckValue("k", nullptr, true));
  EXPECT_TRUE(conf.DefCheckValue("k", "NO", false));
  EXPECT_FALSE(conf.DefCheckValue(nullptr, "no", true));
  EXPECT_FALSE(conf.DefCheckValue("k", nullptr, true));
  EXPECT_TRUE(conf.DefCheckValue("none", "x", true));
  EXPECT_FALSE(conf.DefCheckValue("none", "x", false));
  EXPECT_TRUE(conf.DefCheckValue("only", "DEFAULT", false));
  EXPECT_FALSE(conf.DefCheckValue("k", "yes", true));
  EXPECT_FALSE(conf.InfoCheckValue("only", "default", false));
  // An empty value is a value.
  EXPECT_FALSE(conf.InfoCheckValue("empty", "x", true));
  EXPECT_TRUE(conf.InfoCheckValue("empty", "", false));
}

TEST_F(VemoConfTest, MissingFilesHaveNoKeys) {
  unlink("/etc/vemoinfo.conf");
  unlink("/etc.defaults/vemoinfo.conf");
  VemoConf conf;
  EXPECT_STREQ(conf.Info("k", "-"), "-");
  EXPECT_STREQ(conf.Def("k", "-"), "-");
}

TEST_F(VemoConfTest, TheObjectKeepsWhatItRead) {
  VemoConf conf;
  const char* value = conf.Info("k", "-");
  std::ofstream("/etc/vemoinfo.conf") << "k=\"changed\"\n";
  EXPECT_STREQ(value, "YES");
  EXPECT_STREQ(conf.Info("k", "-"), "YES");
  VemoConf later;
  EXPECT_STREQ(later.Info("k", "-"), "changed");
}

}  // namespace
