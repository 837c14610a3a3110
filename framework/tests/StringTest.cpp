#include "BAS/String.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using BAS::String;

TEST(String, SplitsAtEveryKindOfWhiteSpaceWithoutEmptyFields) {
  EXPECT_EQ(String("491701234567 20230301000000 D2").split(),
            (std::vector<String>{"491701234567", "20230301000000", "D2"}));
  EXPECT_EQ(String("  a\t\tb\r\nc\vd\fe  ").split(), (std::vector<String>{"a", "b", "c", "d", "e"}));
  EXPECT_TRUE(String("").split().empty());
  EXPECT_TRUE(String(" \t\r\n\v\f").split().empty());
  // The loaders reuse one vector for every line: it must shrink and grow to each line.
  std::vector<String> fields;
  String("one two three four").split(fields);
  String("x y").split(fields);
  EXPECT_EQ(fields, (std::vector<String>{"x", "y"}));
  String("").split(fields);
  EXPECT_TRUE(fields.empty());
}

TEST(String, TrimRemovesOnlyBlanksAtBothEnds) {
  EXPECT_EQ(String("  a  b  ").trim(), "a  b");
  EXPECT_EQ(String("\t a \t").trim(), "\t a \t");
  EXPECT_TRUE(String("    ").trim().empty());
  EXPECT_TRUE(String().trim().empty());
}

TEST(String, ToNumTakesWholeUnsignedDecimalsThatFit) {
  const std::pair<const char*, unsigned int> good[] = {{"0", 0}, {"2", 2}, {"4294967295", 4294967295u}, {"000042", 42}};
  for (const auto& [text, expected] : good) {
    unsigned int n = 7;
    EXPECT_TRUE(String(text).toNum(n)) << text;
    EXPECT_EQ(n, expected) << text;
  }
  for (const char* text : {"", "-1", "+1", " 1", "1 ", "1a", "4294967296", "99999999999999999999", "0x10"}) {
    unsigned int n = 12345;
    EXPECT_FALSE(String(text).toNum(n)) << '"' << text << '"';
    EXPECT_EQ(n, 12345u) << "a refused text leaves the number unchanged: \"" << text << '"';
  }
}

TEST(String, ConvertAndStartsWith) {
  String text("old content");
  EXPECT_EQ(text.convert(0), "0");
  EXPECT_EQ(text.convert(18446744073709551615ul), "18446744073709551615");
  unsigned int back = 0;
  EXPECT_TRUE(String().convert(4294967295ul).toNum(back));
  EXPECT_EQ(back, 4294967295u);

  const String number("+49170");
  EXPECT_TRUE(number.startsWith("+"));
  EXPECT_TRUE(number.startsWith(String("+49")));
  EXPECT_TRUE(number.startsWith(""));
  EXPECT_FALSE(number.startsWith("49"));
  EXPECT_FALSE(String("+4").startsWith("+49"));
}

}  // namespace
