#include "brenthaven/platform/files.h"
#include "tests/mailbox/mail_fixture.h"
#include "tests/store/process.h"

namespace {

class MailboxPathTest : public MailTest {};

TEST_F(MailboxPathTest, HashIsBytesTimes33In32UnsignedBits) {
  struct {
    char const *text;
    int count, want;
  } const kCases[] = {
      {"", 500, 0},
      {"a", 500, 97},
      {"ab", 500, 299},
      {"abc", 10, 6},
      {"\xff\xff\xff\xff\xff\xff\xff\xff", 500, 336},
      {"a quite long name, past 32 bits", 500, 445},
      {"anything", 1, 0},
      {"anything", 0, 0},
      {"anything", -4, 0},
  };
  for (auto const &test : kCases) EXPECT_EQ(BucketHash(test.text, test.count), test.want) << test.text << test.count;
}

TEST_F(MailboxPathTest, BucketsAre500UnlessTheEnvironmentSays) {
  EXPECT_EQ(Text(GetMailboxSubpath("abc")), "466/abc");
  for (char const *unset : {"0", "many", ""}) {
    setenv("MailboxBucketCount", unset, 1);
    EXPECT_EQ(MailboxHash("abc"), 466) << unset;
  }
  setenv("MailboxBucketCount", "10.9", 1);
  EXPECT_EQ(Text(GetMailboxSubpath("abc")), "6/abc");
}

class RequestTest : public MailTest {
protected:
  // The answered request's fields behind the question, as they stand in its file; the asker is not there any more.
  std::string Ask(std::string const &type, std::string const &account) {
    PutFile("control/q-Control",
            "Function: Mailbox-Deliver\r\nControl-Type: Request\r\nReturn-Path: 9\r\n"
            "Request-Type: " +
                type + "\r\nAccount-To: " + account + "\r\n");
    EXPECT_EQ(Deliver("q"), kModuleDone);
    std::string const text = Exists("control/q-Control") ? FileBytes("control/q-Control") : "(removed)";
    size_t const start = text.find("Account-To: " + account + "\r\n");
    return start == std::string::npos ? text : text.substr(start + 14 + account.size());
  }
  static constexpr char kTrace[] = "Trace: Mailbox-Deliver\r\n";
};

TEST_F(RequestTest, DeletionAnswersForEveryStateOfTheMailbox) {
  Config("Mailbox-Deliver", "Config", "Log", "yes");
  PutFile(Folder("ann") + "1", "mail");
  PutFile(Folder("ann") + "__size__", "4");
  PutFile(Folder("bob") + "1", "mail");
  PutFile(Folder("bob") + "__lock__", "");
  PutFile("victim/1", "mail");
  testing::internal::CaptureStderr();
  EXPECT_EQ(Ask("DeleteAccount", "ann"), std::string("Account-To! ann\r\n") + kTrace);
  EXPECT_EQ(Ask("DeleteAccount", "ann"), std::string("Account-To! ann\r\n") + kTrace) << "gone already";
  EXPECT_EQ(Ask("DeleteAccount", ""), std::string("Error-Text: Mailbox was already deleted\r\n") + kTrace);
  std::string const failed = std::string("Error-Text: One or more message files couldn't be removed\r\n") + kTrace;
  EXPECT_EQ(Ask("DeleteAccount", "../../victim"), failed);
  EXPECT_EQ(Ask("DeleteAccount", ".."), failed);
  void *lock = LockFile(Bytes(Path(Folder("bob") + "__lock__")), 0, 0, 1);
  EXPECT_EQ(Ask("DeleteAccount", "bob"), failed) << "a client reads the mailbox";
  CloseFile(lock);
  std::string const log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find(":AccountDeleted:ann\n"), std::string::npos);
  EXPECT_NE(log.find("\ndeleteMailbox error : 6\n"), std::string::npos);
  EXPECT_EQ(Stored("bob"), Texts{"mail"});
  EXPECT_EQ(FileBytes("victim/1"), "mail");
  EXPECT_FALSE(Exists(Folder("ann")));
  EXPECT_EQ(Ask("DeleteAccount", "bob"), std::string("Account-To! bob\r\n") + kTrace);
}

TEST_F(RequestTest, OtherRequestsAreAnsweredAndSizesCountedWithoutAnAnswer) {
  EXPECT_EQ(Ask("DeleteDelivery", "ann"), kTrace);
  EXPECT_EQ(Ask("Dance", "ann"), kTrace);
  AddAccount("ann");
  AddAccount("nobox");
  PutFile(Folder("ann") + "1", "mail");
  EXPECT_EQ(Ask("ComputeSizes", "ann"), "(removed)");
  EXPECT_EQ(Size("ann"), "4");
  EXPECT_FALSE(Exists(Folder("nobox")));
}

}  // namespace
