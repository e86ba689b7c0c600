#include "brenthaven/address/parser822.h"
#include "tests/support/texts.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// The types of all tokens in hex, up to the end or an error.
std::string Types(SString const &text) {
  S822Parser parser(text);
  std::string all;
  for (;;) {
    SToken const token = parser.NextToken();
    char type[16];
    snprintf(type, sizeof type, "%x:%s ", static_cast<unsigned>(token.Type()), std::string(token.View()).c_str());
    all += type;
    if (token.Is(SToken::kEnd | SToken::kError)) return all;
  }
}

struct Row {
  std::string text;
  std::string want;
  char const *why;
};

TEST(S822Tokens, CommentsFoldsAndErrors) {
  Row const table[] = {
      {"a\tb", "4:a 4:b 2: ", "a tab separates"},
      {"a%b", "4:a%b 2: ", "a percent sign is a letter"},
      {"a(b)c", "4:a 10:(b) 4:c 2: ", "a comment ends a word"},
      {"(a(b)c)", "10:(a(b)c) 2: ", "nested"},
      {"(a\\)b)", "10:(a\\)b) 2: ", "an escaped parenthesis"},
      {"(a", "1: ", "an open comment"},
      {"(a(b)", "1: ", "an open outer comment"},
      {"a)", "4:a 1:) ", "an unbalanced one comes behind its word"},
      {"]", "1:] ", "so does a bracket"},
      {"a\\b", "4:a 1:\\ ", "and a backslash"},
      {"a\x01", "4:a 1:\x01 ", "control characters are errors"},
      {"a\nb", "4:a 1:\n ", "a bare LF is one"},
      {"[a b\\]c]", "20:[a b\\]c] 2: ", "a literal is taken as it is"},
      {"[a[b]", "1: ", "but for a bracket in it"},
      {"a\r\n b", "4:a 4:b 2: ", "a folded line is a blank"},
      {"a\r\n\t \r\n b", "4:a 4:b 2: ", "two of them too"},
      {"\"a\r\n \t b\"", "8:\"a b\" 2: ", "one blank between quotes"},
      {"(a\r\n b)", "10:(a b) 2: ", "and in a comment"},
      {"[a\r\n b]", "20:[a b] 2: ", "and in a literal"},
      {"\"a\r\nb\"", "1: ", "a line end between quotes"},
      {"\"a\nb\"", "1: ", "a bare LF there"},
      {"a\rb", "1: ", "CR without LF"},
      {"\"a\rb\"", "1: ", "between quotes"},
      {"(a\rb)", "1: ", "in a comment"},
      {"[a\rb]", "1: ", "in a literal"},
      {"a\r\nb", "4:a 4000:\r\n 4:b 2: ", "a line end that folds nothing is a token"},
      {"a\r\n", "4:a 2: ", "but not at the very end"},
      {"\r\n", "2: ", "even alone"},
      {"a\r", "1: ", "half a line end"},
  };
  for (Row const &row : table) EXPECT_EQ(Types(Bytes(row.text)), row.want) << row.why;
}

// All addresses of a list in their header form, joined by "|", and "!" behind where the list breaks off.
std::string List(SString const &text) {
  S822Parser parser(text);
  std::string all;
  S822Address address;
  int start = 0;
  int end = 0;
  while (parser.GetNextAddress(address, start, end)) all += std::string(address.Get().View()) + "|";
  return address.IsBad() ? all + "!" : all;
}

