#include "host/WordSplitter.h"

#include <gtest/gtest.h>

#include <optional>

using Host::WordSplitter;
using Words = std::vector<std::string>;

TEST(WordSplitter, SplitsCommandLinesIntoWordsOrRefusesThem) {
  const std::pair<std::string_view, std::optional<Words>> cases[] = {
      // Blanks separate, and runs of them give no empty words.
      {"search 004930123456 20240101000000", Words{"search", "004930123456", "20240101000000"}},
      {" \t usable \t\r", Words{"usable"}},
      {"", Words{}},
      {std::string_view("\x01\xff\0 a", 5), Words{std::string("\x01\xff\0", 3), "a"}},
      {"   ", Words{}},
      // Quotes group blanks and may be empty; quoted and unquoted parts that touch are one word.
      {R"(update "PrintData=out file.txt" Reload)", Words{"update", "PrintData=out file.txt", "Reload"}},
      {R"(probe deltaLoad "")", Words{"probe", "deltaLoad", ""}},
      {R"("" "")", Words{"", ""}},
      {R"(update PrintData="a b"c)", Words{"update", "PrintData=a bc"}},
      // Inside quotes a backslash escapes only a quote and a backslash ...
      {R"("say \"hi\"")", Words{R"(say "hi")"}},
      {R"("a\\b")", Words{R"(a\b)"}},
      {R"("a\nb")", Words{R"(a\nb)"}},
      // ... outside them it is an ordinary character, so file names need no escaping.
      {R"(data\np.txt a\"b")", Words{R"(data\np.txt)", R"(a\b)"}},
      // An unterminated quote is refused.
      {R"(update "PrintData=x)", std::nullopt},
      {R"("ends with escaped quote\")", std::nullopt},
      {R"(")", std::nullopt},
  };
  for (const auto& [line, expected] : cases) {
    Words words{"left over"};
    const bool split = WordSplitter::split(line, words);
    EXPECT_EQ(split ? std::optional<Words>(words) : std::nullopt, expected) << line;
  }
}
