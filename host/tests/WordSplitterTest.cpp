#include "host/WordSplitter.h"

#include <gtest/gtest.h>

using Host::WordSplitter;
using Words = std::vector<std::string>;

namespace {

Words split(std::string_view line) {
  Words words{"left over"};
  EXPECT_TRUE(WordSplitter::split(line, words)) << line;
  return words;
}

}  // namespace

TEST(WordSplitter, BlanksSeparateAndRunsOfThemGiveNoEmptyWords) {
  EXPECT_EQ(split("search 004930123456 20240101000000"), (Words{"search", "004930123456", "20240101000000"}));
  EXPECT_EQ(split(" \t usable \t\r"), (Words{"usable"}));
  EXPECT_EQ(split(""), Words{});
  EXPECT_EQ(split("   "), Words{});
}

TEST(WordSplitter, QuotesGroupBlanksAndMayBeEmpty) {
  EXPECT_EQ(split(R"(update "PrintData=out file.txt" Reload)"), (Words{"update", "PrintData=out file.txt", "Reload"}));
  EXPECT_EQ(split(R"(probe deltaLoad "")"), (Words{"probe", "deltaLoad", ""}));
  EXPECT_EQ(split(R"("" "")"), (Words{"", ""}));
  // Quoted and unquoted parts that touch are one word, as in a shell.
  EXPECT_EQ(split(R"(update PrintData="a b"c)"), (Words{"update", "PrintData=a bc"}));
}

TEST(WordSplitter, BackslashEscapesOnlyQuoteAndBackslashInsideQuotes) {
  EXPECT_EQ(split(R"("say \"hi\"")"), (Words{R"(say "hi")"}));
  EXPECT_EQ(split(R"("a\\b")"), (Words{R"(a\b)"}));
  EXPECT_EQ(split(R"("a\nb")"), (Words{R"(a\nb)"}));
  // Outside quotes a backslash is an ordinary character, so file names need no escaping.
  EXPECT_EQ(split(R"(data\np.txt a\"b")"), (Words{R"(data\np.txt)", R"(a\b)"}));
}

TEST(WordSplitter, UnterminatedQuoteIsRefused) {
  Words words;
  EXPECT_FALSE(WordSplitter::split(R"(update "PrintData=x)", words));
  EXPECT_FALSE(WordSplitter::split(R"("ends with escaped quote\")", words));
  EXPECT_FALSE(WordSplitter::split(R"(")", words));
}
