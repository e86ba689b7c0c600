#include "brenthaven/address/parser821.h"
#include "tests/support/texts.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// One letter for each token type, and the texts.
std::string Describe(SToken const &token) {
  struct Name {
    int type;
    char letter;
  };
  Name const names[] = {
      {SToken::kError, '!'},      {SToken::kEnd, '$'},     {SToken::kAtom, 'a'},    {SToken::kQuoted, 'q'},
      {SToken::kComment, 'c'},    {SToken::kLiteral, 'l'}, {SToken::kOther, 'o'},   {SToken::kLeftAngle, '<'},
      {SToken::kRightAngle, '>'}, {SToken::kAt, '@'},      {SToken::kDot, '.'},     {SToken::kComma, ','},
      {SToken::kSemicolon, ';'},  {SToken::kColon, ':'},   {SToken::kLineEnd, 'n'}, {SToken::kPercent, '%'}};
  for (Name const &name : names)
    if (token.Type() == name.type) return std::string(1, name.letter) + "{" + std::string(token.View()) + "}";
  return "?";
}

std::string Tokens(SString const &text) {
  S821Parser parser(text, 1);
  std::string all;
  SToken token;
  do {
    token = parser.NextToken();
    all += Describe(token);
  } while (!token.Is(SToken::kEnd | SToken::kError));
  return all;
}

struct TokenRow {
  std::string text;
  std::string want;
  char const *why;
};

TEST(S821Tokens, EveryByteHasItsPlace) {
  TokenRow const table[] = {
      {"", "${}", "empty text"},
      {"   ", "${}", "blanks alone"},
      {"a b", "a{a}a{b}${}", "a blank ends a word"},
      {"<a@b.c>", "<{<}a{a}@{@}a{b}.{.}a{c}>{>}${}", "every special ends a word and stays unread"},
      {"a,b;c:d%e", "a{a},{,}a{b};{;}a{c}:{:}a{d}%{%}a{e}${}", "the other specials"},
      {"(a)]", "o{(}a{a}o{)}o{]}${}", "comments are unknown here"},
      {"a\\@b", "a{a\\@b}${}", "a backslash takes any byte into the word"},
      {"a\\ b", "a{a\\ b}${}", "a blank too"},
      {"a\\", "a{a\\}${}", "a backslash at the very end"},
      {"a\"b c\"d", "a{a}q{\"b c\"}a{d}${}", "quotes end words on both sides"},
      {"\"a\\\"b\"", "q{\"a\\\"b\"}${}", "an escaped quote"},
      {"\"a\rb\"", "!{}", "CR in quotes"},
      {"\"a\nb\"", "!{}", "LF in quotes"},
      {"\"a", "!{}", "an open quote"},
      {"\"a\\\"", "!{}", "a closing quote that is escaped"},
      {"[10.0.0.1]", "l{[10.0.0.1]}${}", "a literal"},
      {"[ 10 . 0.0.1 ]", "l{[10.0.0.1]}${}", "its blanks are dropped"},
      {"[...]", "l{[...]}${}", "missing numbers pass"},
      {"[10.0.0]", "!{}", "three parts"},
      {"[10.0.0.256]", "!{}", "a part above 255"},
      {"[10.0.0.1", "!{}", "an open literal"},
      {"[::1]", "!{}", "digits and dots only"},
      {"a\tb", "a{a}o{\t}a{b}${}", "a tab is a control character"},
      {"a\x7f", "a{a}o{\x7f}${}", "DEL"},
      {"a\x85z", "a{a}o{\x85}a{z}${}", "0x80 to 0x9f are control characters"},
      {"\xe9\xff", "a{\xe9\xff}${}", "the rest of the upper half belongs to words"},
      {std::string("a\0b", 3), std::string("a{a}o{\0}a{b}${}", 15), "NUL ends nothing but the word"},
  };
  for (TokenRow const &row : table) EXPECT_EQ(Tokens(Bytes(row.text)), row.want) << row.why;
}

TEST(S821Tokens, PositionsCoverTheText) {
  S821Parser parser("  ab <\"c d\"", 1);
  struct Row {
    int start, end;
  };
  for (Row want : {Row{2, 3}, Row{5, 5}, Row{6, 10}}) {
    SToken const token = parser.NextToken();
    EXPECT_EQ(token.Start(), want.start);
    EXPECT_EQ(token.End(), want.end);
  }
  SToken const none;
  EXPECT_EQ(none.Type(), 2);
  EXPECT_EQ(none.Start(), -1);
  EXPECT_EQ(none.End(), -1);
}