TEST(S822Lists, HeaderFormsOfTheRFCs) {
  Row const table[] = {
      {"", "", "empty field"},
      {" \r\n ", "", "blanks"},
      {"jo@example.org", "jo@example.org|", "bare"},
      {"<jo@example.org>", "jo@example.org|", "route-address without phrase"},
      {"Jo Doe <jo@example.org>", "Jo Doe <jo@example.org>|", "phrase"},
      {"\"Doe, Jo\" <jo@example.org>", "\"Doe, Jo\" <jo@example.org>|", "a quoted word keeps its quotes"},
      {"Jo  \"Q.\"   Doe<jo@example.org>", "Jo \"Q.\" Doe <jo@example.org>|", "single blanks"},
      {"jo@example.org (Jo Doe)", "jo@example.org (Jo Doe)|", "old style name"},
      {"Jo <jo@example.org> (home)", "Jo <jo@example.org> (home)|", "comment behind the brackets"},
      {"jo (Jo) @ example.org", "jo@example.org (Jo)|", "comment in front of the at sign"},
      {"jo@example(x).org", "jo@example.org|", "a comment never enters the domain"},
      {"jo@(x)example.org (y)", "jo@example.org (y)|", "the one behind it is kept"},
      {"Jo (x) Doe <jo@example.org>", "Jo (x)Doe <jo@example.org>|", "a comment between words joins the phrase"},
      {"Jo (x) <jo@example.org>", "Jo <jo@example.org>|", "the last in front of the bracket is dropped"},
      {"a(x)b@example.org", "a(x)b@example.org|", "in a local part too, which no server then takes"},
      {"(x) jo@example.org", "jo@example.org|", "a comment in front of all"},
      {"a@x.org, b@y.org,, c@z.org ,", "a@x.org|b@y.org|c@z.org|", "commas without an address between them"},
      {"Team: a@x.org, B <b@y.org>;", "a@x.org|B <b@y.org>|", "group"},
      {"Undisclosed recipients:;", "", "empty group"},
      {"A: a@x.org; , B: b@y.org;, c", "a@x.org|b@y.org|c|", "two groups and a name"},
      {"A: B: b@y.org;", "!", "no group within a group"},
      {"A (x): a@x.org;", "!", "no comment in front of a colon"},
      {"root, jo", "root|jo|", "local names"},
      {"a . b @ x . org", "a.b@x.org|", "blanks around dots"},
      {"a b@x.org", "a.b@x.org|", "two words make a dotted local part"},
      {"\"a b\"@x.org", "\"a b\"@x.org|", "quoted local part"},
      {"<@r.org,@s.org:a@x.org>", "<@r.org,@s.org:a@x.org>|", "route"},
      {"@r.org:a@x.org, b@y.org", "<@r.org:a@x.org>|b@y.org|", "route without brackets"},
      {"<>", "<>|", "null address"},
      {"MAILER <> (x), a@x.org", "<>|a@x.org|", "with company"},
      {"<<a@x.org>>", "a@x.org|", "doubled brackets"},
      {"< (c) a (d) @ (e) x.org (f) >", "a@x.org (f)|", "comments within brackets"},
      {"a@[10.0.0.1]", "a@[10.0.0.1]|", "literal"},
      {"a@x.org.", "a@x.org|", "trailing dot"},
      {"a@x.org\r\n ,\r\n\tb@y.org\r\n", "a@x.org|b@y.org|", "folded list"},
      {"a@x.org\r\nb@y.org", "a@x.org|", "an unfolded line ends the list"},
      {"a\r\nb", "a|", "behind a local name too"},
      {"<a@x.org> b@y.org", "a@x.org|b@y.org|", "a missing comma behind a bracket"},
      {"a@x.org b@y.org", "|", "but not behind a bare one, whose domain it spoils"},
      {"a@x.org) , b@y.org", "!", "an unbalanced parenthesis stops the list"},
      {"a@x.org, b@@y.org, c@z.org", "a@x.org||c@z.org|", "a bad domain spoils its own address"},
      {"a@x.org, [x], c@z.org", "a@x.org|!", "a literal begins no address"},
      {"a [x]@y.org", "!", "nor follows a word"},
      {"a >", "!", "a closing bracket neither"},
      {"<@r.org a@x.org>", "!", "broken route"},
      {"<a@x.org", "a@x.org|", "the end closes a bracket"},
      {"<a:b@x.org>", "!", "a colon within brackets"},
      {"\"Jo <a@x.org>", "!", "open quote"},
      {"J\xc3\xb6 <a@x.org>", "J\xc3\xb6 <a@x.org>|", "eight bits that are no control characters"},
      {"J\xc3\x9f <a@x.org>", "!", "0x9f is one"},
      {"=?utf-8?Q?J=C3=B6?= <a@x.org>", "=?utf-8?Q?J=C3=B6?= <a@x.org>|", "an encoded word is a word"},
  };
  for (Row const &row : table) EXPECT_EQ(List(Bytes(row.text)), row.want) << row.text << ": " << row.why;
}

TEST(S822Lists, AddressesAreTheBracketedFormsUpToABadOne) {
  struct {
    char const *text;
    char const *want;
  } const table[] = {
      {"Jo <jo@example.org> (x), \"ann\"@example.org", "<jo@example.org> <ann@example.org>"},
      {"a@x.org, b@@y.org, c@z.org", "<a@x.org>"},
      {"a@x.org, \"b", "<a@x.org>"},
      {"<>, a", "<> <a>"},
      {"", ""},
      {")", ""},
  };
  for (auto const &row : table) {
    S822Parser parser(row.text);
    for (int round = 0; round < 2; ++round) {
      SStringList const addresses = parser.Addresses();
      EXPECT_TRUE(addresses.Defined());
      EXPECT_EQ(addresses.Join(" "), row.want);
      EXPECT_EQ(parser.Get().Join(" "), row.want) << "each call starts from the beginning";
    }
  }
}

TEST(S822Lists, AnUnclosedGroupOutlivesAReset) {
  S822Parser parser("A: a@x.org");
  EXPECT_EQ(parser.Addresses().Join(" "), "<a@x.org>");
  EXPECT_EQ(parser.Addresses().Join(" "), "") << "the parser still stands in the group and takes no second name";
  parser.Set("; B: b@y.org;");
  EXPECT_EQ(parser.Addresses().Join(" "), "<b@y.org>");
}

TEST(S822Lists, TheSpanCoversPhraseAddressAndComment) {
  SString const text("(first) Jo Doe <jo@x.org> (home),\r\n Team: ann (A) @y.org, local;");
  S822Parser parser(text);
  S822Address address;
  int start = 0;
  int end = 0;
  for (char const *want : {"Jo Doe <jo@x.org> (home)", "ann (A) @y.org", "local"}) {
    ASSERT_EQ(parser.GetNextAddress(address, start, end), 1U);
    EXPECT_EQ(text.Segment(start, end - start + 1), want);
  }
  EXPECT_EQ(parser.GetNextAddress(address, start, end), 0U);
  EXPECT_EQ(address.Address(), "") << "the end of the list prints nothing";
  EXPECT_FALSE(address.IsBad());
}

TEST(S822Lists, NextAddressCanonicalisesTheLocalPart) {
  EXPECT_EQ(S822Parser("\"jo\"@x.org").NextAddress().LocalPart(), "jo");
  S822Address raw;
  int start = 0;
  int end = 0;
  S822Parser("\"jo\"@x.org").GetNextAddress(raw, start, end);
  EXPECT_EQ(raw.LocalPart(), "\"jo\"");
}

}  // namespace
