#include <gtest/gtest.h>

#include <string>

#include "brenthaven/mime/smime.h"
#include "tests/support/texts.h"

namespace {

// Every byte value, in an order without short cycles.
SString Mixed(int length) {
  std::string bytes;
  for (int i = 0; i < length; ++i) bytes += static_cast<char>(i * 167 + i / 256 * 13);
  return Bytes(bytes);
}

TEST(Base64, VectorsOfTheRFC) {
  struct {
    char const *plain;
    char const *encoded;
  } const table[] = {
      {"f", "Zg==\r\n"},        {"fo", "Zm8=\r\n"},        {"foo", "Zm9v\r\n"},
      {"foob", "Zm9vYg==\r\n"}, {"fooba", "Zm9vYmE=\r\n"}, {"foobar", "Zm9vYmFy\r\n"},
  };
  for (auto const &row : table) {
    EXPECT_EQ(EncodeBase64(row.plain), row.encoded);
    EXPECT_EQ(DecodeBase64(row.encoded), row.plain);
  }
}

TEST(Base64, UndefinedAndEmptyStayWhatTheyAre) {
  EXPECT_FALSE(EncodeBase64(SString()).Defined());
  EXPECT_FALSE(DecodeBase64(SString()).Defined());
  EXPECT_TRUE(EncodeBase64("").Defined());
  EXPECT_EQ(EncodeBase64("").Length(), 0);
  EXPECT_TRUE(DecodeBase64("\r\n").Defined());
}

TEST(Base64, LinesHold76LettersAndEachIsEnded) {
  EXPECT_EQ(EncodeBase64(SString('a', 57)).Length(), 78);
  EXPECT_EQ(EncodeBase64(SString('a', 56)).Length(), 78);
  EXPECT_EQ(EncodeBase64(SString('a', 58)).Length(), 78 + 6);
  SStringList const lines = EncodeBase64(Mixed(1000)).SplitExact("\r\n");
  for (int i = 0; i + 2 < lines.Length(); ++i) EXPECT_EQ(lines.Get(i).Length(), 76);
  EXPECT_EQ(lines.Get(-1), "");
}

TEST(Base64, EveryLengthAndByteComesBack) {
  for (int length = 0; length < 400; ++length) EXPECT_EQ(DecodeBase64(EncodeBase64(Mixed(length))), Mixed(length));
  EXPECT_EQ(DecodeBase64(EncodeBase64(Mixed(100001))), Mixed(100001)) << "longer than one block of the decoder";
}

TEST(Base64, DecoderTakesWhatTheWorldSends) {
  struct {
    std::string text;
    char const *want;
    char const *why;
  } const table[] = {
      {"QQ==", "A", "one byte"},
      {"QQ", "", "a short group is dropped"},
      {"QUJDQQ", "ABC", "behind whole ones too"},
      {"Q U\tJ\r\nD", "ABC", "letters may be scattered"},
      {"Q*U-J_D", "ABC", "any other byte is dropped"},
      {std::string("QU\0JD\xff", 6), "ABC", "NUL and eight bits as well"},
      {"QUJD\nQUJD", "ABCABC", "bare line ends"},
      {"QUI=QUJD", "AB", "padding ends the text"},
      {"QQ==QUJD", "A", "whichever its length"},
      {"QQ=\r\n=", "A", "padding may be scattered too"},
      {"QQ=A", "", "a letter behind padding spoils its group"},
      {"Q===", "", "six bits make no byte"},
      {"====", "", "nor do none"},
      {"=QUJD", "", "padding in front ends the text there"},
      {"QUJD=", "ABC", "a lone pad"},
      {"QR==", "A", "bits left over are dropped"},
  };
  for (auto const &row : table) EXPECT_EQ(DecodeBase64(Bytes(row.text)), row.want) << row.text << ": " << row.why;
}

}  // namespace
