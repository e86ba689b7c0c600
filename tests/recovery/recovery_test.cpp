#include "brenthaven/recovery/recovery.h"

#include <fcntl.h>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/accounts/check.h"
#include "brenthaven/accounts/repair.h"
#include "brenthaven/platform/sys.h"
#include "brenthaven/spool/control.h"
#include "brenthaven/spool/keys.h"
#include "tests/platform/callhook.h"
#include "tests/store/process.h"
#include "tests/support/scratch.h"

namespace {

class RecoveryTest : public ScratchSpool {
protected:
  void PutControl(std::string const &path, char const *function, char const *type = kTypeMail) {
    PutFile(path, std::string("Function: ") + function + "\r\nControl-Type: " + type + "\r\nUser-From: SMTP<a@b>\r\n");
  }
  void PutMessage(std::string const &name) {
    PutFile("messages/" + name + "-Header", "Subject: " + name + "\r\n");
    PutFile("messages/" + name + "-Body", name + "\r\n");
  }
  // As if the file had been there for that long.
  void MakeOld(std::string const &path, long seconds) {
    struct timespec const then = {time(nullptr) - seconds, 0};
    struct timespec const times[] = {then, then};
    ASSERT_EQ(utimensat(AT_FDCWD, Path(path).c_str(), times, 0), 0);
  }
  SRecoveryReport Recover() {
    SRecoveryScope scope;
    scope.log = [this](std::string const &line) { log += line + "\n"; };
    return RecoverSpool(scope);
  }