TEST(S821Tokens, UndoGoesBackOneTokenOnly) {
  S821Parser parser("a b c", 1);
  parser.NextToken();
  parser.NextToken();
  parser.UndoNext();
  parser.UndoNext();
  EXPECT_EQ(parser.NextToken(), "b");
  EXPECT_EQ(parser.NextToken(), "c");
}

TEST(S821Tokens, AnErrorLastsUntilTheParserStartsAnew) {
  S821Parser parser("[x] a@b", 1);
  EXPECT_TRUE(parser.NextToken().Is(SToken::kError));
  EXPECT_TRUE(parser.NextToken().Is(SToken::kError)) << "what stands behind is not read as if nothing had happened";
  parser.Reset();
  EXPECT_TRUE(parser.NextToken().Is(SToken::kError));
  parser.Set("a");
  EXPECT_TRUE(parser.NextToken().Is(SToken::kAtom));
}

struct AddressRow {
  std::string text;
  char const *lenient;  // what prints; "" for a bad address
  char const *strict;
  char const *why;
};

TEST(S821Addresses, LenientAndStrictReadings) {
  AddressRow const table[] = {
      // RFC 5321 and RFC 1123 forms
      {"<jo@example.org>", "<jo@example.org>", "<jo@example.org>", "path"},
      {"jo@example.org", "<jo@example.org>", "<jo@example.org>", "without brackets"},
      {"<Postmaster>", "<Postmaster>", "<Postmaster>", "no domain"},
      {"<>", "<>", "<>", "null reverse path"},
      {"<@a.example,@b.example:jo@c.example>", "<@a.example,@b.example:jo@c.example>",
       "<@a.example,@b.example:jo@c.example>", "source route"},
      {"<jo.doe.x@example.org>", "<jo.doe.x@example.org>", "<jo.doe.x@example.org>", "dotted local part"},
      {"<\"jo doe\"@example.org>", "<\"jo doe\"@example.org>", "<\"jo doe\"@example.org>", "quoted for its blank"},
      {"<\"jo\"@example.org>", "<jo@example.org>", "<jo@example.org>", "quotes that nothing needs go"},
      {"<\"jo\\@x\"@example.org>", "<\"jo@x\"@example.org>", "<\"jo@x\"@example.org>", "escapes that nothing needs go"},
      {"<jo\\@x@example.org>", "<\"jo@x\"@example.org>", "<\"jo@x\"@example.org>", "escapes become quotes"},
      {"<\"a\\\"b\"@example.org>", "<\"a\\\"b\"@example.org>", "<\"a\\\"b\"@example.org>", "an escaped quote stays"},
      {"<\"a\\\\b\"@example.org>", "<\"a\\\\b\"@example.org>", "<\"a\\\\b\"@example.org>", "an escaped backslash too"},
      {"<\"\"@example.org>", "<\"\"@example.org>", "<\"\"@example.org>", "the empty quoted local part"},
      {"<a%b@example.org>", "<a%b@example.org>", "<a%b@example.org>", "the percent hack"},
      {"<a%b%c@example.org>", "<a%b%c@example.org>", "<a%b%c@example.org>", "twice"},
      {"<a%[10.0.0.1]@example.org>", "<a%[10.0.0.1]@example.org>", "<a%[10.0.0.1]@example.org>", "with a literal"},
      {"<jo@[10.0.0.1]>", "<jo@[10.0.0.1]>", "<jo@[10.0.0.1]>", "literal"},
      {"<jo@[ 10.0.0.1 ]>", "<jo@[10.0.0.1]>", "<jo@[10.0.0.1]>", "blanks in it do no harm"},
      {"<jo@#123>", "<jo@#123>", "<jo@#123>", "RFC 821's number form"},
      // what the world sends
      {"Jo Doe <jo@example.org>", "<jo@example.org>", "<jo@example.org>", "display name in front"},
      {"<<jo@example.org>>", "<jo@example.org>", "<jo@example.org>", "doubled brackets"},
      {"<<<>>>", "<>", "<>", "around nothing"},
      {"<> SIZE=1", "<>", "<>", "null address with text behind it"},
      {"jo@example.org.", "<jo@example.org>", "<jo@example.org>", "trailing dot"},
      {"<@a.example.:jo@b.example>", "<@a.example:jo@b.example>", "<@a.example:jo@b.example>",
       "trailing dot in a route"},
      {"<jo @ example . org>", "<jo@example.org>", "<jo@example.org>", "blanks between tokens"},
      {"<jo..doe@example.org>", "<jo..doe@example.org>", "", "two dots"},
      {"<.jo@example.org>", "<.jo@example.org>", "", "leading dot"},
      {"<jo.@example.org>", "<jo.@example.org>", "", "dot before the at sign"},
      {"<jo doe@example.org>", "<jodoe@example.org>", "", "two words"},
      {"<a%@example.org>", "<a%@example.org>", "", "nothing behind the percent sign"},
      {"<%a@example.org>", "<%a@example.org>", "", "nothing in front of it"},
      {"<\"a\"b@example.org>", "<\"a\"b@example.org>", "", "an unescaped quote inside is left alone"},
      {"<[10.0.0.1]@example.org>", "<[10.0.0.1]@example.org>", "", "a literal where a word should stand"},
      {"", "<>", "", "no text: strictly, no local part"},
      {"   ", "<>", "", "blanks"},
      // refused by both
      {"<a\"b\"@example.org>", "", "", "a quoted string comes first or not at all"},
      {"<\"a\".\"b\"@example.org>", "", "", "and only once"},
      {"<jo@>", "", "", "empty domain"},
      {"<@example.org>", "", "", "a route without its end"},
      {"<@a.example:@b.example>", "", "", "no local part"},
      {"<@a.example jo@b.example>", "", "", "no colon behind the route"},
      {"<@a.example,b.example:jo@c.example>", "", "", "a hop without its at sign"},
      {"<@.a.example:jo@b.example>", "", "", "a hop that begins with a dot"},
      {"<jo@.example.org>", "", "", "leading dot in the domain"},
      {"<jo@a..b>", "", "", "two dots in the domain"},
      {"<jo@exa mple.org>", "", "", "two words as domain"},
      {"<jo@-example.org>", "", "", "label that begins with a hyphen"},
      {"<jo@_dmarc.example.org>", "", "", "or an underscore"},
      {"<jo@exam!ple.org>", "", "", "a byte no label holds"},
      {"<jo@10.0.0.1>", "", "", "a dotted quad needs brackets"},
      {"<jo@example.123>", "", "", "all digits in the last label"},
      {"<jo@[10.0.0.256]>", "", "", "literal above 255"},
      {"<jo@a.[10.0.0.1]>", "", "", "literal behind a label"},
      {"<jo@example.org", "<jo@example.org>", "<jo@example.org>", "the end closes a bracket"},
      {"<jo@example@org>", "", "", "two at signs"},
      {"<jo(x)@example.org>", "", "", "comments are no part of an envelope address"},
      {"<jo,ann@example.org>", "", "", "a list"},
      {"<jo@example.org\r\nRCPT TO:<x@y>", "", "", "a line end"},
      {"\"Jo <jo@example.org>", "", "", "an open quote in front of the address"},
      {"J\xc3\xb6 <jo@example.org>", "<jo@example.org>", "<jo@example.org>", "any bytes in front of the bracket"},
      {"<j\xc3\x9f@example.org>", "", "", "0x9f counts as a control character"},
  };
  for (AddressRow const &row : table) {
    SString const text = Bytes(row.text);
    EXPECT_EQ(S821Parser(text, 1).ExtractAddress().Address(), row.lenient) << row.text << ": " << row.why;
    EXPECT_EQ(S821Parser(text, 0).ExtractAddress().Address(), row.strict) << "strict " << row.text << ": " << row.why;
  }
}

