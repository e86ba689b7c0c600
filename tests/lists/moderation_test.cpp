// Postings that wait for the owners of a list.
#include "tests/lists/list_fixture.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

namespace {

class ModerationTest : public ListTest {
protected:
  ModerationTest() : actions(&module, "news", S821Address("<olga@example.org>")) {}

  void PutPosting(std::string const &name) const {
    ListTest::PutControl(name, "List-Exploder", "Account-To: news-list\r\n");
    PutMessage(name);
  }
  int Hold(std::string const &id, std::string const &name) {
    PutPosting(name);
    SControl control{SString(name)};
    EXPECT_TRUE(control.Read());
    return actions.Hold(SString(id), control);
  }
  // Sends the posting N to the owners under a template's name.
  Strings Ask(char const *id) {
    PutPosting("N");
    SControl control("N");
    SHeader header("N");
    EXPECT_TRUE(control.Read() && header.Read());
    Strings const errors = Strs(actions.SendToModerators(id, control, header));
    for (char const *file : {"control/N-Control", "messages/N-Header", "messages/N-Body"})
      std::filesystem::remove(Path(file));
    return errors;
  }
  Strings Waiting() const {
    SListState state("news-list");
    EXPECT_TRUE(state.Read());
    Strings ids;
    for (int i = 0; i < state.GetApproveMsgsCount(); ++i) ids.push_back(Str(state.GetApproveMsgId(i)));
    return ids;
  }

  SListActions actions;
};

}  // namespace

TEST_F(ModerationTest, ApprovedPostingGoesBackToItsModule) {
  DispatcherEar ear;
  ASSERT_EQ(Hold("<1@x>", "N1"), kListSuccess);
  ASSERT_EQ(Hold("<2@x>", "N2"), kListSuccess);
  ASSERT_EQ(Hold("<2@x>", "N2"), kListSuccess) << "met again after a crash";
  EXPECT_EQ(CountIn("control"), 0);
  EXPECT_TRUE(Exists("List-Exploder/approval/N1-Control"));
  EXPECT_THAT(Waiting(), ElementsAre("<1@x>", "<2@x>"));

  EXPECT_EQ(actions.Moderate("<3@x>", 1), kListMsgNotFound);
  EXPECT_EQ(CountIn("List-Exploder/approval"), 2);
  EXPECT_EQ(actions.Moderate("<1@x>", 1), kListSuccess);
  EXPECT_THAT(FileBytes("control/N1-Control"), HasSubstr("Approved: yes\r\n"));
  EXPECT_THAT(ear.Next(), StartsWith("N1\nkey\nList-Exploder\nMail\n"));
  EXPECT_THAT(Waiting(), ElementsAre("<2@x>"));
  EXPECT_EQ(actions.Moderate("<1@x>", 1), kListMsgNotFound);

  EXPECT_EQ(actions.Moderate("<2@x>", 0), kListSuccess);
  EXPECT_THAT(Waiting(), IsEmpty());
  EXPECT_FALSE(Exists("control/N2-Control"));
  EXPECT_FALSE(Exists("messages/N2-Body"));
  EXPECT_FALSE(Exists("List-Exploder/approval")) << "the last one takes the directory with it";
  EXPECT_EQ(Hold("<4@x>", "N4"), kListSuccess) << "and the next makes it again";
}

TEST_F(ModerationTest, PostingsWithOneIdWaitEachForItself) {
  ASSERT_EQ(Hold("<1@x>", "N1"), kListSuccess);
  ASSERT_EQ(Hold("<1@x>", "N2"), kListSuccess);
  EXPECT_EQ(actions.Moderate("<1@x>", 0), kListSuccess);
  EXPECT_TRUE(Exists("List-Exploder/approval/N2-Control"));
  EXPECT_EQ(actions.Moderate("<1@x>", 0), kListSuccess);
  EXPECT_EQ(CountIn("messages"), 0);
}

TEST_F(ModerationTest, PostingThatCannotBeAnnouncedStillWaits) {
  ASSERT_EQ(Hold("<1@x>", "N1"), kListSuccess);
  EXPECT_EQ(actions.ForgetLost("<1@x>"), 0u) << "not lost";
  EXPECT_EQ(actions.Moderate("<1@x>", 1), kListTempFail) << "there is no dispatcher";
  EXPECT_TRUE(Exists("control/N1-Control")) << "where the next walk finds it";
  EXPECT_THAT(Waiting(), ElementsAre("<1@x>"));
  EXPECT_EQ(actions.Moderate("<1@x>", 1), kListTempFail) << "nothing left to move";
  EXPECT_EQ(actions.ForgetLost("<1@x>"), 1u);
  EXPECT_THAT(Waiting(), IsEmpty());
}

