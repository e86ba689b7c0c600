#include "brenthaven/text/named.h"

#include <gtest/gtest.h>

#include <string_view>

namespace {

using std::literals::operator""sv;

SString Written(SNamedStringList const &table) {
  SString text("");
  text << table;
  return text;
}

// The table that text holds, as "key=value,value;key=...".
SString Parsed(SString const &text) {
  SNamedStringList table(1, 0);
  text >> table;
  SStringList fields;
  fields.Define();
  for (SString const &key : table.Keys()) fields.Push(key + "=" + table.Get(key).Join(","));
  return fields.Join(";");
}

TEST(NamedStringListTest, TouchedKeysAreNotSeen) {
  SNamedStringList table;
  (void)table["touched"];
  table["empty"].Reset();
  table["full"].Push("a");
  EXPECT_TRUE(table.Keys() == (SStringList{"empty", "full"}));
  EXPECT_TRUE(Written(table) == "empty \r\nfull a\r\n");
  EXPECT_FALSE(table.Get("absent").Defined());
  EXPECT_EQ(table.Keys().Length(), 2) << "Get adds nothing";
}

TEST(NamedStringListTest, FieldsAreWrittenALineAValue) {
  SNamedStringList table(0, 1);
  EXPECT_TRUE(Written(table) == "");
  table["To:"].Push("a");
  table["Subject:"].Push("x");
  table["to:"].Push("");
  EXPECT_TRUE(Written(table) == "To: a\r\nTo: \r\nSubject: x\r\n");
}

TEST(NamedStringListTest, FieldFilesAreReadByTheirLines) {
  struct {
    char const *text;
    char const *want;
    char const *why;
  } const cases[] = {
      {"", "", "nothing"},
      {"a b\r\nc d\r\na e\r\n", "a=b,e;c=d", "a repeated key"},
      {"a b", "a=b", "the last line without its end"},
      {"a \r\n", "a=", "an empty value"},
      {"a  b \r\n", "a= b ", "values are not trimmed"},
      {"a b\r\n c\r\n\td\r\ne f\r\n", "a=b\r\n c\r\n\td;e=f", "continuation lines stay in the value"},
      {"a b\r\nFunction:\r\n", "a=b,Function:", "a line without a blank is one more value"},
      {"a b\r\n\r\nc d\r\n", "a=b,;c=d", "an empty line is one more, empty value"},
      {"a b\r\n\r\n c\r\n", "a=b,\r\n c", "and may be continued"},
      {" b\r\nc d\r\n", "=b;c=d", "a blank at the very beginning belongs to no key"},
      {"b\r\n", "=b", "text before the first key"},
      {"a x\ny\rz\r\n", "a=x\ny\rz", "bare CR and LF are bytes of the value"},
      {"a\tb c\r\n", "a\tb=c", "a tab ends no key"},
  };
  for (auto const &row : cases) EXPECT_TRUE(Parsed(row.text) == row.want) << row.why << ": " << Parsed(row.text);
}

TEST(NamedStringListTest, WhatIsReadIsWrittenBack) {
  SString const text("Received: a\r\n\tb\r\nX: \xff\0y\r\nX: 2\r\n"sv);
  SNamedStringList table(0, 1);
  table["old"].Push("gone");
  EXPECT_EQ(&(text >> table), &text);
  EXPECT_TRUE(Written(table) == text);
}

TEST(NamedStringListTest, NoValueOpensALine) {
  for (char const *value :
       {"x\r\nFunction: evil", "x\r\n", "\r\n\r\nFunction: evil", "x\r\n folded", "\r", "\r\n\tx"}) {
    SNamedStringList table;
    table["A:"].Push(value);
    table["B:"].Push("b");
    SNamedStringList back;
    Written(table) >> back;
    EXPECT_TRUE(back.Keys() == (SStringList{"A:", "B:"})) << value;
    EXPECT_EQ(back.Get("A:").Length(), 1) << value;
  }
  EXPECT_TRUE(FoldedFieldValue("a\r\n b\r\n\tc") == "a\r\n b\r\n\tc");
  EXPECT_TRUE(FoldedFieldValue("a\r\nb\r\n") == "a\r\n b\r\n ");
  SNamedStringList table;
  table["a b"].Push("1");
  table["c\r\nd"].Push("2");
  table["e"].Push("3");
  EXPECT_TRUE(Written(table) == "e 3\r\n");
  EXPECT_TRUE(IsFieldKey("Deliver-To!") && !IsFieldKey("a b") && !IsFieldKey("a\nb") && !IsFieldKey(""));
}

TEST(NamedStringListTest, LargeFieldFilesAreRead) {
  SString text;
  for (int i = 0; i < 10000; ++i) text += "Field-" + MakeSString(i) + ": value\r\n";
  text += "Long: x";
  for (int i = 0; i < 20000; ++i) text += "\r\n a folded line of this one long field, with some more text to fill it";
  text += "\r\n";
  SNamedStringList table(0, 1);
  text >> table;
  EXPECT_EQ(table.Keys().Length(), 10001);
  EXPECT_GT(table.Get("Long:").Get(0).Length(), 1 << 20);
  EXPECT_TRUE(Written(table) == text);
}

TEST(NamedStringListTest, MergingTakesOverWhatIsLacking) {
  SNamedStringList ours;
  ours["a"] = SStringList{"1", "2"};
  (void)ours["touched"];
  SNamedStringList theirs;
  theirs["a"] = SStringList{"2", "3", "3"};
  theirs["touched"] = SStringList("t");
  theirs["b"].Reset();
  ours += theirs;
  EXPECT_TRUE(ours.Get("a") == (SStringList{"1", "2", "3", "3"}));
  EXPECT_TRUE(ours.Get("touched") == SStringList("t"));
  EXPECT_TRUE(ours.Get("b").Defined());
}

TEST(NamedStringListTest, AssignmentKeepsTheComparisonAndCopiesTakeItOver) {
  SNamedStringList loose(0, 1);
  loose["Key"].Push("x");
  SNamedStringList const copy(loose);
  EXPECT_TRUE(copy.Get("KEY").Defined());
  SNamedStringList exact(1, 0);
  exact["old"].Push("gone");
  exact = loose;
  EXPECT_FALSE(exact.Get("KEY").Defined());
  EXPECT_TRUE(exact.Keys() == SStringList("Key"));
  loose["Key"].Push("y");
  EXPECT_EQ(exact.Get("Key").Length(), 1);
}

TEST(NamedValueTest, MinusOneMeansDeleted) {
  SNamedValue values(0);
  EXPECT_EQ(values.Get("a"), -1);
  EXPECT_EQ(values["a"], 0);
  values["B"] = 5;
  values["c"] = -1;
  EXPECT_TRUE(values.Keys() == (SStringList{"a", "B"}));
  EXPECT_EQ(values.Get("b"), 5);
  SNamedValue const copy(values);
  EXPECT_EQ(copy.Get("b"), -1) << "a copy compares exactly";
  EXPECT_EQ(copy.Get("B"), 5);
  values.Delete("B");
  EXPECT_EQ(values.Get("B"), -1);
}

}  // namespace
