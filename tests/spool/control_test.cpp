#include "brenthaven/spool/control.h"

#include <gmock/gmock.h>

#include <cerrno>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/platform/mapped.h"
#include "brenthaven/spool/keys.h"
#include "tests/spool/spooltest.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

class ControlTest : public SpoolTest {
protected:
  ControlTest() { control.SetModuleName("Probe"); }
  SControl control;
};

}  // namespace

TEST_F(ControlTest, NameOrPathTellsTheFile) {
  control.PutFilename("abc");
  EXPECT_EQ(Str(control.GetControlFilename()), Path("control/abc-Control"));
  EXPECT_EQ(Str(control.GetFilename()), "abc");
  control.PutFilename("/x/abc-Control");
  EXPECT_EQ(Str(control.GetControlFilename()), "/x/abc-Control");
  EXPECT_EQ(Str(control.GetFilename()), "abc");
  EXPECT_EQ(Str(control.GetHeaderFilename()), Path("messages/abc-Header"));
  EXPECT_EQ(Str(control.GetBodyFilename()), Path("messages/abc-Body"));
}

TEST_F(ControlTest, TrailingSlashOfTheRootIsDoubledInAControlAndNotInAModules) {
  setenv("Brenthaven", (root + "/").c_str(), 1);
  SControl raw("abc");
  EXPECT_EQ(Str(raw.GetControlFilename()), root + "//control/abc-Control");
  ProbeModule module;
  raw.SetModule(&module);
  raw.PutFilename("abc");
  EXPECT_EQ(Str(raw.GetControlFilename()), root + "/control/abc-Control");
  EXPECT_EQ(Str(raw.GetHeaderFilename()), root + "//messages/abc-Header");
}

TEST_F(ControlTest, TraceStandsBehindAllOtherFieldsAndCountsThisModule) {
  control[kKeyTrace] = "Probe";
  control[kKeyUserFrom] = "SMTP<>";
  control.SetModuleName("Other");
  control.AddTrace();
  control.SetModuleName("Probe");
  control.AddTrace();
  EXPECT_THAT(Strs(control.Keys()), ElementsAre("User-From:", "Trace:"));
  EXPECT_EQ(control.GetTraceCount(), 2);
  EXPECT_THAT(Strs(control.Get(kKeyTrace)), ElementsAre("Probe", "Other", "Probe"));
}

TEST_F(ControlTest, KeyThatWouldReadBackAsAnotherIsRefused) {
  for (char const *key : {"Two words:", "To:\r\nFunction:", "a\nb:", "a\rb:"}) {
    SCOPED_TRACE(key);
    SControl bad("bad");
    bad[key] = "x";
    EXPECT_EQ(bad.Write(), 0);
    EXPECT_EQ(CountIn("control"), 0);
  }
}

TEST_F(ControlTest, DeferralGoesUnderHostAndCount) {
  struct Case {
    char const *why, *host;
    int count;  // -1: without one
    char const *want;
  };
  Case const cases[] = {
      {"no host: the module's directory", "", -1, "deferred/Probe/c-Control"},
      {"no host: the count is lost", "", 3, "deferred/Probe/c-Control"},
      {"a host is a directory", "h.example", -1, "deferred/Probe/h.example/c-Control"},
      {"a count stands behind it", "h.example", 3, "deferred/Probe/h.example,3/c-Control"},
  };
  for (auto const &[why, host, count, want] : cases) {
    SCOPED_TRACE(why);
    SControl waiting("c");
    waiting.SetModuleName("Probe");
    if (*host != '\0') waiting[kKeyHostTo] = host;
    ASSERT_EQ(waiting.Write(), 1);
    EXPECT_EQ(count < 0 ? waiting.Defer() : waiting.Defer(count), 1);
    EXPECT_TRUE(Exists(want));
    EXPECT_FALSE(Exists("control/c-Control"));
  }
}

TEST_F(ControlTest, HostThatLeadsElsewhereIsDeferredInItsPlaceAndKept) {
  struct Case {
    std::string host, directory;
  };
  Case const cases[] = {{"..", "_."},
                        {".", "_"},
                        {"../../control", "_._.._control"},
                        {"a/../../x", "a_.._.._x"},
                        {"a\\b", "a_b"},
                        {std::string("a\0b", 3), "a_b"},
                        {std::string(300, 'h'), std::string(200, 'h')}};
  for (auto const &[host, directory] : cases) {
    SCOPED_TRACE(host);
    SControl waiting("c");
    waiting.SetModuleName("Probe");
    waiting[kKeyHostTo] = SString(host);
    for (std::string const &count : {std::string(), std::string(",7")}) {
      std::string const place = "deferred/Probe/" + directory + count + "/c-Control";
      ASSERT_EQ(waiting.Write(), 1);
      EXPECT_EQ(count.empty() ? waiting.Defer() : waiting.Defer(7), 1);
      SControl read;
      ASSERT_EQ(read.Read(SString(Path(place))), 1) << place;
      EXPECT_EQ(Str(read.Get(kKeyHostTo).Get(0)), host);
      std::filesystem::remove(Path(place));
    }
  }
}