  std::string log;
};

TEST_F(RecoveryTest, ACleanSpoolIsLeftAsItIs) {
  PutControl("deferred/SMTP-Router/a-Control", "SMTP-Router");
  PutMessage("a");
  PutControl("control/held/b-Control", "SMTP-Router");
  PutMessage("b");
  PutControl("control/failed/c-Control", "SMTP-Router");
  PutFile("List-Exploder/approval/d-Control", "Function: List-Exploder\r\n");
  PutMessage("d");
  EXPECT_TRUE(Recover().IsClean()) << log;
  EXPECT_TRUE(Exists("control/failed/c-Control"));
  EXPECT_TRUE(Exists("messages/d-Body"));
}

TEST_F(RecoveryTest, WhatStrandedInControlGoesBackIntoTheFlow) {
  PutControl("control/whole-Control", "SMTP-Router");
  PutMessage("whole");
  PutControl("control/record-Control", "Error-Handler", kTypeError);  // has no message and needs none
  SRecoveryReport const report = Recover();
  EXPECT_EQ(report.requeued, 2) << log;
  EXPECT_EQ(report.Total(), 2) << log;
  EXPECT_TRUE(Exists("deferred/SMTP-Router/whole-Control"));  // no dispatcher could be told
  EXPECT_TRUE(Exists("deferred/Error-Handler/record-Control"));
  EXPECT_EQ(CountIn("control"), 0);
}

TEST_F(RecoveryTest, HalfAMessageIsReportedNeverDroppedInSilence) {
  for (char const *name : {"body", "header"}) {
    PutControl(std::string("control/") + name + "-Control", "Account-Handler");
    PutMessage(name);
  }
  std::filesystem::remove(Path("messages/body-Body"));
  std::filesystem::remove(Path("messages/header-Header"));
  EXPECT_EQ(Recover().reported, 2) << log;
  for (char const *name : {"body", "header"}) {
    SControl control((SString(name)));
    ASSERT_NE(control.Read(), 0);
    EXPECT_EQ(control.Get(kKeyFunction).Get(0), kModuleErrorHandler);
    EXPECT_EQ(control.Get(kKeyUserFrom).Get(0), "SMTP<a@b>");
    EXPECT_NE(control.Get(kKeyErrorText).Get(0).Index("File: "), -1);
  }
  log.clear();
  EXPECT_EQ(Recover().reported, 0) << log;
}

TEST_F(RecoveryTest, WhatCanDoNothingIsSetAsideAndOnlyCopiesInTheMakingAreRemoved) {
  PutFile("control/empty-Control", "");
  PutFile("control/noise-Control", std::string("\0\0\0\0", 4));
  PutControl("control/alone-Control", "SMTP-Router");
  PutControl("control/asked-Control", "SMTP-Router", kTypeRequest);
  PutFile("lost/empty-Control", "an earlier one");
  for (char const *temporary : {"control/a-Control.temp", "messages/a-Header.temp", "deferred/M/b-Control.temp",
                                "deferred/M/host/c-Control.temp", "listdata/news.new"})
    PutFile(temporary, "half");
  PutFile("listdata/busy.new", "half");
  int const lock = open(Path("listdata/busy.lock").c_str(), O_RDWR | O_CREAT, 0660);
  ASSERT_EQ(sys::Lock(lock, F_WRLCK, 0, 1, false), 0);
  PutFile("listdata/news", "state");

  SRecoveryReport const report = Recover();
  EXPECT_EQ(report.lost, 3) << log;
  EXPECT_EQ(report.removed, 6) << log;
  EXPECT_EQ(FileBytes("lost/empty-Control"), "an earlier one");
  EXPECT_TRUE(Exists("lost/empty-Control.1"));
  EXPECT_TRUE(Exists("lost/noise-Control"));
  EXPECT_TRUE(Exists("lost/alone-Control"));
  EXPECT_EQ(CountIn("control"), 0);
  EXPECT_TRUE(Exists("listdata/busy.new"));
  EXPECT_EQ(FileBytes("listdata/news"), "state");
  close(lock);
}

// What a walk would take up for ever, or leave in control/ for ever.
TEST_F(RecoveryTest, WhatAQueueCanNeverBeRidOfIsTakenOutOfIt) {
  PutFile("deferred/SMTP-Router/empty-Control", "");
  PutFile("deferred/SMTP-Deliver/host/zeros-Control", std::string(300, '\0'));
  PutControl("deferred/Mailbox-Deliver/alone-Control", "Mailbox-Deliver");
  PutControl("deferred/Mailbox-Deliver/half-Control", "Mailbox-Deliver");
  PutFile("messages/half-Body", "half");
  PutControl("deferred/Mailbox-Deliver/good-Control", "Mailbox-Deliver");
  PutMessage("good");
  PutControl("deferred/Held/record-Control", "Error-Handler");
  PutFile("List-Exploder/daily/news.new", "half");
  SRecoveryReport const report = Recover();
  EXPECT_EQ(report.lost, 3) << log;
  EXPECT_EQ(report.reported, 1) << log;
  EXPECT_EQ(report.removed, 1) << log;
  for (char const *name : {"empty", "zeros", "alone"})
    EXPECT_TRUE(Exists("lost/" + std::string(name) + "-Control")) << name;
  EXPECT_TRUE(Exists("deferred/Mailbox-Deliver/good-Control"));
  EXPECT_TRUE(Exists("deferred/Held/record-Control"));
  SControl record("half");
  ASSERT_NE(record.Read(), 0);
  EXPECT_EQ(record.Get(kKeyFunction).Get(0), kModuleErrorHandler);
}

TEST_F(RecoveryTest, OnlyOldMessageFilesWithoutAControlAreOrphans) {
  for (char const *name : {"young", "old", "waits"}) PutMessage(name);
  PutControl("deferred/SMTP-Deliver/host/waits-Control", "SMTP-Deliver");
  EXPECT_EQ(Recover().orphans, 0) << log;
  // The change time of a file can't be set, so that no file of this test is ever old enough; the rule is about both.
  MakeOld("messages/old-Header", 2 * kOrphanSeconds);
  EXPECT_EQ(Recover().orphans, 0) << log;
}

TEST_F(RecoveryTest, WhatCannotBeReadNowIsLeftWhereItIs) {
  for (char const *call : {"opendir", "readdir", "lstat", "open", "pread"})
    for (int number = 1; number <= 12; ++number) {
      PutControl("control/whole-Control", "SMTP-Router");
      PutMessage("whole");
      PutControl("deferred/SMTP-Deliver/host/waits-Control", "SMTP-Deliver");
      PutMessage("waits");
      {
        SCallHook hook(call, number, EIO);
        SRecoveryScope scope;
        scope.requeue = false;
        (void)RecoverSpool(scope);
      }
      EXPECT_TRUE(Exists("control/whole-Control")) << call << number;
      for (char const *file : {"whole-Header", "whole-Body", "waits-Header", "waits-Body"})
        EXPECT_TRUE(Exists(std::string("messages/") + file)) << call << number << file;
    }
}

TEST_F(RecoveryTest, AHostDirectoryThatWasMovedIntoControlIsEmptiedIntoTheQueues) {
  PutControl("control/example.org/a-Control", "SMTP-Deliver");
  PutFile("control/example.org/b-Control", "");
  SRecoveryReport const report = Recover();
  EXPECT_EQ(report.returned, 2) << log;
  EXPECT_TRUE(Exists("deferred/SMTP-Deliver/a-Control"));
  EXPECT_TRUE(Exists("lost/b-Control"));
  EXPECT_FALSE(Exists("control/example.org"));
}

TEST_F(RecoveryTest, ADispatcherTouchesNeitherYoungFilesNorThoseAtWork) {
  PutFile("control/empty-Control", "");
  PutFile("control/a-Control.temp", "half");
  SRecoveryScope scope;
  scope.quietSeconds = 600;
  EXPECT_TRUE(RecoverSpool(scope).IsClean());
  scope.quietSeconds = 0;
  scope.wholeSpool = false;
  scope.isBusy = [](std::string const &name) { return name == "empty"; };
  EXPECT_EQ(RecoverSpool(scope).Total(), 1);
  EXPECT_TRUE(Exists("control/empty-Control"));
}

TEST_F(RecoveryTest, ItMayEndAnywhereAndIsDoneAgain) {
  for (int number = 1, ended = -1; ended != 0; ++number) {
    for (char const *directory : {"control", "messages", "deferred", "lost"})
      std::filesystem::remove_all(Path(directory));
    for (char const *directory : {"control", "messages", "deferred"})
      std::filesystem::create_directory(Path(directory));
    PutControl("control/whole-Control", "SMTP-Router");
    PutMessage("whole");
    PutControl("control/half-Control", "SMTP-Router");
    PutFile("messages/half-Body", "half");
    PutFile("control/empty-Control", "");
    PutFile("control/x-Control.temp", "half");
    Peer child([&](Peer &) {
      SCallHook hook("", number, SCallHook::kCrash);
      RecoverSpool({});
      return 0;
    });
    ended = child.Result();
    (void)Recover();
    ASSERT_TRUE(Exists("deferred/SMTP-Router/whole-Control")) << "call " << number << "\n" << log;
    ASSERT_EQ(FileBytes("messages/whole-Body"), "whole\r\n");
    ASSERT_TRUE(Exists("control/half-Control") || Exists("deferred/Error-Handler/half-Control")) << "call " << number;
    ASSERT_TRUE(Exists("lost/empty-Control")) << "call " << number;
    ASSERT_FALSE(Exists("control/x-Control.temp"));
  }
}

class RepairTest : public RecoveryTest {
protected:
  static constexpr int kAccounts = 300;

