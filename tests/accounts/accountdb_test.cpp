// The store as a whole: lookups, limits, deletion, other files, other processes, and reads that fail.
#include "brenthaven/accounts/accountdb.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "brenthaven/accounts/auxpassword.h"
#include "brenthaven/accounts/check.h"
#include "brenthaven/store/sdbfile.h"
#include "tests/accounts/support.h"

namespace {

class AccountDBTest : public AccountFixture {};

TEST_F(AccountDBTest, FindsAccountsByWhatACallerHolds) {
  Put("ann", kAttrSmtpAddress, {"Ann@Example.ORG", "a@example.org"});
  Put("ann", kAttrPopAddress, "Ann.Pop");
  Put("ann", kAttrName, "Smith");
  Put("bob", kAttrName, "SMITH");
  Put("bob", kAttrAccountDelivery, {"ann", "carol"});
  Put("bob", kAttrChannelDelivery, "SMTP <Bob@Far.Example>");
  SAccountDB store;
  EXPECT_EQ(Owner("<ann@EXAMPLE.org>"), "ann");
  EXPECT_EQ(Owner("a@example.org"), "ann");
  EXPECT_FALSE(store.GetAccountUID(S821Address("<x@example.org>")).Defined());
  EXPECT_EQ(Text(store.GetAccountUID(SPopName("ann.pop"))), "ann");
  EXPECT_EQ(List(store.GetAccountUID(SAccountName("smith"))), (Texts{"ann", "bob"}));
  EXPECT_EQ(List(store.GetAccountUID(SString("carol"))), Texts{"bob"});
  EXPECT_EQ(List(store.GetAccountUID(SGroupName("smith"))), Texts{});
  EXPECT_EQ(List(store.GetAccountDelUID(S821Address("<bob@far.example>"))), Texts{"bob"});
  EXPECT_EQ(Text(store.GetAccountUID("SMTP", "a@example.org")), "ann");
  EXPECT_FALSE(store.GetAccountUID("smtp", "a@example.org").Defined());
  EXPECT_EQ(List(store.GetNameList()), Texts{"smith"});
  EXPECT_EQ(List(store.IndexLookup("SMTP-Address", "A@example.org")), Texts{"ann"});
  EXPECT_EQ(List(store.IndexLookup("no-such", "x")), Texts{});
  EXPECT_EQ(store.IndexLookupCount("Name", "smith"), 2);
  EXPECT_EQ(store.IndexListCount("SMTP-Address"), 2);
  EXPECT_EQ(List(store.IndexList("POP-Address")), Texts{"ann.pop"});
  SStringList values, uids;
  store.IndexPrefixList("SMTP-Address", "an", &values, &uids);
  EXPECT_EQ(List(values), Texts{"ann@example.org"});
  EXPECT_EQ(List(uids), Texts{"ann"});
  store.IndexRangeList("SMTP-Address", "a", "b", &values, &uids);
  EXPECT_EQ(List(uids), (Texts{"ann", "ann"}));
}

TEST_F(AccountDBTest, ParentDomainsAreFoundBySuffix) {
  Put("ann", kAttrParentDomains, "sub.Example.org");
  SAccountDB store;
  for (char const *domain : {"example.org", "sub.example.org", "ORG"})
    EXPECT_EQ(List(store.IndexLookup(kAttrParentDomains, domain)), Texts{"ann"}) << domain;
  EXPECT_EQ(List(store.IndexLookup(kAttrParentDomains, "ample.org")), Texts{});
}

TEST_F(AccountDBTest, EmptyStoreHasNothingAndThatIsNoFailure) {
  SAccountDB store;
  SAccount account;
  EXPECT_EQ(store.GetAccountInfo("", &account), 0);
  EXPECT_EQ(store.GetAccountInfo("ann", &account), 0);
  EXPECT_EQ(store.AccountUIDCount(), 0);
  EXPECT_EQ(store.ListCount(), 0);
  EXPECT_EQ(Owner("a@example.org"), "");
  EXPECT_EQ(store.GetLocalMailDomains().Length(), 0);
  EXPECT_EQ(SAccountDB::ReadFailed(), 0u);
  EXPECT_FALSE(Exists("config/BTAccounts.a"));
}

TEST_F(AccountDBTest, UniqueValuesBelongToOneAccount) {
  for (int attribute : {kAttrPopAddress, kAttrSmtpAddress, kAttrListName, kAttrRemoteSmtpAddress}) {
    EXPECT_EQ(Put("ann", attribute, "one@example.org"), 1);
    EXPECT_EQ(Put("bob", attribute, "ONE@example.org"), 0) << attribute;
    EXPECT_EQ(Put("ann", attribute, {"two@example.org", "one@example.org"}), 1);
    EXPECT_EQ(Values("bob", attribute), Texts{}) << attribute;
  }
}

TEST_F(AccountDBTest, NewUIDsAreSafeNamesOfDirectories) {
  SString const longest('u', 200);
  SAccountDBMod store;
  for (SString const &uid : {SString(""), SString("."), SString(".."), SString("a/b"), SString("a\\b"),
                             SString("a\0b", 3), SString("a\nb"), SString("a\177"), longest + 'u'})
    EXPECT_EQ(store.ModifyAccount(uid, nullptr), 0) << uid;
  for (SString const &uid : {SString("..."), SString("J\xc3\xbcrgen"), SString("a b"), longest})
    EXPECT_EQ(store.ModifyAccount(uid, nullptr), 1) << uid;
  EXPECT_EQ(store.AccountUIDCount(), 4);
}

TEST_F(AccountDBTest, DeletionTakesEveryMentionAlong) {
  Put("list", kAttrLinkedManagerAccount, "list-manager");
  Put("list", kAttrLinkedOwnerAccount, {"list-owner", "not-there"});
  Put("list", kAttrPassword, "secret");
  Put("list-manager", kAttrName, "m");
  Put("list-owner", kAttrName, "o");
  Put("ann", kAttrSubscribedLists, {"other", "list", "list"});
  Put("ann", kAttrListOwners, "list");
  Put("far", kAttrRemoteSmtpAddress, "far@else.example");
  Put("far", kAttrSubscribedLists, "list");
  Put("all", kAttrAccountDelivery, {"list", "ann"});
  EXPECT_EQ(SAccountDBMod().DeleteAccount("list"), 1);
  for (char const *uid : {"list", "list-manager", "list-owner", "far"}) EXPECT_FALSE(Exists(uid)) << uid;
  EXPECT_EQ(Values("ann", kAttrSubscribedLists), Texts{"other"});
  EXPECT_EQ(Values("ann", kAttrListOwners), Texts{});
  EXPECT_EQ(Values("all", kAttrAccountDelivery), Texts{"ann"});
  EXPECT_FALSE(SAuxPassword().GetPassword("list").Defined());
  EXPECT_EQ(SAccountDBMod().DeleteAccount("list"), 0);
  EXPECT_EQ(SAccountDBMod().DeleteAccount(""), 0);
}

TEST_F(AccountDBTest, CountsAndLimits) {
  Put("l1", kAttrListName, "one");
  Put("All-Mailboxes", kAttrListName, "All-Mailboxes");
  Put("ann", kAttrPopAddress, "ann");
  Sdbfile settings("MTA-Accounts", 1, kProductWord);
  settings.Set("UserLimit", "20");
  settings.Set("ListLimit", "none");
  settings.Set("LocalMailDomains", {"example.org", "example.net"});
  SAccountDB store;
  EXPECT_EQ(store.ListCount(), 1);
  EXPECT_EQ(store.LocalUserCount(), 1);
  EXPECT_EQ(store.GetUserLimit(), 20);
  EXPECT_EQ(store.GetListLimit(), 0);
  EXPECT_EQ(store.GetListSubscriberLimit(), 0);
  EXPECT_EQ(List(store.GetLocalMailDomains()), (Texts{"example.org", "example.net"}));
  settings.Set("LocalMailDomains", "changed.example");
  EXPECT_EQ(List(store.GetLocalMailDomains()), Texts{"changed.example"}) << "read at each call";
}

TEST_F(AccountDBTest, OtherFilesWaitForTheEndOfTheWriteSection) {
  Put("ann", kAttrName, "Ann");
  {
    SAccountDBMod outer;
    SAccountDBMod().ReOpenDB("Other.");
    EXPECT_EQ(outer.GetAccountInfo("ann", nullptr), 1);
    EXPECT_EQ(outer.ModifyAccount("bob", nullptr), 1) << "still in the old files, whose lock is held";
  }
  EXPECT_FALSE(Exists("ann"));
  Put("carol", kAttrName, "Carol");
  EXPECT_TRUE(ScratchSpool::Exists("config/Other.a"));
  SAccountDBMod().ReOpenDB("");
  EXPECT_TRUE(Exists("bob"));
  EXPECT_FALSE(Exists("carol"));
}

TEST_F(AccountDBTest, BackupCopiesBothFiles) {
  Put("ann", kAttrSmtpAddress, "ann@example.org");
  EXPECT_EQ(SAccountDB().BackupDB("", ".index"), 1u);
  EXPECT_EQ(FileBytes("config/BTAccounts.a.backup"), FileBytes("config/BTAccounts.a"));
  EXPECT_EQ(FileBytes("config/BTAccounts.i.index"), FileBytes("config/BTAccounts.i"));
}

TEST_F(AccountDBTest, FailedReadIsToldFromAbsence) {
  Put("ann", kAttrSmtpAddress, "ann@example.org");
  PutFile("config/BTAccounts.i", std::string(32768, 'x'));
  EXPECT_EQ(Owner("ann@example.org"), "");
  EXPECT_EQ(SAccountDB::ReadFailed(), 1u);
  SAccountDB::ClearReadFailed();
  EXPECT_EQ(SAccountDB::ReadFailed(), 0u);
  EXPECT_EQ(Values("ann", kAttrSmtpAddress), Texts{"ann@example.org"});
  EXPECT_EQ(SAccountDB::ReadFailed(), 0u) << "the other file is sound";
}

// A copy that was put back under the usual umask.
TEST_F(AccountDBTest, FilesThatOthersCanReadAreUnreadableNotEmpty) {
  Put("ann", kAttrSmtpAddress, "ann@example.org");
  for (char const *file : {"config/BTAccounts.a", "config/BTAccounts.i"}) {
    ASSERT_EQ(chmod(Path(file).c_str(), 0664), 0);
    testing::internal::CaptureStderr();
    EXPECT_TRUE(Owner("ann@example.org").empty() || !Exists("ann")) << file;
    EXPECT_EQ(SAccountDB::ReadFailed(), 1u) << file;
    EXPECT_EQ(Put("bob", kAttrSmtpAddress, "bob@example.org"), 0) << file;
    EXPECT_TRUE(CheckAccountFiles([](SString const &) {}).readFailed) << file;
    EXPECT_NE(testing::internal::GetCapturedStderr().find(std::string(file) + " is open to others"), std::string::npos);
    ASSERT_EQ(chmod(Path(file).c_str(), 0640), 0);
    SAccountDB::ClearReadFailed();
    EXPECT_EQ(Owner("ann@example.org"), "ann") << file;
    EXPECT_EQ(SAccountDB::ReadFailed(), 0u) << file;
  }
  EXPECT_FALSE(Exists("bob"));
}

// Readers that live long see each account as soon as its writer says that it is there, while the writer goes on.
TEST_F(AccountDBTest, ReadersFollowAWriterInAnotherProcess) {
  constexpr int kAccounts = 100;
  constexpr int kReaders = 4;
  auto const address = [](int i) { return SString("user") + MakeSString(i) + "@example.org"; };
  auto const readAlong = [&](int pipeEnd) {
    SAccountDB store;
    char told;
    for (int i = 0; i < kAccounts; ++i) {
      if (read(pipeEnd, &told, 1) != 1) return 1;
      if (store.AccountUIDCount() <= i || SAccountDB::ReadFailed() != 0) return 2;
      if (!store.GetAccountUID("SMTP", address(i)).Defined()) return 3;
    }
    return 0;
  };
  std::vector<pid_t> readers;
  std::vector<int> tell;
  for (int i = 0; i < kReaders; ++i) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    pid_t const child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) _exit(readAlong(ends[0]));
    close(ends[0]);
    readers.push_back(child);
    tell.push_back(ends[1]);
  }
  for (int i = 0; i < kAccounts; ++i) {
    {
      SAccountDBMod store;
      SAccountMod account;
      EXPECT_EQ(store.ModifyAccount(SString("u") + MakeSString(i), &account), 1);
      EXPECT_EQ(account.Set(kAttrSmtpAddress, address(i)), 1);
    }
    for (int pipeEnd : tell) EXPECT_EQ(write(pipeEnd, "!", 1), 1);
  }
  for (pid_t reader : readers) {
    int status = -1;
    ASSERT_EQ(waitpid(reader, &status, 0), reader);
    EXPECT_EQ(status, 0);
  }
}

}  // namespace
