#include "brenthaven/exploder/listheaders.h"

#include "tests/exploder/exploder_fixture.h"

namespace {

class HeadersTest : public ExploderTest {
protected:
  static SList News() {
    SList list;
    EXPECT_TRUE(SListDB().GetByUID("news", &list, 0));
    return list;
  }
  static std::string Dressed(std::string const &text) {
    SHeader header;
    Bytes(text) >> header;
    SList const list = News();
    DressHeader(header, list, SListNames(list));
    return Text(header.Text());
  }
};

constexpr char kListFields[] =
    "Precedence: list\r\n"
    "List-Id: <news.example.org>\r\n"
    "List-Help: <mailto:news-request@example.org?subject=help>\r\n"
    "List-Unsubscribe: <mailto:news-request@example.org?subject=unsubscribe%20news>\r\n"
    "List-Subscribe: <mailto:news-request@example.org?subject=subscribe%20news>\r\n"
    "List-Post: <mailto:news@example.org>\r\n"
    "List-Owner: <mailto:owner-news@example.org>\r\n";

TEST_F(HeadersTest, ListFieldsReplaceThoseThatCame) {
  EXPECT_EQ(Dressed("From: a@b\r\nSubject: x\r\n"), std::string("From: a@b\r\nSubject: x\r\n") + kListFields);
  EXPECT_EQ(Dressed("LIST-ID: <evil>\r\nFrom: a@b\r\nList-Unsubscribe-Post: x\r\nlist-archive: y\r\napproved: pw\r\n"
                    "Precedence: junk\r\nDisposition-Notification-To: a@b\r\nReturn-Path: <a@b>\r\n"),
            std::string("From: a@b\r\n") + kListFields);
}

TEST_F(HeadersTest, SettingsAddRemoveAndRewrite) {
  struct {
    char const *attribute;
    Texts values;
    std::string header, want;
  } const kCases[] = {
      {"List-Headers-To-Remove",
       {"x-spam", "Received:"},
       "X-Spam: 1\r\nreceived: y\r\nA: 1\r\n",
       std::string("A: 1\r\n") + kListFields},
      {"List-Remove-X-Headers", {"yes"}, "X-One: 1\r\nx-two: 2\r\nAx-: 3\r\n", std::string("Ax-: 3\r\n") + kListFields},
      {"List-Headers-To-Add",
       {"X-Mood:  good", "A : 2"},
       "A: 1\r\n",
       std::string("A: 1\r\nA: 2\r\n") + kListFields + "X-Mood: good\r\n"},
      {"List-Other-Rewrites",
       {"reply-to-list"},
       "Reply-To: a@b\r\n",
       std::string("Reply-To: <news@example.org>\r\n") + kListFields},
      {"List-Other-Rewrites",
       {"subject-prefix"},
       "Subject: hi\r\n",
       std::string("Subject: [news] hi\r\n") + kListFields},
      {"List-Other-Rewrites",
       {"subject-prefix"},
       "Subject: Re: [news] hi\r\n",
       std::string("Subject: Re: [news] hi\r\n") + kListFields},
  };
  for (auto const &c : kCases) {
    Set("news", c.attribute, c.values);
    EXPECT_EQ(Dressed(c.header), c.want) << c.attribute;
    Set("news", c.attribute, {});
  }
}

TEST_F(HeadersTest, SettingsOpenNoLineOfTheirOwn) {
  Set("news", "List-Headers-To-Add",
      {"X-A: b\r\nBcc: evil@far.example", "X-B: c\rBcc: evil@far.example", "X-C: d\nBcc: x", "no field", "X D: e",
       ": f"});
  EXPECT_EQ(Dressed(""), kListFields);
  Set("news", "List-Headers-To-Add", {});
  Set("news", "List-Name", {"news\r\nBcc: evil@far.example"});
  EXPECT_EQ(Dressed(""), kListFields);  // named by its UID then
  Set("news", "List-Name", {"Big \"News\" & more"});
  EXPECT_THAT(Dressed(""), ::testing::HasSubstr("?subject=subscribe%20Big%20%22News%22%20%26%20more>\r\n"));
  Set("news", "SMTP-Address", {"a?b&c@example.org"});
  EXPECT_THAT(Dressed(""), ::testing::HasSubstr("List-Post: <mailto:a%3Fb%26c@example.org>\r\n"));
}

TEST_F(HeadersTest, AnnouncementsSayThatNobodyMayPost) {
  for (char const *attribute : {"List-Subscriber-Posting-Policy", "List-Nonsubscriber-Posting-Policy"})
    Set("news", attribute, {"closed"});
  EXPECT_THAT(Dressed(""), ::testing::HasSubstr("List-Post: NO\r\n"));
}

TEST_F(HeadersTest, URLIsFilledInEncodedAndRefusedWhereItWouldBreakTheField) {
  SListNames const names{News()};
  SUnsubscribeURL const url("https://l.example/<+++ListName+++>?a=<+++Subscriber+++>");
  EXPECT_TRUE(url.IsPersonal() && url.IsOneClick());
  EXPECT_EQ(url.For(names, "a+b@c", "k"), "https://l.example/news?a=a%2Bb%40c");
  EXPECT_FALSE(SUnsubscribeURL("http://l.example/").IsOneClick());
  EXPECT_FALSE(SUnsubscribeURL("https://l.example/<+++ListName+++>").IsPersonal());
  for (char const *bad :
       {"", "mailto:a@b", "https://l/\r\nBcc: x", "https://l/a b", "https://l/>, <https://evil", "https://l/<x>"})
    EXPECT_FALSE(SUnsubscribeURL(bad).IsSet()) << bad;
  SHeader header;
  AddUnsubscribeURL(header, "https://l.example/", true);
  EXPECT_EQ(header.Text(), "");  // the list's settings have taken the field out
}

}  // namespace
