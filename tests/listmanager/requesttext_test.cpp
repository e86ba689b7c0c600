#include "brenthaven/listmanager/requesttext.h"

#include <gtest/gtest.h>

#include <string>

namespace {

SHeader HeaderOf(std::string const &text) {
  SHeader header;
  SString(text) >> static_cast<SNamedStringList &>(header);
  return header;
}

std::string LinesOf(std::string const &header, std::string const &body) {
  SRequestText const text = ReadRequestText(HeaderOf(header), SString(body));
  return std::string(text.lines.Join("|").View());
}

constexpr char kMultipart[] = "MIME-Version: 1.0\r\nContent-Type: multipart/mixed;\r\n boundary=\"out\"\r\n";

TEST(RequestTextTest, SubjectLosesReplyMarksAndEncoding) {
  struct {
    std::string subject, want;
  } const cases[] = {
      {"confirm 01", "confirm 01"},
      {"Re: AW: Re[2]:confirm 01", "confirm 01"},
      {"Re:", ""},
      {"a question: help", "a question: help"},
      {"=?utf-8?Q?Re:_subscribe?= =?us-ascii?b?IG5ld3M=?=", "subscribe news"},
  };
  for (auto const &c : cases)
    EXPECT_EQ(ReadRequestText(HeaderOf("Subject: " + c.subject + "\r\n"), "").subject.View(), c.want) << c.subject;
  EXPECT_EQ(ReadRequestText(SHeader(), "").subject.Length(), 0);
}

TEST(RequestTextTest, LinesAreWhatThePersonWrote) {
  struct {
    char const *what;
    std::string header, body, want;
  } const cases[] = {
      {"plain, LF and blanks", "", "\n  subscribe news \n\r\nhelp", "subscribe news|help"},
      {"quotation and its introduction", "",
       "subscribe\r\n\r\nOn Tue, 4 Mar 2003 Jo wrote:\r\n> unsubscribe\r\n>> which\r\nhelp\r\n", "subscribe|help"},
      {"wrapped introduction", "", "help\r\nOn Tuesday Jo Doe <jo@far.example>\r\nwrote:\r\n\r\n> which\r\n", "help"},
      {"quotation first", "", "> which\r\nhelp\r\n", "help"},
      {"signature", "", "help\r\n-- \r\nsubscribe news\r\n", "help"},
      {"forwarding client", "", "help\r\n-----Original Message-----\r\nsubscribe news\r\n", "help"},
      {"base64", "MIME-Version: 1.0\r\nContent-Transfer-Encoding: BASE64\r\n", "c3Vic2NyaWJlIG5ld3M=\r\n",
       "subscribe news"},
      {"quoted-printable", "MIME-Version: 1.0\r\nContent-Transfer-Encoding: Quoted-Printable \r\n",
       "subscribe=20=\r\nnews =\r\n jo=40x.example=3d\r\n1=zz=", "subscribe news  jo@x.example=|1=zz"},
      {"HTML alone", "MIME-Version: 1.0\r\nContent-Type: text/html\r\n", "<p>help</p>", ""},
      {"first text of a multipart", kMultipart,
       "--out\r\nContent-Type: text/html\r\n\r\nwhich\r\n--out\r\nContent-Type: text/plain\r\n"
       "Content-Transfer-Encoding: quoted-printable\r\n\r\nhel=\r\np\r\n--out\r\n\r\nlists\r\n--out--\r\n",
       "help"},
      {"alternative in mixed, boundary on the type's line", kMultipart,
       "--out\r\nContent-Type: multipart/alternative; boundary=\"in\"\r\n\r\n--in\r\nContent-Type: text/plain\r\n"
       "\r\nhelp\r\n--in\r\nContent-Type: text/html\r\n\r\nwhich\r\n--in--\r\n\r\n--out--\r\n",
       "help"},
      {"HTML alone in a multipart", kMultipart, "--out\r\nContent-Type: text/html\r\n\r\nwhich\r\n--out--\r\n", ""},
  };
  for (auto const &c : cases) EXPECT_EQ(LinesOf(c.header, c.body), c.want) << c.what;
}

TEST(RequestTextTest, NestedAndLargeBodiesEnd) {
  std::string deep;
  for (int level = 0; level < 200; ++level) {
    std::string const boundary = "b" + std::to_string(level);
    deep += "--" + (level > 0 ? boundary : "out") + "\r\nContent-Type: multipart/mixed; boundary=\"b" +
            std::to_string(level + 1) + "\"\r\n\r\n";
  }
  EXPECT_TRUE(LinesOf(kMultipart, deep + "--b200\r\n\r\nhelp\r\n").starts_with("--out|"));  // one text, taken as it is
  std::string const large = "help\r\n" + std::string(3 << 20, 'x') + "\r\nwhich\r\n";
  EXPECT_EQ(LinesOf("", large).size(), (1u << 20) - 1);  // cut, and "|" for a line end
}

}  // namespace