TEST(S821Addresses, ABadAddressKeepsWhatWasRead) {
  S821Address const address("<@a.example:jo@example.123>");
  EXPECT_TRUE(address.IsBad());
  EXPECT_EQ(address.Route().Join(" "), "a.example");
  EXPECT_EQ(address.LocalPart(), "jo");
  EXPECT_EQ(address.Domain(), "example.123");
}

TEST(S821Addresses, TheCanonicalFormIsItsOwnCanonicalForm) {
  for (char const *text : {"\"a b\"@x", "\"a\\\"b\"@x", "a\\\\b@x", "\"\"@x", "\"%\"@x", "\"a\\\r\"@x", "a\\\x01@x"}) {
    SString const once = S821Address(text).Address();
    EXPECT_GT(once.Length(), 2) << text;
    EXPECT_EQ(S821Address(once).Address(), once) << text;
  }
}

TEST(S821Addresses, ParametersAreWhatStandsBehindTheAddress) {
  struct Row {
    std::string text;
    char const *words;  // joined by "|"; null for undefined
    char const *why;
  };
  Row const table[] = {
      {"<jo@example.org> SIZE=1  BODY=8BITMIME ", "SIZE=1|BODY=8BITMIME", "no empty words"},
      {"<jo@example.org>", "", "none"},
      {"<> SIZE=1", "SIZE=1", "behind the null address"},
      {"<<jo@example.org>>X=1", "X=1", "behind doubled brackets, without a blank"},
      {"<jo@example.org> A\tB", nullptr, "a tab"},
      {"<jo@example.org> A\x7f", nullptr, "DEL"},
  };
  for (Row const &row : table) {
    S821Parser parser(Bytes(row.text), 1);
    parser.ExtractAddress();
    SStringList const words = parser.Extensions();
    EXPECT_EQ(words.Defined(), row.words != nullptr) << row.why;
    EXPECT_EQ(words.Join("|"), row.words) << row.why;
  }
}

