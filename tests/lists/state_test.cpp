#include "brenthaven/lists/sliststate.h"

#include "tests/lists/list_fixture.h"

using ::testing::ElementsAre;

namespace {

std::string Int(int value) {
  std::string bytes;
  for (int i = 0; i < 4; ++i) bytes += static_cast<char>(static_cast<unsigned>(value) >> (8 * i));
  return bytes;
}

std::string Items(std::vector<std::string> const &items) {
  std::string bytes = Int(static_cast<int>(items.size()));
  for (std::string const &item : items) bytes += Int(static_cast<int>(item.size())) + item;
  return bytes;
}

class StateTest : public SpoolTest {
protected:
  StateTest() { std::filesystem::create_directory(Path("listdata")); }
  std::string Written() const { return FileBytes("listdata/news"); }
};

}  // namespace

TEST_F(StateTest, FileHasItsRecordsInOrder) {
  SListState state("news");
  ASSERT_TRUE(state.Read());
  EXPECT_EQ(state.IncrTotalMessages(), 1);
  EXPECT_EQ(state.IncrTotalKbytes(300), 300);
  EXPECT_EQ(state.GetDigestVolume(), 1) << "a fresh list starts with the first volume";
  EXPECT_EQ(state.IncrDigestNumber(), 1);
  state.IncrSubscriptions();
  state.IncrUnsubscriptions(0);
  state.IncrUnsubscriptions(1);
  state.IncrUnsubscriptions(1);
  int const ann = state.GetUserNum("ann@example.org");
  int const bob = state.GetUserNum("bob@example.org");
  EXPECT_EQ(state.GetUserNum("ann@example.org"), ann);
  EXPECT_EQ(state.IncrUserTotalMessages(ann), 1);
  EXPECT_EQ(state.IncrUserTotalKbytes(ann, 300), 300);
  EXPECT_EQ(state.IncrModeratedPostCount(bob), 1);
  EXPECT_EQ(state.IncrBounceCount(bob), 1);
  EXPECT_EQ(state.AddMessageID("<1@x>"), 0);
  state.AddApproveMsg("<2@x>", "N2");
  state.AddSubscribeRequest(S821Address("<c@far.example>"), 0);
  state.AddUnsubscribeRequest(S821Address("<d@far.example>"));
  state.AddSubscribeRequest(S821Address("<e@far.example>"), 1);
  ASSERT_TRUE(state.Commit());
  EXPECT_EQ(Written(), Int(1) + Int(1) + Int(300) + Int(1) + Int(1) + Int(0) + Int(1) + Int(1) + Int(2) + Int(0) +
                           Items({"ann@example.org", "bob@example.org"}) + Items({"1", "0"}) + Items({"300", "0"}) +
                           Items({"0", "1"}) + Items({"0", "1"}) + Items({"<1@x>"}) + Items({"N2"}) + Items({"<2@x>"}) +
                           Items({"c@far.example"}) + Items({"d@far.example"}) + Items({"e@far.example"}));
}

// What another program left empty or unknown comes back as it was.
TEST_F(StateTest, ReadAndCommitKeepWhatIsNotUnderstood) {
  std::string const bytes = Int(1) + Int(5) + Int(6) + Int(7) + Int(8) + Int(-9) + Int(10) + Int(11) + Int(12) +
                            Int(0x7fffffff) + Items({"a@x", "b@x"}) + Items({"", "2"}) + Items({"1", ""}) +
                            Items({"3", "4"}) + Items({"5", "6"}) + Items({}) + Items({}) + Items({}) + Items({}) +
                            Items({}) + Items({});
  PutFile("listdata/news", bytes);
  SListState state("news");
  ASSERT_TRUE(state.Read());
  EXPECT_EQ(state.GetUserTotalMessages(0), 0);
  ASSERT_TRUE(state.Commit());
  EXPECT_EQ(Written(), bytes);
  ASSERT_TRUE(state.Read());
  EXPECT_EQ(state.IncrUserTotalMessages(0), 1) << "an empty count is 0";
  EXPECT_EQ(state.GetUserTotalMessages(2) + state.IncrBounceCount(-1), 0) << "nobody's counts";
}

TEST_F(StateTest, FileThatWasCutOrIsAnothersIsLeftAlone) {
  {
    SListState state("news");
    ASSERT_TRUE(state.Read());
    state.AddSubscribeRequest(S821Address("<c@far.example>"), 0);
    state.GetUserNum("ann@example.org");
    ASSERT_TRUE(state.Commit());
  }
  std::string const whole = Written();
  std::vector<std::string> broken = {whole + "x", std::string(200, '\xff')};
  for (size_t length = 0; length < whole.size(); ++length) broken.push_back(whole.substr(0, length));
  for (std::string const &bytes : broken) {
    PutFile("listdata/news", bytes);
    testing::internal::CaptureStderr();
    SListState state("news");
    EXPECT_EQ(state.Read(), 0u) << bytes.size() << " bytes";
    EXPECT_EQ(state.Commit(), 0u);
    EXPECT_NE(testing::internal::GetCapturedStderr().find(":ERROR:"), std::string::npos);
    EXPECT_EQ(Written(), bytes);
  }
}

