// Text of any origin becomes ISO-2022-JP that its own decoder takes; encoded words become readable.
#include "brenthaven/mime/japanese.h"

#include <gtest/gtest.h>
#include <iconv.h>

#include <random>
#include <string>

namespace {

using std::string;

// Whether a text is ISO-2022-JP as mail wants it: short lines of 7-bit bytes, ended by CR LF, each from ASCII to ASCII.
// "" when it is, else what is wrong.
string Fault(string const &text) {
  for (size_t begin = 0; begin < text.size();) {
    size_t const end = text.find("\r\n", begin);
    if (end == string::npos) return "the last line is not ended";
    string line = text.substr(begin, end - begin);
    begin = end + 2;
    if (line.size() > 998) return "a line of " + std::to_string(line.size());
    bool twoBytes = false;
    for (size_t i = 0; i < line.size(); ++i) {
      unsigned char const c = static_cast<unsigned char>(line[i]);
      if (c == 0x1b) {
        twoBytes = line.substr(i + 1, 2) == "$B";
        i += 2;
      } else if (c >= 0x7f || (c < ' ' && c != '\t')) {
        return "byte " + std::to_string(c);
      }
    }
    if (twoBytes) return "a line that ends in two-byte text";
    char out[8192];
    char *from = line.data(), *to = out;
    size_t left = line.size(), room = sizeof out;
    iconv_t const decoder = iconv_open("UTF-8", "ISO-2022-JP");
    bool const good = iconv(decoder, &from, &left, &to, &room) != static_cast<size_t>(-1);
    iconv_close(decoder);
    if (!good) return "a line that its decoder refuses";
  }
  return "";
}

string Convert(string const &text) {
  SString const converted = ToIso2022Jp(SString(std::string_view(text)));
  string const out(converted.View());
  EXPECT_EQ(Fault(out), "") << testing::PrintToString(text) << " -> " << testing::PrintToString(out);
  return out;
}

#define KANJI "\x1b$B4A;z\x1b(B"

}  // namespace

TEST(JapaneseTest, TextOfAnyOriginBecomesIso2022Jp) {
  struct {
    string in, out;
    char const *why;
  } const rows[] = {
      {"", "", "nothing"},
      {"a\tb", "a\tb\r\n", "plain, with an end"},
      {"a\nb\r\nc\r\r\nd\re\r\r\rf\r\n", "a\r\nb\r\nc\r\nd\r\ne\r\nf\r\n", "line ends of all kinds"},
      {"\n\r\n", "\r\n\r\n", "empty lines stay"},
      {"x " KANJI " y", "x " KANJI " y\r\n", "is so already"},
      {"\x1b$@4A;z\x1b(J", KANJI "\r\n", "the old set, closed by JIS-Roman"},
      {"\x1b$B4A;z\nnext", KANJI "\r\nnext\r\n", "not closed at the line's end"},
      {"\x1b$B4A;\x1b(Bx", "\x1b$B4A\x1b(B?x\r\n", "half a character"},
      {"\x1b$B4A\x7d\x7e;z\x1b(B", "\x1b$B4A\x1b(B?\x1b$B;z\x1b(B\r\n", "no such character"},
      {"\x1b(I1\x1b", "?(I1?\r\n", "other escapes"},
      {"\xe6\xbc\xa2\xe5\xad\x97", KANJI "\r\n", "UTF-8"},
      {"\xb4\xc1\xbb\xfa", KANJI "\r\n", "EUC-JP"},
      {"na\xc3\xafve \xe2\x82\xac", "na?ve ?\r\n", "UTF-8 without a place in the set"},
      {"caf\xe9 \xb1 2", "caf? \x1b$B!^\x1b(B 2\r\n", "Latin: plus-minus is in the set"},
      {"\xff\xfe", "??\r\n", "broken"},
      {string("a\0b\x7f\x01", 5), "a?b??\r\n", "controls"},
      {"\xe6\xbc\xa2\n\xb4\xc1", "\x1b$B4A\x1b(B\r\n\x1b$B4A\x1b(B\r\n", "each line by itself"},
  };
  for (auto const &row : rows) EXPECT_EQ(Convert(row.in), row.out) << row.why;
}

TEST(JapaneseTest, LongLinesAreCutBetweenCharacters) {
  string kanji, mixed, ascii(2500, 'a');
  for (int i = 0; i < 1000; ++i) {
    kanji += "\xe6\xbc\xa2";
    mixed += "a\xe6\xbc\xa2";
  }
  for (string const &text : {kanji, mixed, ascii}) {
    string const out = Convert(text);
    EXPECT_GT(std::count(out.begin(), out.end(), '\n'), 1);
    EXPECT_EQ(std::count(out.begin(), out.end(), '?'), 0);
  }
}

TEST(JapaneseTest, RandomBytesAlwaysGiveValidText) {
  std::mt19937 random(4711);
  string const spice[] = {"\x1b$B", "\x1b(B",       "\x1b(J",   "\r", "\n",
                          "\x1b",   "\xe6\xbc\xa2", "\xb4\xc1", "4A", "\x8e\xb1"};
  for (int round = 0; round < 400; ++round) {
    string text;
    for (auto i = random() % 60; i > 0; --i)
      text += random() % 2 != 0 ? spice[random() % std::size(spice)] : string(1, static_cast<char>(random()));
    (void)Convert(text);
  }
}

TEST(JapaneseTest, EncodedWordsAreReadable) {
  struct {
    char const *in, *out, *why;
  } const rows[] = {
      {"plain text", "plain text", "none"},
      {"=?ISO-2022-JP?B?GyRCNEE7ehsoQg==?=", KANJI, "base64"},
      {"=?iso-2022-jp?b?GyRCNEE7ehsoQg==?= x", KANJI " x", "letters in any case"},
      {"=?utf-8?Q?=E6=BC=A2=E5=AD=97_x?=", KANJI " x", "quoted, another charset"},
      {"=?utf-8*ja?Q?a?=", "a", "with a language"},
      {"Re: =?us-ascii?Q?a?=\r\n =?us-ascii?Q?b?= c", "Re: ab c", "blanks between words go, others stay"},
      {"a\r\n\tb", "a\tb", "a folded field"},
      {"=?x-none?Q?a?=", "=?x-none?Q?a?=", "unknown charset"},
      {"=?utf-8?Q?=E6=BC?=", "=?utf-8?Q?=E6=BC?=", "broken text"},
      {"=?utf-8?Q?=E?= =?utf-8?X?a?= =?utf-8?Q?a b?=", "=?utf-8?Q?=E?= =?utf-8?X?a?= =?utf-8?Q?a b?=", "broken words"},
      {"=?utf-8?Q?a", "=?utf-8?Q?a", "cut"},
      {"=?=?=?us-ascii?Q?a?=", "=?=?a", "behind what looks like one"},
  };
  for (auto const &row : rows) EXPECT_EQ(string(DecodeEncodedWords(row.in).View()), row.out) << row.why;
}