TEST(S821Domains, HostNamesAndLiterals) {
  struct Row {
    char const *text;
    bool valid;
    char const *why;
  };
  Row const table[] = {
      {"example.org", true, "name"},
      {"localhost", true, "no dot"},
      {"123", true, "one label of digits is a name"},
      {"1.2.3.4", false, "but not the last of several"},
      {"1.2.3.4x", true, "one letter is enough"},
      {"3com.example", true, "leading digit"},
      {"a-b.c_d.e", true, "hyphen and underscore inside"},
      {"a-.b", true, "and at the end"},
      {"#12.~x.?y", true, "old forms"},
      {" example.org ", true, "blanks around it"},
      {"", false, "nothing"},
      {".", false, "a dot"},
      {"example.org.", false, "trailing dot"},
      {".example.org", false, "leading dot"},
      {"a..b", false, "empty label"},
      {"a b", false, "two words"},
      {"a@b", false, "an address"},
      {"\"a\"", false, "quoted"},
      {"ex\\ample.org", false, "a backslash"},
      {"m\xc3\xbcnchen.example", false, "not ASCII"},
      {"[1.2.3.4]", true, "literal"},
      {"[1.2.3.4].x", false, "literal with a name behind it"},
      {"[1.2.3.4] ", true, "literal with a blank behind it"},
      {"[1.2.3]", false, "short literal"},
  };
  for (Row const &row : table) EXPECT_EQ(IsValidDomain(row.text) != 0, row.valid) << row.text << ": " << row.why;
}

TEST(S821Domains, LiteralsAlone) {
  struct Row {
    char const *text;
    bool valid;
  };
  for (Row const &row : {Row{"[1.2.3.4]", true},
                         {"[255.255.255.255]", true},
                         {"[001.002.003.004]", true},
                         {"[...]", true},
                         {"[1..2.]", true},
                         {"[]", false},
                         {"[", false},
                         {"", false},
                         {"[1.2.3.4.5]", false},
                         {"[1.2.3.4", false},
                         {"1.2.3.4", false},
                         {"[ 1.2.3.4]", false},
                         {"[1.2.3.256]", false},
                         {"[1.2.3.99999999999999999999]", false},
                         {"[a.b.c.d]", false}})
    EXPECT_EQ(IsValidLiteral(row.text) != 0, row.valid) << row.text;
}

TEST(S821Domains, Elements) {
  for (char const *text : {"a", "9", "#", "~", "?", "a-b", "a_", "A1#~?"})
    EXPECT_TRUE(S821Parser::IsValidElement(text)) << text;
  for (char const *text : {"", "-a", "_a", "a.b", "a b", "a@", "\xe9", "a+b"})
    EXPECT_FALSE(S821Parser::IsValidElement(text)) << text;
}

// Opens the routines that derived parsers share.
class OpenParser : public S821Parser {
public:
  explicit OpenParser(char const *text = "") : S821Parser(text, 1) {}
  using S821Parser::_ExtractRoute;
  using S821Parser::_FixLocalPart;
  using S821Parser::_JoinTokens;
  using S821Parser::_TokenType;
};