TEST_F(ModerationTest, FailedHoldLeavesTheMessageWhereItWas) {
  for (int n = 1;; ++n) {
    CallWatch watch;
    PutPosting("N1");
    SControl control("N1");
    ASSERT_TRUE(control.Read());
    watch.FailNth(n, EIO, "rename");
    int const result = actions.Hold("<1@x>", control);
    if (!watch.Failed()) break;
    EXPECT_EQ(result, kListTempFail) << "rename " << n;
    EXPECT_TRUE(Exists("control/N1-Control"));
    EXPECT_THAT(Waiting(), IsEmpty());
  }
  EXPECT_THAT(Waiting(), ElementsAre("<1@x>"));
}

TEST_F(ModerationTest, RecordThatNamesAPathIsNotFollowed) {
  PutFile("messages/evil-Body", "x");
  SListState state("news-list");
  ASSERT_TRUE(state.Read());
  state.AddApproveMsg("a", "../../messages/evil");
  state.AddApproveMsg("b", "");
  ASSERT_TRUE(state.Commit());
  for (char const *id : {"a", "b"}) {
    EXPECT_EQ(actions.Moderate(id, 1), kListMsgNotFound);
    EXPECT_EQ(actions.EditText(id, List({"y"})), kListMsgNotFound);
  }
}

TEST_F(ModerationTest, EditingReplacesTheBody) {
  EXPECT_EQ(actions.EditText("<1@x>", List({"a"})), kListMsgNotFound);
  ASSERT_EQ(Hold("<1@x>", "N1"), kListSuccess);
  PutFile("messages/N1-Body.edited", "left by a crash");
  EXPECT_EQ(actions.EditText("<1@x>", List({"one"})), kListSuccess);
  EXPECT_EQ(actions.EditText("<1@x>", List({"two", "lines"})), kListSuccess);
  EXPECT_EQ(FileBytes("messages/N1-Body"), "two\r\nlines\r\n");
  {
    CallWatch watch;
    watch.FailNth(1, ENOSPC, "rename");
    EXPECT_EQ(actions.EditText("<1@x>", List({"three"})), kListTempFail);
  }
  EXPECT_EQ(FileBytes("messages/N1-Body"), "two\r\nlines\r\n");
  EXPECT_FALSE(Exists("messages/N1-Body.edited"));
  EXPECT_THAT(Waiting(), ElementsAre("<1@x>"));
  std::filesystem::remove(Path("messages/N1-Body"));
  EXPECT_EQ(actions.EditText("<1@x>", List({"three"})), kListMsgNotFound);
}

TEST_F(ModerationTest, OwnersGetThePostingBehindTheText) {
  Set("List-Manager", "/Messages", "TooLarge", {"Subject: <+++ListName+++>: too large", "Please decide."});
  EXPECT_THAT(Ask("TooLarge"), IsEmpty());
  Mail mail = TakeMail();
  EXPECT_TRUE(mail.Has("Account-To: Olga"));
  EXPECT_TRUE(mail.Has("Subject: News: too large"));
  EXPECT_THAT(mail.header, HasSubstr("Content-Type: multipart/mixed;"));
  EXPECT_THAT(mail.body, HasSubstr("Content-Type: text/plain\r\n"));
  EXPECT_THAT(mail.body, HasSubstr("\r\n\r\nPlease decide.\r\n"));
  EXPECT_THAT(mail.body, HasSubstr("Content-Type: message/rfc822\r\n"));
  EXPECT_THAT(mail.body, HasSubstr("\r\n\r\nSubject: hello\r\n\r\nbody of N\r\n"));

  Put("news-list", {{"List-Moderation-Method", {"noqueue-fwd-nomime"}}});
  EXPECT_THAT(Ask("TooLarge"), IsEmpty());
  mail = TakeMail();
  EXPECT_TRUE(mail.Has("Subject: BOUNCE: hello"));
  EXPECT_EQ(mail.body, "Subject: hello\r\n\r\nbody of N\r\n");
}

TEST_F(ModerationTest, OwnersAreNotAskedOrTheFailureIsNamed) {
  Put("news-list", {{"List-Suppress-Notifications", {"TooLarge", "OverLimitNotification"}}});
  for (char const *id : {"TooLarge", "OverGlobalLimitKbytes"}) EXPECT_THAT(Ask(id), IsEmpty()) << id;
  Put("news-list", {{"List-Locked", {"yes"}}});
  EXPECT_THAT(Ask("Other"), IsEmpty());
  EXPECT_THAT(TakeMails(), IsEmpty());
  Put("news-list", {{"List-Locked", {}}, {"List-Owners", {}}});
  EXPECT_THAT(Ask("Other"), ElementsAre("List-Exploder:NoModerators", "Owner account: news-owner"));
  Put("news-list", {{"List-Owners", {"Olga"}}, {"List-Moderation-Method", {"noqueue-fwd-nomime"}}});
  PutPosting("N");
  SControl control("N");
  SHeader header("N");
  ASSERT_TRUE(control.Read() && header.Read());
  CallWatch watch;
  watch.FailNth(1, ENOSPC, "write");
  EXPECT_THAT(Strs(actions.SendToModerators("Other", control, header)),
              ElementsAre("List-Exploder:CantWriteBody", HasSubstr("BodyWriteFail")));
  EXPECT_EQ(CountIn("messages"), 2) << "the posting's own";
}
