#include "brenthaven/lists/slist.h"

#include "tests/lists/list_fixture.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST_F(ListTest, ListsAreFoundByWhatACallerHolds) {
  Put("Ann", {{"Subscribed-Lists", {"news-list", "gone"}}});
  Put("r1", {{"Remote-SMTP-Address", {"<Rita@Far.example>"}}, {"Subscribed-Lists", {"news-list"}}});
  SListDB lists;
  SList list;
  ASSERT_EQ(lists.GetByUID("news-list", &list, 0), 1);
  EXPECT_EQ(lists.GetByUID("Ann", &list, 0), 0) << "an account, but no list";
  EXPECT_EQ(Str(list.GetUID()), "news-list") << "a failed look-up leaves the list as it was";
  EXPECT_EQ(Str(lists.FindList("NEWS")), "news-list");
  EXPECT_EQ(Str(lists.FindList("nowhere")), "");
  EXPECT_THAT(Strs(lists.GetListUIDs()), ElementsAre("news-list"));
  EXPECT_THAT(Strs(list.GetSubscribers()), ElementsAre("Ann", "r1"));
  EXPECT_EQ(list.GetSubscriberCount(), 2);
  EXPECT_TRUE(list.IsOwnedBy("Olga"));
  EXPECT_FALSE(list.IsOwnedBy("olga"));
  EXPECT_THAT(Strs(lists.GetSubscribedListNames("Ann")), ElementsAre("News"));
  EXPECT_EQ(Str(lists.GetSubscriberUID(S821Address("<ann@EXAMPLE.org>"))), "Ann");
  EXPECT_EQ(Str(lists.GetSubscriberUID(S821Address("<rita@far.example>"))), "r1");
  for (char const *address : {"<news@example.org>", "<News-Request@example.org>", "<owner-news@example.org>"})
    EXPECT_EQ(Str(lists.MapAddrToUID(S821Address(address))), "news-list") << address;
  EXPECT_EQ(Str(lists.MapAddrToUID(S821Address("<ann@example.org>"))), "");
  EXPECT_EQ(Str(list.GetRequestAddress()), "news-request@example.org");
  EXPECT_EQ(Str(list.GetOwnerAddress()), "owner-news@example.org");
}

TEST_F(ListTest, AnyOwnersPasswordOpensTheList) {
  Put("Bob", {{"Password", {"b0b"}}});
  Put("Cleo", {{"Password", {"cl30"}}});
  Put("news-list", {{"List-Owners", {"Olga", "gone", "Bob"}}});
  SList list;
  ASSERT_TRUE(SListDB().GetByUID("news-list", &list, 0));
  EXPECT_TRUE(list.VerifyPassword("pa55word"));
  EXPECT_TRUE(list.VerifyPassword("b0b"));
  EXPECT_FALSE(list.VerifyPassword("cl30"));
  EXPECT_FALSE(list.VerifyPassword(""));
}

TEST_F(ListTest, AvailableAreTheListsThatWouldLetTheAccountIn) {
  Put("open", {{"List-Name", {"a-open"}}});
  Put("moderated", {{"List-Name", {"b-moderated"}}, {"List-Local-Subscriber-Policy", {"moderated"}}});
  Put("closed", {{"List-Name", {"c-closed"}}, {"List-Local-Subscriber-Policy", {"closed"}}});
  Put("notify", {{"List-Name", {"d-notify"}}, {"List-Local-Subscriber-Policy", {"closed-notify"}}});
  Put("locked", {{"List-Name", {"e-locked"}}, {"List-Locked", {"yes"}}});
  Put("far", {{"List-Name", {"f-far"}}, {"List-Remote-Subscriber-Policy", {"closed"}}});
  EXPECT_THAT(Strs(SListDB().GetAvailableLists("Ann")), ElementsAre("open", "moderated", "far", "news-list"));
  EXPECT_THAT(Strs(SListDB().GetAvailableLists("nobody")), IsEmpty());
}

TEST_F(ListTest, DigestScheduleIsReadWordByWord) {
  struct {
    char const *spec;
    unsigned result;
    int hours, day;
    char const *why;
  } const rows[] = {
      {"", 1, 0, 7, "nothing said: every day at midnight"},
      {"  daily   6pm ", 1, 18, 7, "empty words are passed over"},
      {"12 pm", 1, 12, 7, "noon"},
      {"12 am", 1, 0, 7, "midnight"},
      {"12pm Mon", 1, 12, 1, "case does not count"},
      {"weekly 5", 1, 5, 0, "weekly is on Sundays"},
      {"sat", 1, 0, 6, "last of the week"},
      {"p.m. 3", 1, 3, 7, "the number sets the hour anew"},
      {"3 p.m. tue", 1, 15, 2, "any word with p in front"},
      {"13 pm", 1, 25, 7, "no hour of a day, as it was asked for"},
      {"99999999999999999999pm p p", 1, (2147483647 / 2) + 36, 7, "held in range"},
      {"noon", 0, 0, 7, "unknown word"},
      {"monday", 0, 0, 7, "days have three letters"},
  };
  for (auto const &row : rows) {
    int hours = -1, day = -1;
    EXPECT_EQ(ParseListDeliverySpec(row.spec, hours, day), row.result) << row.spec << ": " << row.why;
    if (row.result) {
      EXPECT_EQ(std::pair(hours, day), std::pair(row.hours, row.day)) << row.spec << ": " << row.why;
    }
  }
}
