// Documents of so many values that a stranger's request would take the memory.
#include <gtest/gtest.h>
#include <webman/webman.h>

#include <string>

#include "common/json.h"
#include "support/request.h"

namespace {

std::string Repeated(const std::string& text, size_t times) {
  std::string all;
  for (size_t i = 0; i < times; i++)
    all += text;
  return all;
}

bool IsFew(const std::string& text) { return zem::HasFewValues(text.data(), text.size()); }

TEST(ManyValues, AreCountedOutsideOfStrings) {
  EXPECT_TRUE(IsFew(""));
  EXPECT_TRUE(IsFew("[" + Repeated("1,", 249'999)));
  EXPECT_FALSE(IsFew("[" + Repeated("1,", 250'000)));
  EXPECT_FALSE(IsFew(Repeated("[", 250'001)));
  EXPECT_FALSE(IsFew(Repeated("{", 250'001)));
  EXPECT_TRUE(IsFew("\"" + Repeated(",[{", 250'000) + "\""));
  EXPECT_TRUE(IsFew("\"\\\"" + Repeated(",", 300'000) + "\""));
  EXPECT_FALSE(IsFew("\"\\\\\"" + Repeated(",", 300'000)));
  EXPECT_TRUE(IsFew("\"\\"));
}

TEST(ManyValues, MakeADocumentThatIsNone) {
  WebMan request(false);
  std::string many = "[" + Repeated("[],", 260'000) + "1]", few = "[" + Repeated("[],", 100) + "1]";
  EXPECT_FALSE(request.LoadJSONParam(many.data()));
  EXPECT_EQ(request.In(), nullptr);
  EXPECT_TRUE(request.LoadJSONParam(few.data()));
}

}  // namespace
