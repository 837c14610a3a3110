#include "BAS/SimpleString.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

namespace {

using BAS::SimpleString;

const std::string shortText = "D2";
const std::string longText = "a network operator name far longer than fifteen bytes";

TEST(SimpleString, KeepsTextsWholeOnBothSidesOfTheInlineLimit) {
  EXPECT_TRUE(SimpleString().empty());
  for (const std::string& text : {std::string(15, 'x'), std::string(16, 'y'), longText, std::string("a\0b", 3)}) {
    EXPECT_EQ(SimpleString(text).view(), text);
  }
}

TEST(SimpleString, CopiesMovesAndSelfAssignmentBetweenInlineAndHeapForms) {
  for (const std::string& from : {shortText, longText}) {
    for (const std::string& to : {shortText, longText + "!"}) {
      auto original = std::make_unique<SimpleString>(from);
      SimpleString copy(*original);
      SimpleString assigned(to);
      assigned = *original;
      original.reset();  // the copies must not share its storage
      EXPECT_EQ(copy.view(), from);
      EXPECT_EQ(assigned.view(), from);

      SimpleString target(to);
      target = std::move(copy);
      EXPECT_EQ(target.view(), from);
      EXPECT_TRUE(copy.empty());  // NOLINT(bugprone-use-after-move): moved-from is empty by contract
      SimpleString constructed(std::move(target));
      EXPECT_EQ(constructed.view(), from);
      EXPECT_TRUE(target.empty());  // NOLINT(bugprone-use-after-move)

      SimpleString& alias = constructed;
      constructed = alias;
      EXPECT_EQ(constructed.view(), from);
      constructed = std::move(alias);
      EXPECT_EQ(constructed.view(), from);
    }
  }
}

TEST(SimpleString, ComparesByText) {
  EXPECT_EQ(SimpleString(longText), SimpleString(longText));
  EXPECT_NE(SimpleString(std::string_view("abc")), SimpleString(std::string_view("abd")));
  EXPECT_LT(SimpleString(longText), SimpleString(std::string_view("abc")));  // "a " sorts before "ab"
  EXPECT_LT(SimpleString(longText), SimpleString(longText + "!"));
}

}  // namespace