TEST(S821Parts, JoinedTokens) {
  struct Row {
    SStringList tokens;
    char separator;
    char const *want;
    char const *why;
  };
  Row const table[] = {
      {{"a"}, ' ', "a", "one is itself"},
      {{"a", "b"}, '.', "a.b", "words get the separator between them"},
      {{"a", ".", "b"}, '.', "a.b", "a dot of their own stays single"},
      {{"\"a\"", "b"}, '.', "\"a\".b", "quoted strings are words"},
      {{"Jo", "\"D.\"", "Doe"}, ' ', "Jo \"D.\" Doe", "phrase"},
      {{"J", ".", "Doe"}, ' ', "J.Doe", "no blank behind a dot"},
      {{"Jo", "(x)"}, ' ', "Jo (x)", "a blank in front of a comment"},
      {{"Jo", "(x)", "Doe"}, ' ', "Jo (x)Doe", "and none behind it"},
      {{"Jo", "(x)", "."}, ' ', "Jo(x).", "nor when a dot follows it"},
      {{"a", "(x)", "b"}, '.', "a(x)b", "a comment takes no separator"},
      {{"%", "\"a\"", "b"}, '.', "%\"a\"b", "text that begins with a percent sign"},
  };
  for (Row const &row : table) EXPECT_EQ(OpenParser()._JoinTokens(row.tokens, row.separator), row.want) << row.why;
  EXPECT_FALSE(OpenParser()._JoinTokens(SStringList(), ' ').Defined());
  SStringList empty;
  empty.Define();
  EXPECT_TRUE(OpenParser()._JoinTokens(empty, ' ').Defined());
}

TEST(S821Parts, TypesOfFinishedTokens) {
  struct Row {
    char const *text;
    int type;
  };
  for (Row const &row :
       {Row{"", 2},    {"a", 4},       {"\"", 0x40},   {"\"\"", 8}, {"(", 0x40},  {"(x)", 0x10}, {"[", 0x40},
        {"[x]", 0x20}, {"\\", 0x40},   {"\\a", 4},     {")", 0x40}, {"]", 0x40},  {"%", 0x8000}, {",", 0x800},
        {".", 0x400},  {":", 0x2000},  {";", 0x1000},  {"<", 0x80}, {">", 0x100}, {"@", 0x200},  {"\r\n", 0x4000},
        {"\r", 0x40},  {"\x7f", 0x40}, {"\x85", 0x40}, {"\xe9", 4}})
    EXPECT_EQ(OpenParser()._TokenType(row.text), row.type) << row.text;
}

TEST(S821Parts, LocalPartsThatAreFixed) {
  struct Row {
    char const *text;
    char const *want;
    char const *why;
  };
  Row const table[] = {
      {"a b", "a b", "nothing to fix without quote or backslash"},
      {"\"a\"", "a", "quotes go"},
      {"\"a.b\"", "a.b", "dots need none"},
      {"\"a b\"", "\"a b\"", "a blank does"},
      {"\"a\\bc\"", "abc", "an escaped letter"},
      {"a\\bc\"", "\"abc\\\"\"", "one quote at the end is text"},
      {"\"", "\"\\\"\"", "a lone quote too"},
      {"\\", "\"\\\\\"", "a lone backslash"},
      {"a\"b", "a\"b", "a quote in the middle: hands off"},
      {"\"a\" b", "\"a\" b", "also when it closes"},
      {"\"a\\\rb\"", "\"a\\\rb\"", "CR is escaped between quotes"},
      {"\"\\\"\"", "\"\\\"\"", "an escaped quote alone"},
  };
  for (Row const &row : table) {
    SString local = row.text;
    OpenParser::_FixLocalPart(local);
    EXPECT_EQ(local, row.want) << row.why;
  }
}

TEST(S821Parts, Routes) {
  struct Row {
    char const *text;
    char const *hosts;  // joined by blanks; null for undefined
    char const *why;
  };
  Row const table[] = {
      {"@a:", "a", "one hop"},
      {"@a.b,@[1.2.3.4],@c:x", "a.b [1.2.3.4] c", "three, a literal among them"},
      {"@a.,@b.:", "a b", "dots in front of a separator pass"},
      {"a:", nullptr, "no at sign"},
      {"@:", nullptr, "no host"},
      {"@a", nullptr, "no colon"},
      {"@a,b:", nullptr, "second hop without at sign"},
      {"@a b:", nullptr, "two words"},
      {"@-a:", nullptr, "no label"},
      {"@a;", nullptr, "the wrong end"},
  };
  for (Row const &row : table) {
    SStringList const hosts = OpenParser(row.text)._ExtractRoute();
    EXPECT_EQ(hosts.Defined(), row.hosts != nullptr) << row.why;
    EXPECT_EQ(hosts.Join(" "), row.hosts) << row.why;
  }
}

}  // namespace
