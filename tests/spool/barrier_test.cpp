// The barrier of a pass: what a module makes is on disk before its own record of the message goes, shrinks or changes
// hands, with the fewest flushes, and others hear of it only then.
#include <gmock/gmock.h>

#include <cerrno>

#include "brenthaven/spool/keys.h"
#include "tests/spool/spooltest.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class BarrierTest : public SpoolTest {
protected:
  BarrierTest() {
    setenv("SpoolSync", "auto", 1);
    PutControl("c", "Probe");
    PutMessage("c");
  }
  // A copy of the current message for another module.
  SControl Copy(char const *name, char const *module) {
    SControl copy = probe.GetControl();
    copy.PutFilename(name);
    copy[kKeyFunction] = module;
    EXPECT_EQ(probe.GetControl().LinkMessage(name), 1);
    return copy;
  }

  DispatcherEar ear;
  ProbeModule probe;
  CallWatch watch;
};

}  // namespace

TEST_F(BarrierTest, CopyIsOnDiskAndThenAnnouncedBeforeTheOriginalGoes) {
  probe.onMail = [this] {
    SControl copy = Copy("d", "Other");
    EXPECT_EQ(probe.HandOver(copy), 1U);
    EXPECT_EQ(ear.Next(), "");
    EXPECT_EQ(watch.Count("fsync"), 0);
    EXPECT_EQ(probe.CommitBarrier(), 1U);
    EXPECT_EQ(watch.Count("fsync"), 3);  // the control, control/ and messages/: the linked files are old
    EXPECT_EQ(ear.Next(), "d\nkey\nOther\nMail\n1");
    return static_cast<unsigned>(probe.GetControl().RemoveMessage());
  };
  EXPECT_EQ(probe.ProcessMessageName("c"), kModuleDone);
  EXPECT_EQ(watch.Count("fsync"), 3);
  EXPECT_THAT(Files(), ElementsAre("control/d-Control", "messages/d-Body", "messages/d-Header"));
}

TEST_F(BarrierTest, PassOfManyCopiesTakesOneFlush) {
  probe.onMail = [this] {
    for (int i = 0; i < 20; ++i) {
      SControl copy = Copy(("d" + std::to_string(i)).c_str(), "Other");
      EXPECT_EQ(probe.HandOver(copy), 1U);
    }
    return probe.CommitBarrier();
  };
  EXPECT_EQ(probe.ProcessMessageName("c"), kModuleDone);
  EXPECT_EQ(watch.Count("fsync"), 0);
  EXPECT_EQ(watch.Count("syncfs"), 1);
}

TEST_F(BarrierTest, HandingOverTheRecordItselfCommitsFirst) {
  probe.onMail = [this] {
    PutFile("new", "made by this pass");
    probe.GetBarrier().AddFile(Path("new").c_str());
    probe.GetControl()[kKeyFunction] = "Other";
    EXPECT_EQ(probe.HandOver(probe.GetControl()), 1U);
    return 1U;
  };
  EXPECT_EQ(probe.ProcessMessageName("c"), kModuleDone);
  EXPECT_EQ(watch.Count("fsync"), 2);  // what the pass made, then the new text of the record
  EXPECT_LT(watch.Place("open " + Path("new")), watch.Place("rename " + Path("control/c-Control.temp")));
  EXPECT_EQ(ear.Next(), "c\nkey\nOther\nMail\n1");
}

TEST_F(BarrierTest, ModulesWithinAModuleShareItsBarrier) {
  ProbeModule handler("Handler");
  ProbeModule mailbox("Mailbox");
  mailbox.ShareBarrier(handler);
  handler.ShareBarrier(probe);
  PutFile("stored", "message");
  mailbox.onMail = [&] {
    mailbox.GetBarrier().AddFile(Path("stored").c_str());
    mailbox.GetBarrier().AddParentOf(Path("stored").c_str());
    return 1U;
  };
  handler.onMail = [&] { return mailbox.ProcessMailControl(handler.GetControl()); };
  probe.onMail = [&] {
    EXPECT_EQ(handler.ProcessMailControl(probe.GetControl()), 1U);
    EXPECT_EQ(watch.Count("fsync"), 0);
    EXPECT_EQ(probe.CommitBarrier(), 1U);
    return static_cast<unsigned>(probe.GetControl().RemoveMessage());
  };
  EXPECT_EQ(probe.ProcessMessageName("c"), kModuleDone);
  EXPECT_EQ(watch.Count("fsync"), 2);  // the stored file and its directory are all that a delivery costs
}

TEST_F(BarrierTest, FieldsThatSayDoneAreNotWrittenOverAFailedBarrier) {
  std::string const before = FileBytes("control/c-Control");
  probe.onMail = [this] {
    probe.GetBarrier().AddFile(Path("messages/c-Body").c_str());
    probe.GetControl()[kKeyDeliverToDone] = "a";
    watch.FailNth(1, EIO, "fsync");
    return 0U;
  };
  EXPECT_EQ(probe.ProcessMessageName("c"), kModuleDone);
  EXPECT_EQ(FileBytes("deferred/Probe/c-Control"), before);
}

TEST_F(BarrierTest, NoticesLeaveAtTheEndOfAPassThatNeverCommits) {
  probe.onMail = [this] {
    EXPECT_EQ(probe.ProcessError("Small", "Somewhere", "text"), 1U);
    EXPECT_EQ(ear.Next(), "");
    return 1U;
  };
  EXPECT_EQ(probe.ProcessMessageName("c"), kModuleDone);
  EXPECT_THAT(ear.Next(), ::testing::EndsWith("\nkey\nError-Handler\nError\n1"));
}

TEST_F(BarrierTest, PassThatMakesNothingFlushesNothing) {
  probe.onMail = [this] { return static_cast<unsigned>(probe.CommitBarrier() && probe.GetControl().RemoveMessage()); };
  EXPECT_EQ(probe.ProcessMessageName("c"), kModuleDone);
  EXPECT_EQ(watch.Count("fsync") + watch.Count("syncfs"), 0);
  EXPECT_THAT(Files(), IsEmpty());
}