// A link that somebody has put in the place of a message's file must not bring another file to a reader of mail.
TEST_F(ControlTest, SymbolicLinkIsNoFileOfAMessage) {
  PutFile("secret", "Function: Probe\r\n");
  for (char const *file : {"control/m-Control", "messages/m-Header", "messages/m-Body"})
    std::filesystem::create_symlink(Path("secret"), Path(file));
  control.PutFilename("m");
  EXPECT_EQ(control.Read(), 0);
  EXPECT_EQ(errno, ELOOP);
  SHeader header;
  SMessageContent content;
  EXPECT_EQ(control.ReadHeader(&header), 0U);
  EXPECT_EQ(control.ReadHeader(content), 0U);
  EXPECT_EQ(control.ReadBody(content), 0U);
}

TEST_F(ControlTest, DeferralMakesItsDirectoryAgainWhenAWalkDroppedIt) {
  control.PutFilename("c");
  control[kKeyHostTo] = "h";
  ASSERT_EQ(control.Write(), 1);
  struct Context {
    std::string directory;
    int drops;
  } context = {Path("deferred/Probe/h"), 4};
  sys::SetHook(
      [](sys::CallInfo const &call, void *data) {
        auto *const walk = static_cast<Context *>(data);
        std::error_code ignored;  // the directory is only dropped where it is empty, as a walk does
        if (std::string(call.name) == "rename" && walk->drops-- > 0) std::filesystem::remove(walk->directory, ignored);
        return 0;
      },
      &context);
  EXPECT_EQ(control.Defer(), 1);
  EXPECT_TRUE(Exists("deferred/Probe/h/c-Control"));
  std::filesystem::remove(Path("deferred/Probe/h/c-Control"));
  context.drops = 1000;
  ASSERT_EQ(control.Write(), 1);
  EXPECT_EQ(control.Defer(), 0);  // gives up, and the file stays
  sys::SetHook(nullptr, nullptr);
  EXPECT_TRUE(Exists("control/c-Control"));
}

TEST_F(ControlTest, NewDirectoryIsFlushedInItsParentBeforeTheFileMovesIn) {
  setenv("SpoolSync", "fsync", 1);
  control.PutFilename("c");
  control[kKeyHostTo] = "h";
  ASSERT_EQ(control.Write(), 1);
  CallWatch watch;
  ASSERT_EQ(control.Defer(), 1);
  EXPECT_EQ(watch.Count("fsync"), 2);  // deferred/Probe for "h", deferred for "Probe"
  EXPECT_LT(watch.Place("fsync"), watch.Place("rename"));
  ASSERT_EQ(control.Write(), 1);
  watch.calls.clear();
  ASSERT_EQ(control.Defer(), 1);
  EXPECT_EQ(watch.Count("fsync"), 0);
}

TEST_F(ControlTest, LinkedMessageOutlivesItsSource) {
  PutMessage("a");
  control.PutFilename("a");
  for (int error : {0, EMLINK}) {  // a file system that refuses links gets copies
    SCOPED_TRACE(error);
    {
      CallWatch watch;
      if (error != 0) watch.FailNth(1, error, "link");
      ASSERT_EQ(control.LinkMessage("b"), 1);
    }
    EXPECT_EQ(FileBytes("messages/b-Header"), "Subject: hello\r\n");
    EXPECT_EQ(FileBytes("messages/b-Body"), "body of a\r\n");
    EXPECT_EQ(std::filesystem::hard_link_count(Path("messages/b-Header")), error != 0 ? 1U : 2U);
    SControl copy("b");
    ASSERT_EQ(copy.RemoveMessage(), 1);
  }
  EXPECT_EQ(FileBytes("messages/a-Body"), "body of a\r\n");
}

TEST_F(ControlTest, HeaderRewrittenUnderOneNameIsUnchangedUnderTheOther) {
  PutMessage("a");
  control.PutFilename("a");
  ASSERT_EQ(control.LinkMessage("b"), 1);
  SHeader header;
  ASSERT_EQ(control.ReadHeader(&header), 1U);
  header["Subject:"] = "changed";
  ASSERT_EQ(control.WriteHeader(&header), 1U);
  EXPECT_EQ(FileBytes("messages/a-Header"), "Subject: changed\r\n");
  EXPECT_EQ(FileBytes("messages/b-Header"), "Subject: hello\r\n");
}

TEST_F(ControlTest, HalfALinkedMessageLeavesNoName) {
  PutFile("messages/a-Header", "Subject: x\r\n");
  control.PutFilename("a");
  EXPECT_EQ(control.LinkMessage("b"), 0);
  EXPECT_THAT(Files(), ElementsAre("messages/a-Header"));
}