  void MakeAccounts() {
    SAccountDBMod db;
    for (int i = 0; i < kAccounts; ++i) {
      SString const uid = "user" + MakeSString(i);
      SAccountMod account;
      ASSERT_NE(db.ModifyAccount(uid, &account), 0);
      ASSERT_NE(account.Set("SMTP-Address", {"<" + uid + "@example.org>"}), 0);
      ASSERT_NE(account.Set("AutoReply-Info", {"User " + MakeSString(i), SString('x', i % 7 == 0 ? 20000 : 10)}), 0);
    }
    SAccountMod model;
    ASSERT_NE(db.ModifyAccount("Default", &model), 0);
    ASSERT_NE(model.Set("SMTP-Address", {"<nobody@example.org>"}), 0);
  }
  static int Readable() {
    int good = 0;
    for (int i = 0; i < kAccounts; ++i) {
      SString const uid = "user" + MakeSString(i);
      SAccount account;
      if (SAccountDB().GetAccountUID(S821Address("<" + uid + "@example.org>")) == uid &&
          SAccountDB().GetAccountInfo(uid, &account) != 0 &&
          account.Get("AutoReply-Info").Get(1).Length() == (i % 7 == 0 ? 20000 : 10))
        ++good;
    }
    return good;
  }
  // With zeros in half of the first leaf that is not the root.
  static std::string WithTornPage(std::string bytes) {
    size_t torn = 0;
    for (size_t at = 2 * 16384; at < bytes.size() && torn == 0; at += 16384)
      if ((bytes[at + 12] & 0x1f) == 2) torn = at;
    EXPECT_NE(torn, 0u);
    return bytes.replace(torn, 8192, std::string(8192, '\0'));
  }
  static long Faults() {
    SAccountCheck const check = CheckAccountFiles([](SString const &) {});
    return check.readFailed ? -1 : check.faults;
  }
};

TEST_F(RepairTest, ALostIndexIsMadeAnewFromTheAttributes) {
  MakeAccounts();
  ASSERT_EQ(Readable(), kAccounts);
  std::filesystem::remove(Path("config/BTAccounts.i"));
  SAccountRepair const repair = RepairAccountFiles();
  EXPECT_TRUE(repair.done);
  EXPECT_FALSE(repair.salvaged);
  EXPECT_EQ(repair.accounts, kAccounts + 1);
  EXPECT_EQ(repair.dropped, 0);
  EXPECT_EQ(Faults(), 0);
  EXPECT_EQ(Readable(), kAccounts);
  EXPECT_FALSE(SAccountDB().GetAccountUID(S821Address("<nobody@example.org>")).Defined());
}

TEST_F(RepairTest, RecoveryMakesAnIndexAnewThatDoesNotFollowFromTheAccounts) {
  MakeAccounts();
  std::string const old = FileBytes("config/BTAccounts.i");
  {
    SAccountDBMod db;
    SAccountMod account;
    for (int i = 0; i < kAccounts; ++i) {
      ASSERT_NE(db.ModifyAccount("user" + MakeSString(i), &account), 0);
      ASSERT_NE(account.Set("SMTP-Address",
                            {"<user" + MakeSString(i) + "@example.org>", "<u" + MakeSString(i) + "@example.org>"}),
                0);
    }
  }
  for (std::string const &index : {std::string(), old, old.substr(0, old.size() - 16384)}) {
    SCOPED_TRACE(index.size());
    PutFile("config/BTAccounts.i", index);
    SRecoveryReport const report = Recover();
    EXPECT_EQ(report.repaired, 1) << log;
    EXPECT_FALSE(report.accountsFailed);
    EXPECT_EQ(Faults(), 0);
    EXPECT_EQ(Readable(), kAccounts);
    EXPECT_TRUE(Recover().IsClean()) << log;
  }
}

TEST_F(RepairTest, RecoveryTakesNothingFromADamagedAttributeFile) {
  MakeAccounts();
  std::string const whole = FileBytes("config/BTAccounts.a");
  for (std::string const &bytes : {std::string(), WithTornPage(whole), whole.substr(0, whole.size() - 16384)}) {
    SCOPED_TRACE(bytes.size());
    PutFile("config/BTAccounts.a", bytes);
    int const files = CountIn("config");
    SRecoveryReport const report = Recover();
    EXPECT_TRUE(report.accountsFailed);
    EXPECT_EQ(report.repaired, 0);
    EXPECT_EQ(FileBytes("config/BTAccounts.a"), bytes);
    EXPECT_EQ(CountIn("config"), files);
  }
}

TEST_F(RepairTest, AnAttributeFileWithATornPageKeepsAllOtherRecords) {
  MakeAccounts();
  std::string const bytes = WithTornPage(FileBytes("config/BTAccounts.a"));
  PutFile("config/BTAccounts.a", bytes);
  ASSERT_NE(Faults(), 0);
  SAccountRepair const repair = RepairAccountFiles();
  EXPECT_TRUE(repair.done);
  EXPECT_TRUE(repair.salvaged);
  EXPECT_EQ(FileBytes("config/BTAccounts.a.damaged"), bytes);
  EXPECT_EQ(Faults(), 0);
  SAccountBase::ClearReadFailed();
  EXPECT_GT(Readable(), kAccounts / 2);
  EXPECT_EQ(SAccountBase::ReadFailed(), 0u);
}

TEST_F(RepairTest, AChangeThatWasDecidedIsPartOfTheRepairedFiles) {
  MakeAccounts();
  Peer child([](Peer &) {
    SCallHook hook("pwrite", 4, SCallHook::kCrash);  // behind the journal, among the pages
    SAccountDBMod db;
    SAccountMod account;
    for (int i = 0; i < kAccounts; ++i)
      if (db.ModifyAccount("user" + MakeSString(i), &account)) account.Set("Finger-Info", {"new"});
    return 0;
  });
  ASSERT_EQ(child.Result(), SCallHook::kCrashCode);
  SAccountRepair const repair = RepairAccountFiles();
  EXPECT_TRUE(repair.done);
  EXPECT_FALSE(repair.salvaged);
  SAccount account;
  ASSERT_NE(SAccountDB().GetAccountInfo("user7", &account), 0);
  EXPECT_EQ(account.Get("Finger-Info").Get(0), "new");
  EXPECT_EQ(Readable(), kAccounts);
}

TEST_F(RepairTest, TheDamagedFilesOfAnEarlierRepairStay) {
  MakeAccounts();
  PutFile("config/BTAccounts.a.damaged", "the first");
  ASSERT_TRUE(RepairAccountFiles().done);
  EXPECT_EQ(FileBytes("config/BTAccounts.a.damaged"), "the first");
  EXPECT_TRUE(Exists("config/BTAccounts.a.damaged.1"));
  PutFile("config/BTAccounts.a", std::string(3 * 16384, 'x'));
  EXPECT_FALSE(RepairAccountFiles().done) << "nothing is put in the place of a file that nothing can be read from";
}

TEST_F(RepairTest, ACommitThatFailsIsToldAndChangesNothing) {
  MakeAccounts();
  setenv("SpoolSync", "fsync", 1);
  SAccountDBMod db;
  SAccountMod account;
  ASSERT_NE(db.ModifyAccount("user7", &account), 0);
  ASSERT_NE(account.Set("Finger-Info", {"new"}), 0);
  {
    SCallHook hook("fdatasync", 1, EIO);
    EXPECT_EQ(db.Commit(), 0u);
  }
  EXPECT_NE(SAccountBase::WriteFailed(), 0u);
  EXPECT_EQ(account.Get("Finger-Info").Length(), 0);
  ASSERT_NE(account.Set("Finger-Info", {"again"}), 0);
  EXPECT_EQ(db.Commit(), 1u);
}

TEST_F(RepairTest, DeletedAccountsStayDeleted) {
  MakeAccounts();
  {
    SAccountDBMod db;
    for (int i = 0; i < kAccounts; i += 2) ASSERT_NE(db.DeleteAccount("user" + MakeSString(i)), 0);
  }
  SAccountRepair const repair = RepairAccountFiles();
  EXPECT_TRUE(repair.done);
  EXPECT_EQ(repair.accounts, kAccounts / 2 + 1);
  EXPECT_EQ(Readable(), kAccounts / 2);
  EXPECT_EQ(Faults(), 0);
}

}  // namespace
