#include "brenthaven/mailbox/diskspace.h"
#include "tests/mailbox/mail_fixture.h"
#include "tests/platform/callhook.h"
#include "tests/store/process.h"

namespace {

class SizeFileTest : public MailTest {
protected:
  SizeFileTest() { std::filesystem::create_directory(Path("in")); }
  SString folder = Bytes(Path("in/"));
};

TEST_F(SizeFileTest, RecordsReadAsNumberAndFlagsAndAreCutToTheirNewLength) {
  struct {
    std::string text;
    long long size;
    bool near, over;
    char const *plusOne;
  } const kCases[] = {
      {"0", 0, false, false, "1"},
      {"1024", 1024, false, false, "1025"},
      {"9 1", 9, true, false, "10 1"},
      {"99 2", 99, false, true, "100 2"},
      {"4294967296 3", 4294967296, true, true, "4294967297 3"},
      {"12\n", 12, false, false, "13"},
      {"-5", -5, false, false, "-4"},
      {"", -1, false, false, "0"},
      {"what", -1, false, false, "0"},
      {"99999999999999999999", -1, false, false, "0"},
      {std::string(40, '7'), -1, false, false, "0"},
      {"9223372036854775807", 4'000'000'000'000'000'000, false, false, "4000000000000000001"},
  };
  for (auto const &test : kCases) {
    PutFile("in/__size__", test.text);
    {
      SSizeFile file(folder);
      EXPECT_EQ(file.GetSize(), 0) << "not locked";
      file.SetSize(77);
      ASSERT_EQ(file.Lock(), 1u);
      EXPECT_EQ(file.GetSize(), test.size) << test.text;
      EXPECT_EQ(file.NearNoticeSent(), test.near) << test.text;
      EXPECT_EQ(file.OverNoticeSent(), test.over) << test.text;
      file.SetSize(test.size + 1);
    }
    EXPECT_EQ(FileBytes("in/__size__"), test.plusOne) << test.text;
  }
}

TEST_F(SizeFileTest, ShorterRecordLeavesNoTail) {
  for (bool const read : {true, false}) {
    PutFile("in/__size__", "123456 3");
    SSizeFile file(folder);
    ASSERT_EQ(file.Lock(), 1u);
    if (read) (void)file.GetSize();
    file.SetSize(9);
    EXPECT_EQ(FileBytes("in/__size__"), read ? "9 3" : "9");
  }
}

TEST_F(SizeFileTest, FailedWriteLeavesNoWrongNumber) {
  PutFile("in/__size__", "100");
  SSizeFile file(folder);
  ASSERT_EQ(file.Lock(), 1u);
  SCallHook const hook("pwrite", 1, ENOSPC);
  file.SetSize(2000);
  EXPECT_EQ(FileBytes("in/__size__"), "");
}

TEST_F(SizeFileTest, LockOfAnotherProcessIsWaitedForButNotForever) {
  Peer holder([&](Peer &parent) {
    SSizeFile file(folder);
    if (!file.Lock()) return 1;
    parent.Tell();
    return parent.Hear() ? 0 : 1;
  });
  ASSERT_TRUE(holder.Hear());
  SSizeFile impatient(folder, 0.01);
  EXPECT_EQ(impatient.Lock(), 0u);
  Peer waiter([&](Peer &) { return SSizeFile(folder).Lock() ? 0 : 1; });
  waiter.WaitUntilBlocked();
  holder.Tell();
  EXPECT_EQ(holder.Result(), 0);
  EXPECT_EQ(waiter.Result(), 0);
  EXPECT_EQ(impatient.Lock(), 1u);
}

TEST_F(SizeFileTest, MissingFolderIsNoLock) {
  SSizeFile file(Bytes(Path("gone/")), 0);
  EXPECT_EQ(file.Lock(), 0u);
}

class QuotaTest : public MailTest {
protected:
  QuotaTest() {
    Config("Mailbox-Deliver", "Messages", "OverQuotaMessage",
           "From: <+++PostMasterAccount+++>\r\n\r\nno room: <+++SpaceLeft+++> <+++MessageSize+++> <+++Quota+++> "
           "<+++Quota+++>\r\n");
    Config("Mailbox-Deliver", "Messages", "NearQuotaMessage",
           "From: <+++PostMasterAccount+++>\r\n\r\nnearly: <+++SpaceLeft+++> <+++MessageSize+++> <+++Quota+++>\r\n");
  }
  // One message whose stored form has so many bytes, into a mailbox with a record; what the folder holds afterwards.
  Texts Receive(std::string const &uid, std::string const &record, size_t size) {
    std::filesystem::remove_all(Path(Folder(uid)));
    PutFile(Folder(uid) + "__size__", record);
    PutDelivery("m", {uid}, std::string(size - Plain("").size(), 'x'));
    Deliver("m");
    return Stored(uid);
  }
  static constexpr size_t kSize = 100;
};

TEST_F(QuotaTest, MessageOfExactlyTheRemainingSpaceIsTaken) {
  AddAccount("ann", {{"Mailbox-Quota", {"1"}}});
  AddAccount("zero", {{"Mailbox-Quota", {"0"}}});
  AddAccount("big", {{"Mailbox-Quota", {"4194304"}}});
  AddAccount("free");
  AddAccount("boss", {{"Mailbox-Quota", {"1"}}});
  AddAccount("Postmaster", {{"Account-Delivery", {"boss"}}});
  struct {
    char const *uid, *record, *defaultQuota;
    bool taken;
    char const *size, *why;
  } const kCases[] = {
      {"ann", "924", "", true, "1024", "exactly the remaining space"},
      {"ann", "925", "", false, "925", "one byte too many"},
      {"ann", "925", "100", false, "925", "the account's own quota goes before the default"},
      {"zero", "925", "1", false, "925", "a quota of 0 is none of its own"},
      {"zero", "925", "", true, "1025", "and without a default no limit"},
      {"free", "99999999999", "", true, "100000000099", "no limit"},
      {"big", "4294967196", "", true, "4294967296", "above 2 GiB"},
      {"big", "4294967197", "", false, "4294967197", "above 2 GiB and full"},
      {"free", "3221225472", "4194304", true, "3221225572", "a default above 2 GiB"},
      {"boss", "5000", "", true, "5100", "who receives the postmaster's mail is never refused"},
  };
  for (auto const &test : kCases) {
    std::filesystem::remove_all(Path("control"));
    setenv("DefaultMailboxQuota", test.defaultQuota, 1);
    EXPECT_EQ(Receive(test.uid, test.record, kSize).size(), test.taken ? 1u : 0u) << test.why;
    EXPECT_EQ(Size(test.uid), test.size) << test.why;
    EXPECT_EQ(Reports().size(), test.taken ? 0u : 1u) << test.why;
  }
}

TEST_F(QuotaTest, UnreadableRecordIsCountedWithoutTheFileUnderWay) {
  AddAccount("ann");
  PutFile(Folder("ann") + "1", "12345");
  PutFile(Folder("ann") + "2old", "123");
  PutFile(Folder("ann") + "x3", "not a message");
  PutFile(Folder("ann") + "__size__", "garbage");
  PutDelivery("m", {"ann"});
  Deliver("m");
  EXPECT_EQ(Size("ann"), std::to_string(8 + Plain().size()));
  PutFile(Folder("ann") + "__size__", "7 2");
  SMailboxDeliverModule().ComputeSizes();
  EXPECT_EQ(Size("ann"), std::to_string(8 + Plain().size()) + " 2") << "a recount keeps the flags";
}

TEST_F(QuotaTest, StandingRecordCostsNoListing) {
  AddAccount("ann", {{"Mailbox-Quota", {"100"}}});
  SCallHook const hook;
  Receive("ann", "10", kSize);
  EXPECT_EQ(hook.Count("opendir"), 0);
}

TEST_F(QuotaTest, OwnerHearsOnceOfARefusal) {
  Config("Mailbox-Deliver", "Config", "OverQuotaNotices", "yes");
  AddAccount("ann", {{"Mailbox-Quota", {"1"}}});
  std::string const notice = "From: Postmaster@mail.example.org\r\n\r\nno room: 24 100 1024 1024\r\n";
  EXPECT_EQ(Receive("ann", "1000", kSize), Texts{notice});
  EXPECT_EQ(Size("ann"), std::to_string(1000 + notice.size()) + " 2") << "counted past the quota, without a test";
  EXPECT_EQ(Receive("ann", "1000 2", kSize), Texts{});
  Config("Mailbox-Deliver", "Config", "OverQuotaNotices", "no");
  EXPECT_EQ(Receive("ann", "1000", kSize), Texts{});
  EXPECT_EQ(Size("ann"), "1000") << "the flag stays clear until a notice went out";
}

TEST_F(QuotaTest, OwnerHearsOnceThatTheQuotaIsNear) {
  Config("Mailbox-Deliver", "Config", "QuotaWarningThreshold", "90");
  AddAccount("ann", {{"Mailbox-Quota", {"1"}}});
  AddAccount("free");
  AddAccount("Postmaster", {{"Mailbox-Quota", {"1"}}});
  std::string const notice = "From: Postmaster@mail.example.org\r\n\r\nnearly: 101 0 1024\r\n";
  // 10 % of 1024 bytes, cut off, are 102: the notice goes when less is left behind the message.
  EXPECT_EQ(Receive("ann", "822", kSize).size(), 1u);
  EXPECT_EQ(Size("ann"), "922");
  EXPECT_EQ(Receive("ann", "823", kSize).back(), notice);
  EXPECT_EQ(Size("ann"), std::to_string(923 + notice.size()) + " 1");
  EXPECT_EQ(Receive("ann", "823 1", kSize).size(), 1u);
  EXPECT_EQ(Receive("free", "823", kSize).size(), 1u) << "no quota, nothing to be near to";
  EXPECT_EQ(Receive("Postmaster", "823", kSize).size(), 1u);
}

TEST_F(QuotaTest, LockThatIsRefusedIsATemporaryFailure) {
  AddAccount("ann");
  PutDelivery("m", {"ann"});
  SMailboxDeliverModule module;
  ASSERT_EQ(module.LoadEnv(), 1u);
  std::filesystem::create_directories(Path(Folder("ann") + "__size_lock__"));
  EXPECT_EQ(module.ProcessMessageName("m"), kModuleDone);
  ASSERT_EQ(Reports().size(), 1u);
  EXPECT_NE(Reports(true)[0].find("|Can't lock size file for " + Path(Folder("ann"))), std::string::npos);
  EXPECT_EQ(Stored("ann"), Texts{});
}

// The default is what an account without a quota of its own has, and that is what an account in a damaged file looks
// like.
TEST_F(QuotaTest, NobodyIsRefusedForGoodByAQuotaThatCouldNotBeRead) {
  AddAccount("ann", {{"Mailbox-Quota", {"1000"}}});
  setenv("DefaultMailboxQuota", "1", 1);
  Config("Mailbox-Deliver", "Config", "OverQuotaNotices", "yes");
  std::string const body(5000, 'x');
  std::string const sound = FileBytes("config/BTAccounts.a");
  PutDelivery("m", {"ann"}, body);
  std::function<void()> damage = [&] { PutFile("config/BTAccounts.a", std::string(sound.size(), 'x')); };
  sys::SetHook(
      [](sys::CallInfo const &call, void *context) {
        bool const isBehindLookUp = std::string_view(call.path).ends_with("__size_lock__");
        if (isBehindLookUp) (*static_cast<std::function<void()> *>(context))();
        return 0;
      },
      &damage);
  Deliver("m");
  sys::SetHook(nullptr, nullptr);
  EXPECT_EQ(Reports(), Texts{"Mailbox-Deliver:DeliverMessage (DeliveryErrors)"});
  EXPECT_EQ(Stored("ann"), Texts{}) << "nor is the owner told of a full mailbox";
  PutFile("config/BTAccounts.a", sound);
  SMailboxDeliverModule().ProcessQueue();
  EXPECT_EQ(Stored("ann"), Texts{Plain(body)});
}

TEST_F(QuotaTest, WritersOfOneMailboxCountEveryMessage) {
  AddAccount("ann", {{"Mailbox-Quota", {"1000"}}});
  constexpr int kWriters = 4;
  constexpr int kMessages = 25;
  std::vector<std::unique_ptr<Peer>> writers;
  for (int w = 0; w < kWriters; ++w)
    for (int i = 0; i < kMessages; ++i) PutDelivery("m" + std::to_string(w) + "-" + std::to_string(i), {"ann"});
  for (int w = 0; w < kWriters; ++w)
    writers.push_back(std::make_unique<Peer>([w](Peer &) {
      for (int i = 0; i < kMessages; ++i) Deliver("m" + std::to_string(w) + "-" + std::to_string(i));
      return 0;
    }));
  for (auto &writer : writers) EXPECT_EQ(writer->Result(), 0);
  EXPECT_EQ(Stored("ann"), Texts(kWriters * kMessages, Plain()));
  EXPECT_EQ(Size("ann"), std::to_string(kWriters * kMessages * Plain().size()));
}

class DiskSpaceTest : public MailTest {};

TEST_F(DiskSpaceTest, AsksTheNearestDirectoryAndKeepsTheMinimum) {
  EXPECT_GT(GetRemainingUsableKB(Bytes(root), 0), 0u);
  EXPECT_GT(GetRemainingUsableKB(Bytes(Path("no/such/file")), 0), 0u);
  EXPECT_EQ(GetRemainingUsableKB("file", 0), 0u) << "a name alone is in no directory";
  EXPECT_EQ(GetRemainingUsableKB("", 0), 0u);
  EXPECT_EQ(GetRemainingUsableKB(Bytes(root), 1e18), 0u);
  setenv("MinFreeDiskSpaceKB", "1e15", 1);
  EXPECT_EQ(GetRemainingUsableKB(Bytes(root), 0), 0u);
  setenv("MinFreeDiskSpaceKB", "-3", 1);
  EXPECT_GT(GetRemainingUsableKB(Bytes(root), 0), 0u);
}

TEST_F(DiskSpaceTest, WarnsOnceADayWhoeverSeesItFirst) {
  setenv("MinFreeDiskSpaceKB", "1e15", 1);
  PutFile(".LastSpaceWarning", "100");
  (void)GetRemainingUsableKB(Bytes(root), 0);
  (void)GetRemainingUsableKB(Bytes(root), 0);
  EXPECT_EQ(Reports(), Texts{"Dispatch:DiskLimits (LowDiskSpaceWarning)"});
  EXPECT_EQ(Reports(true)[0].find("|" + root + " = "), Reports()[0].size());
  EXPECT_NEAR(std::stod(FileBytes(".LastSpaceWarning")), static_cast<double>(time(nullptr)), 100);
}

TEST_F(DiskSpaceTest, WarningThatCantBeRecordedHoldsMailBack) {
  SString const path = Bytes(root);
  setenv("MinFreeDiskSpaceKB", "50", 1);
  double const free = static_cast<double>(std::filesystem::space(root).available);
  double const needed = free - 300 * 1024;  // below the warning level, above the minimum
  PutFile(".LastSpaceWarning", "100");
  std::filesystem::create_directory(Path(".LastSpaceWarning." + Text(SString(getpid()))));
  EXPECT_EQ(GetRemainingUsableKB(path, needed), 0u);
}

}  // namespace