TEST_F(ControlTest, RemovalTellsWhetherAllOfTheMessageWent) {
  struct Case {
    char const *why;
    bool loaded, header, body;
    int want;
  };
  Case const cases[] = {
      {"a whole message", true, true, true, 1},
      {"a request has no message files", true, false, false, 1},
      {"header without body", true, true, false, 0},
      {"never read or written: its control file is not touched", false, true, true, 1},
  };
  for (auto const &[why, loaded, header, body, want] : cases) {
    SCOPED_TRACE(why);
    PutControl("c", "Probe");
    if (header) PutFile("messages/c-Header", "Subject: x\r\n");
    if (body) PutFile("messages/c-Body", "");
    SControl message("c");
    EXPECT_EQ(loaded && message.Read(), loaded);
    EXPECT_EQ(message.RemoveMessage(), want);
    EXPECT_EQ(CountIn("messages"), 0);
    EXPECT_EQ(Exists("control/c-Control"), !loaded);
  }
}

TEST_F(ControlTest, RemovalAndDeferralLookAtDifferentPlaces) {
  PutFile("elsewhere/c-Control", ControlText("Probe"));
  PutControl("c", "Probe");
  ASSERT_EQ(control.Read(SString(Path("elsewhere/c-Control").c_str())), 1);
  EXPECT_EQ(control.RemoveMessage(), 1);
  EXPECT_FALSE(Exists("control/c-Control"));
  EXPECT_TRUE(Exists("elsewhere/c-Control"));
  EXPECT_EQ(control.Defer(), 1);
  EXPECT_TRUE(Exists("deferred/Probe/c-Control"));
}

TEST_F(ControlTest, MessageInMemoryIsReadThereAndFlushedByTheCommit) {
  SMappedFileWrite header;
  SMappedFileWrite body;
  header.CreateCached(Path("messages/m-Header").c_str());
  body.CreateCached(Path("messages/m-Body").c_str());
  header.Write("Subject: in memory\r\n");
  body.Write("text");
  control.PutFilename("m");
  control.SetHeaderBodyData(&header, &body);

  SHeader table;
  ASSERT_EQ(control.ReadHeader(&table), 1U);
  table["Subject:"] = "changed";
  ASSERT_EQ(control.WriteHeader(&table), 1U);
  SMessageContent content;
  ASSERT_EQ(control.ReadBody(content), 1U);
  EXPECT_EQ(Str(content.GetText()), "text");
  EXPECT_EQ(control.CloseHeaderBody(), 1U);
  EXPECT_EQ(CountIn("messages"), 0);
  ASSERT_EQ(control.ReadBody(content), 1U) << "closing must not lose the only copy";

  ASSERT_EQ(control.Write(), 1);
  EXPECT_EQ(FileBytes("messages/m-Header"), "Subject: changed\r\n");
  EXPECT_EQ(FileBytes("messages/m-Body"), "text");
  ASSERT_EQ(control.ReadHeader(content), 1U);  // now from the file
  EXPECT_EQ(Str(content.GetText()), "Subject: changed\r\n");
}

TEST_F(ControlTest, FailedFlushKeepsTheControlUnwritten) {
  SMappedFileWrite body;
  body.CreateCached(Path("no-such-directory/m-Body").c_str());
  body.Write("text");
  control.PutFilename("m");
  control[kKeyFunction] = "Probe";
  control.SetHeaderBodyData(nullptr, &body);
  EXPECT_EQ(control.Write(), 0);
  EXPECT_EQ(CountIn("control"), 0);
}

TEST_F(ControlTest, PosterIsTheFirstKnownOfFromSenderAndClient) {
  {
    SAccountDBMod accounts;
    for (char const *uid : {"ann", "bob"}) {
      SAccountMod account;
      ASSERT_EQ(accounts.ModifyAccount(uid, &account), 1);
      ASSERT_EQ(account.Set("SMTP-Address", SStringList(SString(uid) + "@example.org")), 1);
    }
  }
  struct Case {
    char const *why, *from, *sender, *client, *want;
  };
  Case const cases[] = {
      {"a known author", "Ann <ann@example.org>", "SMTP <bob@example.org>", "", "<ann@example.org>"},
      {"a known sender over an unknown author", "x@else.example", "SMTP <bob@example.org>", "", "<bob@example.org>"},
      {"a known client over unknown others", "x@else.example", "SMTP <y@else.example>", "ann@example.org",
       "<ann@example.org>"},
      {"nobody known: the author", "x@else.example", "SMTP <y@else.example>", "", "<x@else.example>"},
      {"no author: the sender", "", "SMTP <y@else.example>", "", "<y@else.example>"},
  };
  for (auto const &[why, from, sender, client, want] : cases) {
    SCOPED_TRACE(why);
    SHeader header;
    if (*from != '\0') header[kHeaderFrom] = from;
    if (*client != '\0') header[kHeaderXSender] = client;
    control[kKeyUserFrom] = sender;
    EXPECT_EQ(Str(control.GetPoster(&header).Get()), want);
  }
  EXPECT_EQ(Str(control.GetPoster(nullptr).Get()), "<y@else.example>");
  control[kKeyUserFrom] = kNullSender;
  EXPECT_FALSE(control.GetPoster(nullptr).IsValid());
}

TEST_F(ControlTest, DumpEndsInALineWithOnlyATab) {
  control.PutFilename("c");
  control["To:"] = "a";
  ::testing::internal::CaptureStderr();
  LogCMSG("here", control);
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), ::testing::EndsWith(":#JJ#:c:here\n\tTo: a\n\t\n"));
}
