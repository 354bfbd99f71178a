// The rules of single fields.
#include <forms/field_validators.h>
#include <gtest/gtest.h>

#include <functional>

#include "faults/faults.h"

namespace {

struct Row {
  std::string value;
  bool valid;
};

void Check(FieldValidator&& validator, std::initializer_list<Row> rows) {
  for (const Row& row : rows) {
    EXPECT_EQ(validator.Validate(row.value), row.valid) << '"' << row.value << '"';
    EXPECT_EQ(validator.GetInvalidErrKey(), "_vemo_invalid_defalut_key");
  }
}

TEST(TextField, LengthIsCountedInBytes) {
  TextFieldValidator five("f", false, 5);
  EXPECT_TRUE(five.Validate("abcde"));
  EXPECT_TRUE(five.Validate("\xc3\xa4\xc3\xa4"));
  EXPECT_FALSE(five.Validate("\xc3\xa4\xc3\xa4\xc3\xa4"));
  EXPECT_EQ(five.GetInvalidErrKey(), "error_field_too_long");
}

TEST(TextField, AnEmptyValueIsRefusedUnlessAllowed) {
  TextFieldValidator strict("f", false, 0);
  EXPECT_FALSE(strict.Validate(""));
  EXPECT_EQ(strict.GetInvalidErrKey(), "_vemo_invalid_defalut_key");
  TextFieldValidator lenient("f", true, 0);
  EXPECT_TRUE(lenient.Validate(""));
  EXPECT_TRUE(lenient.Validate(std::string(1000000, 'x')));
  EXPECT_TRUE(lenient.Validate(std::string("\0\xff", 2)));
}

TEST(TextField, TheKeyOfATooLongValueStays) {
  TextFieldValidator field("f", false, 5);
  EXPECT_FALSE(field.Validate(""));
  EXPECT_EQ(field.GetInvalidErrKey(), "_vemo_invalid_defalut_key");
  EXPECT_FALSE(field.Validate("abcdef"));
  EXPECT_FALSE(field.Validate(""));
  EXPECT_EQ(field.GetInvalidErrKey(), "error_field_too_long");
  EXPECT_TRUE(field.Validate("a"));
  EXPECT_EQ(field.GetInvalidErrKey(), "error_field_too_long");
}

TEST(NumberField, WithinItsRange) {
  Check(NumberFieldValidator("f", 1, 10), {{"1", true},
                                           {"10", true},
                                           {"0", false},
                                           {"11", false},
                                           {"5x", false},
                                           {" 5", true},
                                           {"\t5", true},
                                           {"+5", true},
                                           {"-5", false},
                                           {"5 ", false},
                                           {"", false},
                                           {"x", false},
                                           {"0x5", false},
                                           {"05", true},
                                           {"5.0", false},
                                           {" ", false},
                                           {"--5", false},
                                           {"4294967297", false},
                                           {"99999999999999999999", false},
                                           {std::string("5\0", 2), false}});
}

TEST(NumberField, AnEmptyValueIsZero) {
  Check(NumberFieldValidator("f", 0, 10), {{"", true}, {"0", true}, {" ", false}});
}

TEST(NumberField, NumbersBeyond32BitsBecomeTheEndOfTheRange) {
  Check(NumberFieldValidator("f", 0, 2147483647), {{"2147483647", true},
                                                   {"2147483648", true},
                                                   {"4294967297", true},
                                                   {"99999999999999999999", true},
                                                   {"-2147483649", false}});
  Check(NumberFieldValidator("f", -2147483648, 0), {{"-2147483648", true},
                                                    {"-2147483649", true},
                                                    {"-99999999999999999999", true},
                                                    {"1", false}});
}

TEST(DateTimeField, IsJudgedByStrptimeAlone) {
  Check(DateTimeValidator("f", "%Y/%m/%d"), {{"2024/02/03", true},
                                             {"2024/2/3", true},
                                             {"2024/02/30", true},
                                             {"2024/02/03 ", false},
                                             {"2024/13/01", false},
                                             {"2024/00/01", false},
                                             {"2024-02-03", false},
                                             {"", false},
                                             {" 2024/02/03", true},
                                             {"2024/02", false},
                                             {"x", false},
                                             {"2024/02/32", false}});
  Check(DateTimeValidator("f", "%H:%M"), {{"23:59", true}, {"24:00", false}, {"7:5", true}});
  Check(DateTimeValidator("f", ""), {{"", true}, {"x", false}});
}

TEST(Ipv4Field, IsReadAsInetAtonDoes) {
  Check(IPV4Validator("f", false), {{"192.168.1.1", true},
                                    {"192.168.1.300", false},
                                    {"10.1", true},
                                    {"1", true},
                                    {"0x7f.1", true},
                                    {"", false},
                                    {"a", false},
                                    {"1.2.3.4.5", false},
                                    {"::1", false},
                                    {"1.2.3.", false},
                                    {"256.1.1.1", false},
                                    {"1.2.3.4 x", true}});
}

TEST(Ipv4Field, AMaskHasContiguousOnes) {
  Check(IPV4Validator("f", true), {{"255.255.255.0", true},
                                   {"255.255.255.255", true},
                                   {"128.0.0.0", true},
                                   {"255.0.255.0", false},
                                   {"0.0.0.0", false},
                                   {"255.255.255.1", false},
                                   {"24", false},
                                   {"255.255.255", false},
                                   {"", false},
                                   {"0xff.0.0.0", false}});
}

TEST(Ipv4Field, AnyAnswerButZeroIsAMask) {
  faults::hooks.BlVLIBIsIpMask = [](const char* text) { return text[0] == 'y' ? 2 : 0; };
  Check(IPV4Validator("f", true), {{"y", true}, {"255.0.0.0", false}});
}

TEST(StringListField, HoldsTheValueExactly) {
  Check(StringListValidator("f", {"static", "dhcp", ""}),
        {{"static", true}, {"", true}, {"Static", false}, {"static ", false}, {"stat", false}});
  Check(StringListValidator("f", {}), {{"", false}, {"a", false}});
}

TEST(IntegerListField, HoldsTheNumber) {
  Check(IntegerListValidator("f", {1, 2, 3}), {{"2", true},
                                               {"02", true},
                                               {" 2", true},
                                               {"+2", true},
                                               {"4", false},
                                               {"", false},
                                               {"2x", false},
                                               {"2 ", false},
                                               {"x", false},
                                               {"4294967298", false}});
  Check(IntegerListValidator("f", {0}), {{"", false}, {"0", true}, {" ", false}});
  Check(IntegerListValidator("f", {2147483647}), {{"99999999999", true}});
  Check(IntegerListValidator("f", {}), {{"1", false}});
}

TEST(AnyField, KeepsItsName) { EXPECT_EQ(NumberFieldValidator("mtu", 0, 1).name(), "mtu"); }

}  // namespace