TEST_F(StateTest, OnlyTheLastFiftyMessageIdsAreKnown) {
  SListState state("news");
  ASSERT_TRUE(state.Read());
  for (int i = 1; i <= 50; ++i) EXPECT_EQ(state.AddMessageID(SString(i)), 0);
  EXPECT_EQ(state.AddMessageID("1"), 1);
  EXPECT_EQ(state.AddMessageID("51"), 0);
  EXPECT_EQ(state.AddMessageID("2"), 1) << "the second still stands";
  EXPECT_EQ(state.AddMessageID("1"), 0) << "the oldest was pushed out";
  EXPECT_EQ(state.AddMessageID("") + state.AddMessageID(""), 0);
}

TEST_F(StateTest, PendingRequestsStandOnceAndAreRemovedFromBothLists) {
  S821Address const address("<c@far.example>");
  SListState state("news");
  ASSERT_TRUE(state.Read());
  EXPECT_EQ(state.AddSubscribeRequest(address, 0), 1);
  EXPECT_EQ(state.AddSubscribeRequest(address, 0), 0);
  EXPECT_EQ(state.AddSubscribeRequest(address, 1), 1);
  EXPECT_EQ(state.RemoveSubscribeRequest(address), 1);
  EXPECT_EQ(state.RemoveSubscribeRequest(address), 0);
  EXPECT_EQ(state.RemoveUnsubscribeRequest(address), 0);
  state.AddApproveMsg("a", "A");
  state.AddApproveMsg("b", "B");
  EXPECT_EQ(state.DeleteApproveMsg(2) + state.DeleteApproveMsg(-1), 0);
  EXPECT_EQ(state.DeleteApproveMsg(state.FindApproveMsg("a")), 1);
  EXPECT_EQ(Str(state.GetApproveMsgText(state.FindApproveMsg("b"))), "B");
}

// The size of a large list; a removal that walked the rest for each user would not come to its end here.
TEST_F(StateTest, ClearingKeepsWhoHasBouncesAmongAHundredThousand) {
  constexpr int kUsers = 100000;
  SListState state("news");
  ASSERT_TRUE(state.Read());
  for (int i = 0; i < kUsers; ++i) {
    int const user = state.GetUserNum("user" + SString(i) + "@example.org");
    state.IncrUserTotalMessages(user);
    if (i % 1000 == 0) state.IncrBounceCount(user);
  }
  state.IncrDigestNumber();
  state.IncrSubscriptions();
  ASSERT_TRUE(state.Commit());
  ASSERT_TRUE(state.Read());
  ASSERT_EQ(state.GetUserCount(), kUsers);
  state.ClearStats();
  EXPECT_EQ(state.GetUserCount(), kUsers / 1000);
  EXPECT_EQ(state.GetSubscriptions(), 0);
  EXPECT_EQ(state.GetDigestNumber(), 1);
  int const user = state.GetUserNum("user99000@example.org");
  EXPECT_EQ(user, 99);
  EXPECT_EQ(state.GetBounceCount(user), 1);
  EXPECT_EQ(state.GetUserTotalMessages(user), 0);
}

TEST_F(StateTest, LockIsHeldFromReadToCommit) {
  auto const isFree = [this] {
    void *const handle = LockFile(SString(Path("listdata/news.lock")), 0, 0, 1);
    bool const free = handle != HandleOf(-1);
    if (free) (void)CloseFile(handle);
    return free;
  };
  {
    SListState state("news");
    ASSERT_TRUE(state.Read());
    EXPECT_FALSE(isFree());
    state.IncrTotalMessages();
    ASSERT_TRUE(state.Read()) << "a second read keeps what was changed";
    EXPECT_EQ(state.GetTotalMessages(), 1);
    PutFile("listdata/news.new", "left by a crash");
    CallWatch watch;
    watch.FailNth(1, EIO, "rename");
    EXPECT_EQ(state.Commit(), 0u);
    EXPECT_FALSE(isFree());
    EXPECT_FALSE(Exists("listdata/news"));
    EXPECT_FALSE(Exists("listdata/news.new"));
    ASSERT_TRUE(state.Read());
    EXPECT_TRUE(state.Commit());
    EXPECT_TRUE(isFree());
    ASSERT_TRUE(state.Read());
    state.IncrTotalMessages();
  }
  EXPECT_TRUE(isFree());
  SListState state("news");
  ASSERT_TRUE(state.Read());
  EXPECT_EQ(state.GetTotalMessages(), 1) << "what was not committed is dropped";
  EXPECT_TRUE(state.Remove());
  EXPECT_EQ(CountIn("listdata"), 0);
  EXPECT_TRUE(state.Remove());
}

TEST_F(StateTest, UidThatIsNoListsFileNameIsRefused) {
  for (char const *uid : {"", ".", "..", "../config/BTAccounts.a", "a/b", "news.lock", "news.new"})
    EXPECT_EQ(SListState(uid).Read(), 0u) << uid;
  std::filesystem::remove(Path("listdata"));
  EXPECT_EQ(SListState("news").Read(), 1u) << "the directory is made by the first list";
  EXPECT_EQ(CountIn("listdata"), 1);
}
