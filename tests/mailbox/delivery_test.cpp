#include <set>

#include "brenthaven/mailbox/sizefile.h"
#include "tests/mailbox/mail_fixture.h"
#include "tests/platform/callhook.h"
#include "tests/store/process.h"

namespace {

class DeliveryTest : public MailTest {};

TEST_F(DeliveryTest, StoredBytesAreReturnPathFilteredHeaderBlankLineBody) {
  struct {
    char const *userFrom, *header, *body, *want, *why;
  } const kCases[] = {
      {"SMTP <a@b>", "Subject: x\r\n", "b\r\n", "Return-Path: <a@b>\r\nSubject: x\r\n\r\nb\r\n", "plain"},
      {"SMTP<a@b>", "Subject: x\r\n", "b", "Return-Path: <a@b>\r\nSubject: x\r\n\r\nb", "no blank behind the word"},
      {"SMTP<>", "Subject: x\r\n", "b", "Return-Path: <>\r\nSubject: x\r\n\r\nb", "null sender"},
      {"SMTP <@r,@s:\"a>b\"@c> x", "A: x\r\n", "", "Return-Path: <@r,@s:\"a>b\"@c>\r\nA: x\r\n\r\n", "to the last >"},
      {"X400 <>", "A: x\r\n", "", "Return-Path: <>\r\nA: x\r\n\r\n", "null sender of another channel"},
      {"X400 <a@b>", "A: x\r\n", "", "A: x\r\n\r\n", "sender of another channel"},
      {"", "A: x\r\n", "", "A: x\r\n\r\n", "no sender"},
      {"", "sTATUS: R\r\n more\r\n\tand more\r\nA: x\r\n y\r\nX-KEY-digest: k\r\nApparently-to: z\r\nB: c\r\n", "b",
       "A: x\r\n y\r\nB: c\r\n\r\nb", "dropped lines with their continuations, whatever their case"},
      {"", "Statuses: x\r\nX-Status: y\r\nStatus : z\r\n", "", "Statuses: x\r\nX-Status: y\r\nStatus : z\r\n\r\n",
       "only whole names at the start of a line"},
      {"", "A: x\nStatus: y\nB: z", "b\rc\nd", "A: x\nB: z\r\nb\rc\nd", "line ends are kept as they are"},
      {"", "A: x\ry\r\nStatus: z", "", "A: x\ry\r\n\r\n", "a bare CR ends no line"},
  };
  AddAccount("ann");
  for (auto const &test : kCases) {
    std::filesystem::remove_all(Path(Folder("ann")));
    PutMessage("m", "Mailbox-Deliver", {std::string("User-From: ") + test.userFrom, "Deliver-To: Mailbox ann"},
               test.header, test.body);
    EXPECT_EQ(Deliver("m"), kModuleDone);
    EXPECT_EQ(Stored("ann"), Texts{test.want}) << test.why;
  }
}

TEST_F(DeliveryTest, BodiesOfAllSizesArriveByteForByteAndTheSpoolIsEmpty) {
  AddAccount("ann");
  AddAccount("bob");
  for (size_t const size : {size_t{0}, size_t{1}, size_t{65536}, size_t{65537}, size_t{3} << 20}) {
    std::string body(size, '\0');
    for (size_t i = 0; i < size; ++i) body[i] = static_cast<char>(i * 2654435761u >> 13);
    for (char const *uid : {"ann", "bob"}) std::filesystem::remove_all(Path(Folder(uid)));
    PutDelivery("m", {"ann", "bob"}, body);
    EXPECT_EQ(Deliver("m"), kModuleDone);
    EXPECT_TRUE(Stored("ann") == Texts{Plain(body)}) << size;
    EXPECT_TRUE(Stored("bob") == Texts{Plain(body)}) << size;
    EXPECT_EQ(Size("bob"), std::to_string(Plain(body).size()));
    EXPECT_EQ(Files("control").size() + Files("messages").size() + Files("deferred").size(), 0u);
  }
}

TEST_F(DeliveryTest, FilesAreForTheMailGroupWhateverTheUmask) {
  umask(0077);
  AddAccount("ann");
  PutDelivery("m", {"ann"});
  Deliver("m");
  for (std::string const &file : Files(Folder("ann"))) {
    struct stat info;
    ASSERT_EQ(stat(Path(Folder("ann") + file).c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0660u) << file;
  }
  struct stat info;
  ASSERT_EQ(stat(Path(Folder("ann")).c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0770u);
}

TEST_F(DeliveryTest, EachClassOfEntryHasItsOutcomeAndText) {
  AddAccount("ann");
  AddAccount("full", {{"Mailbox-Quota", {"1"}}});
  PutFile(Folder("full") + "__size__", "1024");
  struct {
    Texts entries;
    char const *report, *text;
    Texts open;
    bool deferred;
    char const *why;
  } const kCases[] = {
      {{"Fax 123", "Mailbox ann"},
       "Mailbox-Deliver:DeliverMessage (BadDeliveries)",
       "|Incorrect delivery type: Fax||The following recipients haven't received this message:||     Bad account: 123",
       {"Fax 123"},
       false,
       "another agent's"},
      {{"Mailbox full"},
       "Mailbox-Deliver:DeliverMessage (OverQuota)",
       "|No storage space available in mailbox for full@example.org||The following recipients haven't received this "
       "message:||     full@example.org",
       {"Mailbox full"},
       false,
       "over quota"},
      {{"Mailbox none", "Mailbox ann"},
       "Mailbox-Deliver:DeliverMessage (DeliveryErrors)",
       "|Couldn't get account information: none|Couldn't get account info: none||The following recipients haven't "
       "received this message:||     Bad account: none",
       {"Mailbox none"},
       true,
       "no record: once among the temporary failures though both looks at it failed"},
      {{"Mailbox ../../etc"},
       "Mailbox-Deliver:DeliverMessage (DeliveryErrors)",
       nullptr,
       {"Mailbox ../../etc"},
       true,
       "a name that would leave the tree"},
      {{"Mailbox none", "Mailbox full", "Fax 1", "Mailbox ann"},
       "Mailbox-Deliver:DeliverMessage (DeliveryErrors)",
       nullptr,
       {"Fax 1", "Mailbox full", "Mailbox none"},
       true,
       "what may be retried decides; bad, full, waiting"},
  };
  for (auto const &test : kCases) {
    for (char const *dir : {"control", "deferred"}) std::filesystem::remove_all(Path(dir));
    Texts lines;
    for (std::string const &entry : test.entries) lines.push_back("Deliver-To: " + entry);
    PutMessage("m", "Mailbox-Deliver", lines);
    EXPECT_EQ(Deliver("m"), kModuleDone);
    ASSERT_EQ(Reports(), Texts{test.report}) << test.why;
    if (test.text != nullptr) {
      EXPECT_EQ(Reports(true), Texts{std::string(test.report) + test.text}) << test.why;
    }
    std::string const path = test.deferred ? "deferred/Mailbox-Deliver/m-Control" : "control/m-Control";
    ASSERT_TRUE(Exists(path)) << test.why;
    EXPECT_EQ(Field(path, "Deliver-To:"), test.open) << test.why;
    EXPECT_EQ(Field(path, "Temp-Failures:"), Texts{}) << test.why;
    bool const delivered = std::count(test.entries.begin(), test.entries.end(), "Mailbox ann") > 0;
    EXPECT_EQ(Field(path, "Deliver-To!"), delivered ? Texts{"Mailbox ann"} : Texts{}) << test.why;
    EXPECT_TRUE(Exists("messages/m-Body")) << test.why;
  }
  EXPECT_EQ(CountIn(Folder("full")), 2) << "the refused file is gone again, record and lock are left";
  EXPECT_FALSE(Exists("etc"));
}

TEST_F(DeliveryTest, LaterWalkDeliversTheRestOnceAndReportsOnce) {
  AddAccount("ann");
  PutDelivery("m", {"ann", "late"});
  Deliver("m");
  SMailboxDeliverModule().ProcessQueue();
  EXPECT_EQ(Reports(), Texts{"Mailbox-Deliver:DeliverMessage (DeliveryErrors)"}) << "the second walk found it again";
  AddAccount("late");
  SMailboxDeliverModule().ProcessQueue();
  EXPECT_EQ(Stored("ann"), Texts{Plain()});
  EXPECT_EQ(Stored("late"), Texts{Plain()});
  EXPECT_EQ(Files("messages"), Texts{});
  EXPECT_FALSE(Exists("deferred/Mailbox-Deliver/m-Control"));
}

TEST_F(DeliveryTest, MessageWithoutDeliveriesBecomesAReport) {
  PutMessage("m", "Mailbox-Deliver", {"User-From: SMTP <a@b>"});
  EXPECT_EQ(Deliver("m"), kModuleDone);
  EXPECT_EQ(Reports(true),
            Texts{"Mailbox-Deliver:DeliverMessage (BadControlFile)|No deliveries listed in control file"});
}

// A file of the same name and size counts as the message itself, so two messages with one name would be one message
// lost. Child processes start with the counter of their parent.
TEST_F(DeliveryTest, NamesOfStoredMessagesMeetInNoTwoModulesOrProcesses) {
  constexpr int kNames = 500;
  std::set<std::string> names;
  SMailboxDeliverModule first, second;
  for (int i = 0; i < kNames; ++i)
    for (SMailboxDeliverModule *module : {&first, &second}) names.insert(Text(module->NewMessageID()));
  std::vector<std::unique_ptr<Peer>> children;
  for (std::string const file : {"names1", "names2", "names3"})
    children.push_back(std::make_unique<Peer>([&, file](Peer &) {
      std::string text;
      for (int i = 0; i < kNames; ++i) text += Text(first.NewMessageID()) + "\n";
      PutFile(file, text);
      return 0;
    }));
  for (auto const &child : children) EXPECT_EQ(child->Result(), 0);
  for (char const *file : {"names1", "names2", "names3"}) {
    std::istringstream lines(FileBytes(file));
    for (std::string name; std::getline(lines, name);) names.insert(name);
  }
  EXPECT_EQ(names.size(), 5u * kNames);
}

TEST_F(DeliveryTest, TwoEntriesOfOneAccountAreTwoMessages) {
  AddAccount("ann");
  PutDelivery("m", {"ann", "ann"});
  Deliver("m");
  EXPECT_EQ(Stored("ann"), (Texts{Plain(), Plain()}));
  EXPECT_EQ(Size("ann"), std::to_string(2 * Plain().size()));
}

TEST_F(DeliveryTest, RefusedOwnerOfTheFirstFileKeepsNothing) {
  AddAccount("full", {{"Mailbox-Quota", {"1"}}});
  AddAccount("ann");
  AddAccount("judged", {{"QJ-Judge-Enabled", {"yes"}}});
  PutFile(Folder("full") + "__size__", "1024");
  for (std::string const &body : {std::string("small"), std::string(100000, 'x')}) {
    for (char const *uid : {"ann", "judged"}) std::filesystem::remove_all(Path(Folder(uid)));
    PutDelivery("m", {"full", "ann", "judged"}, body);
    Deliver("m");
    EXPECT_EQ(Stored("full"), Texts{});
    EXPECT_TRUE(Stored("ann") == Texts{Plain(body)});
    EXPECT_TRUE(Stored("judged") == Texts{Plain(body)});
  }
}

TEST_F(DeliveryTest, MoreThanABatchGoesOnInFurtherPasses) {
  AddAccount("ann");
  PutDelivery("m", Texts(SMailboxDeliverModule::kBatch + 1, "ann"));
  PutFile("control/m-Control", FileBytes("control/m-Control") + "Deliver-To: Fax 1\r\n");
  Deliver("m");
  EXPECT_EQ(Stored("ann").size(), static_cast<size_t>(SMailboxDeliverModule::kBatch));
  EXPECT_EQ(Field("control/m-Control", "Deliver-To:"), (Texts{"Mailbox ann", "Fax 1"}));
  Deliver("m");
  EXPECT_EQ(Stored("ann").size(), static_cast<size_t>(SMailboxDeliverModule::kBatch) + 1);
  EXPECT_EQ(Field("control/m-Control", "Deliver-To:"), Texts{"Fax 1"});
  EXPECT_EQ(Reports(), Texts{"Mailbox-Deliver:DeliverMessage (BadDeliveries)"});
}

TEST_F(DeliveryTest, FailuresOfAnEarlierBatchAreSettledInTheLast) {
  AddAccount("ann");
  PutMessage("m", "Mailbox-Deliver", {"Deliver-To: Mailbox ann", "Over-Quota: Mailbox x", "Bad-Deliveries: Fax 1"});
  Deliver("m");
  EXPECT_EQ(Field("control/m-Control", "Deliver-To:"), (Texts{"Fax 1", "Mailbox x"}));
  EXPECT_EQ(Field("control/m-Control", "Over-Quota:"), Texts{});
  EXPECT_EQ(Reports(), Texts{"Mailbox-Deliver:DeliverMessage (OverQuota)"});
}

TEST_F(DeliveryTest, LastBatchThatDeliversNothingKeepsTheFailuresOfEarlierOnes) {
  PutMessage("m", "Mailbox-Deliver",
             {"Deliver-To: Mailbox late", "Temp-Failures: Mailbox later", "Over-Quota: Mailbox full"});
  Deliver("m");
  EXPECT_EQ(Field("deferred/Mailbox-Deliver/m-Control", "Deliver-To:"),
            (Texts{"Mailbox full", "Mailbox later", "Mailbox late"}));
}

TEST_F(DeliveryTest, MissingMessageFilesDeferWithOneReport) {
  AddAccount("ann");
  struct {
    char const *file, *text;
  } const kCases[] = {{"messages/m-Header", "Couldn't open header file: "},
                      {"messages/m-Body", "Couldn't open body file: "}};
  for (auto const &test : kCases) {
    for (char const *dir : {"control", "deferred"}) std::filesystem::remove_all(Path(dir));
    PutDelivery("m", {"ann"});
    std::filesystem::remove(Path(test.file));
    Deliver("m");
    SMailboxDeliverModule().ProcessQueue();
    EXPECT_EQ(Reports(true), Texts{"Mailbox-Deliver:CreateMessageFile (OpenFailed)|" + (test.text + Path(test.file))});
    EXPECT_TRUE(Exists("deferred/Mailbox-Deliver/m-Control"));
    EXPECT_EQ(Stored("ann"), Texts{});
  }
}

TEST_F(DeliveryTest, LinkToAForeignFileIsNeitherDeliveredNorWritten) {
  AddAccount("ann");
  PutFile("secret", "not for ann");
  PutDelivery("m", {"ann"});
  std::filesystem::remove(Path("messages/m-Body"));
  std::filesystem::create_symlink(Path("secret"), Path("messages/m-Body"));
  Deliver("m");
  EXPECT_EQ(Stored("ann"), Texts{});
  EXPECT_TRUE(Exists("deferred/Mailbox-Deliver/m-Control"));

  PutFile(Folder("bob") + "other", "");
  std::filesystem::create_symlink(Path("secret"), Path(Folder("bob") + "__size__"));
  SSizeFile size(Bytes(Path(Folder("bob"))), 0);
  EXPECT_EQ(size.Lock(), 0u);
  EXPECT_EQ(FileBytes("secret"), "not for ann");
}

TEST_F(DeliveryTest, FullDiskDefersWithoutAReport) {
  AddAccount("ann");
  PutDelivery("m", {"ann"});
  setenv("MinFreeDiskSpaceKB", "1e15", 1);
  testing::internal::CaptureStderr();
  Deliver("m");
  EXPECT_NE(testing::internal::GetCapturedStderr().find(":Alert:Disk Full ("), std::string::npos);
  EXPECT_TRUE(Exists("deferred/Mailbox-Deliver/m-Control"));
  EXPECT_EQ(Reports(), Texts{});
  EXPECT_EQ(Stored("ann"), Texts{});
}

// Whatever single call fails, the message is neither lost nor stored twice once the fault is gone, and no folder holds
// half a message.
TEST_F(DeliveryTest, AnySingleFailingCallLosesAndDoublesNothing) {
  AddAccount("ann");
  AddAccount("bob");
  std::string const body(70000, 'b');  // stored by the kernel's copy
  int n = 0;
  for (bool reached = true; reached;) {
    ++n;
    for (char const *dir : {"mailboxes", "control", "deferred", "messages"}) {
      std::filesystem::remove_all(Path(dir));
      std::filesystem::create_directory(Path(dir));
    }
    PutDelivery("m", {"ann", "bob"}, n % 2 ? body : "Hello.\r\n");
    {
      SMailboxDeliverModule module;
      ASSERT_EQ(module.LoadEnv(), 1u);
      SCallHook const hook("", n, ENOSPC);
      testing::internal::CaptureStderr();
      (void)module.ProcessMessageName("m");
      (void)testing::internal::GetCapturedStderr();
      reached = hook.Total() >= n;
    }
    testing::internal::CaptureStderr();
    for (int walk = 0; walk < 3; ++walk) {
      if (Exists("control/m-Control")) Deliver("m");
      SMailboxDeliverModule().ProcessQueue();
    }
    (void)testing::internal::GetCapturedStderr();
    for (char const *uid : {"ann", "bob"}) {
      Texts const stored = Stored(uid);
      ASSERT_GE(stored.size(), 1u) << uid << " lost it, call " << n;
      ASSERT_LE(stored.size(), 1u) << uid << " has it twice, call " << n;
      ASSERT_TRUE(stored.front() == Plain(n % 2 ? body : "Hello.\r\n")) << uid << ", call " << n;
      for (std::string const &file : Files(Folder(uid)))
        ASSERT_TRUE(isdigit(file[0]) || file == "__size__" || file == "__size_lock__") << file << ", call " << n;
    }
  }
  EXPECT_GT(n, 40);
}

TEST_F(DeliveryTest, CopyReplacesItsTargetAndIsIndependent) {
  PutFile("a", "one");
  PutFile("b", "old");
  SMailboxDeliverModule module;
  SStringList files(Bytes(Path("a")));
  ASSERT_EQ(module.CopyOrLink(files, Bytes(Path("b"))), 1u);
  PutFile("a", "two");
  EXPECT_EQ(FileBytes("b"), "one");
  EXPECT_EQ(List(files), (Texts{Path("a"), Path("b")}));
  EXPECT_EQ(module.CopyOrLink(files, Bytes(Path("no/such/dir"))), 0u);
  EXPECT_EQ(files.Length(), 2);
}

TEST_F(DeliveryTest, LogNamesAccountsAndCannotBeForged) {
  Config("Mailbox-Deliver", "Config", "Log", "yes");
  SMailboxDeliverModule module;
  ASSERT_EQ(module.LoadEnv(), 1u);
  testing::internal::CaptureStderr();
  module.LogDelivery("/x/m", ListOf({"Mailbox bob x", "Mailbox ann", "Mailbox bob", "odd\nline"}));
  std::string const line = testing::internal::GetCapturedStderr();
  EXPECT_EQ(line.substr(line.find(':')), ":" + Text(SString(getpid())) + ":m-Mailbox:ann,bob,odd\\x0aline\n");
}

TEST_F(DeliveryTest, OneMailboxIsTwoSyncsAndSoAreMany) {
  setenv("SpoolSync", "auto", 1);
  Texts many;
  for (int i = 0; i < 20; ++i) many.push_back("user" + std::to_string(i));
  for (std::string const &uid : many) {
    AddAccount(uid);
    std::filesystem::create_directories(Path(Folder(uid)));
  }
  struct {
    Texts accounts;
    unsigned long syncs;
  } const kCases[] = {{{"user0"}, 2}, {many, 2}};
  for (auto const &test : kCases) {
    PutDelivery("m", test.accounts);
    unsigned long const before = SSyncBarrier::SyncCount();
    Deliver("m");
    EXPECT_EQ(SSyncBarrier::SyncCount() - before, test.syncs) << test.accounts.size();
  }
}

TEST_F(DeliveryTest, FailedFlushKeepsTheRecipientsToDo) {
  setenv("SpoolSync", "fsync", 1);
  AddAccount("ann");
  std::filesystem::create_directories(Path(Folder("ann")));
  PutDelivery("m", {"ann"});
  {
    SMailboxDeliverModule module;
    ASSERT_EQ(module.LoadEnv(), 1u);
    SCallHook const hook("fsync", 1, EIO);
    EXPECT_EQ(module.ProcessMessageName("m"), kModuleDone);
    EXPECT_EQ(module.Delivered().Length(), 0);
  }
  EXPECT_EQ(Field("deferred/Mailbox-Deliver/m-Control", "Deliver-To:"), Texts{"Mailbox ann"});
  EXPECT_TRUE(Exists("messages/m-Body"));
}

}  // namespace
