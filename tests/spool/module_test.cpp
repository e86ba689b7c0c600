#include "brenthaven/spool/module.h"

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "brenthaven/spool/keys.h"
#include "tests/spool/spooltest.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

namespace {

class ModuleTest : public SpoolTest {
protected:
  ModuleTest() {
    probe.onMail = [this] {
      seen.push_back(Str(probe.GetControl().GetFilename()));
      return 1U;
    };
  }
  int Run(std::vector<char const *> words) {
    words.insert(words.begin(), "/usr/libexec/Probe");
    words.push_back(nullptr);
    return probe.Main(words.data());
  }

  ProbeModule probe;
  std::vector<std::string> seen;  // messages that the module was given
};

}  // namespace

TEST_F(ModuleTest, WordsOnTheCommandLineDecideInTheirOrder) {
  PutControl("queued", "Probe");
  std::filesystem::create_directories(Path("deferred/Probe"));
  std::filesystem::rename(Path("control/queued-Control"), Path("deferred/Probe/queued-Control"));
  PutControl("x", "Probe");
  PutControl("env", "Probe");
  setenv("MessageFile", "env", 1);

  EXPECT_EQ(Run({"ProcessQueue", "VerifyEnvironment"}), kModuleDone);
  EXPECT_THAT(seen, IsEmpty());
  EXPECT_EQ(Run({"MessageFile", "x", "ProcessQueue"}), kModuleDone);
  EXPECT_THAT(seen, ElementsAre("queued"));
  EXPECT_EQ(Run({"MessageFile", "x"}), kModuleDone);
  EXPECT_EQ(Run({"messagefile", "x"}), kModuleDone);  // words are compared exactly: the environment decides
  EXPECT_THAT(seen, ElementsAre("queued", "x", "env"));
  EXPECT_EQ(Strs(probe.GetArguments()), (std::vector<std::string>{"/usr/libexec/Probe", "messagefile", "x"}));
}

TEST_F(ModuleTest, RootThatStrangersCanWriteInIsRefused) {
  PutControl("x", "Probe");
  for (mode_t mode : {mode_t{0777}, mode_t{01777}, mode_t{0702}}) {
    ASSERT_EQ(chmod(root.c_str(), mode), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(Run({"MessageFile", "x"}), kModuleNoEnvironment);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(":Probe:ERROR:others can write in " + root));
  }
  EXPECT_THAT(seen, IsEmpty());
  ASSERT_EQ(chmod(root.c_str(), 0775), 0);
  EXPECT_EQ(Run({"MessageFile", "x"}), kModuleDone);
  EXPECT_THAT(seen, ElementsAre("x"));
}

TEST_F(ModuleTest, ProcessLeavesNoCoreAndMakesNothingForStrangers) {
  struct rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_CORE, &limit), 0);
  limit.rlim_cur = limit.rlim_max;
  ASSERT_EQ(setrlimit(RLIMIT_CORE, &limit), 0);
  (void)umask(0);
  EXPECT_EQ(Run({"VerifyEnvironment"}), kModuleDone);
  EXPECT_EQ(umask(022), 007U);
  ASSERT_EQ(getrlimit(RLIMIT_CORE, &limit), 0);
  EXPECT_LE(limit.rlim_cur, 1U);
}

TEST_F(ModuleTest, EachReasonNotToProcessHasItsCodeAndLeavesTheFile) {
  struct Case {
    char const *why;
    std::string bytes;
    int want;
  };
  Case const cases[] = {
      {"another module's", ControlText("Other"), kModuleNotMine},
      {"no function", "Control-Type: Mail\r\n", kModuleNotMine},
      {"an error report", "Function: Probe\r\nControl-Type: Error\r\n", kModuleUnknownType},
      {"no type", "Function: Probe\r\n", kModuleUnknownType},
      {"empty", "", kModuleUnreadable},
      {"torn in the first field", "Function: Pro", kModuleNotMine},
      {"not text", std::string("\0\r\n\0", 4), kModuleNotMine},
  };
  for (auto const &[why, bytes, want] : cases) {
    SCOPED_TRACE(why);
    PutFile("control/c-Control", bytes);
    EXPECT_EQ(probe.ProcessMessageName("c"), want);
    EXPECT_EQ(FileBytes("control/c-Control"), bytes);
  }
  EXPECT_EQ(probe.ProcessMessageName("missing"), kModuleUnreadable);
  EXPECT_EQ(probe.ProcessMessageName(SString("c-Control\0", 10)), kModuleUnreadable);
  probe.loads = 0;
  EXPECT_EQ(Run({"VerifyEnvironment"}), kModuleNoEnvironment);
  EXPECT_THAT(seen, IsEmpty());
}

TEST_F(ModuleTest, UnfinishedMessageIsWrittenAndDeferredUnderItsHost) {
  PutControl("c", "Probe", "Host-To: h\r\nDeliver-To: a\r\nDeliver-To: b\r\n");
  probe.onMail = [this] {
    probe.GetControl()[kKeyDeliverTo] = "b";
    probe.GetControl()[kKeyDeliverToDone].Push("a");
    return 0U;
  };
  EXPECT_EQ(probe.ProcessMessageName("c"), kModuleDone);
  EXPECT_EQ(FileBytes("deferred/Probe/h/c-Control"),
            ControlText("Probe", "Host-To: h\r\nDeliver-To: b\r\nDeliver-To! a\r\nTrace: Probe\r\n"));
  EXPECT_EQ(CountIn("control"), 0);
}

TEST_F(ModuleTest, UnfinishedMessageStaysWhenItCanNotBeDeferred) {
  PutFile("deferred/Probe", "a file where the directory should be");
  PutControl("c", "Probe");
  probe.onMail = [] { return 0U; };
  EXPECT_EQ(probe.ProcessMessageName("c"), kModuleDone);
  EXPECT_TRUE(Exists("control/c-Control"));
}

TEST_F(ModuleTest, RequestIsAnsweredByTheModuleAndNeverDeferred) {
  PutFile("control/r-Control", "Function: Probe\r\nControl-Type: Request\r\nAddress: a\r\n");
  probe.onRequest = [this](SRequest &request) { seen.push_back(Str(request.Get(kKeyAddress).Get(0))); };
  EXPECT_EQ(probe.ProcessMessageName("r"), kModuleDone);
  EXPECT_THAT(seen, ElementsAre("a"));
  EXPECT_THAT(Files(), ElementsAre("control/r-Control"));
}

TEST_F(ModuleTest, LogLineOnlyWhenTheSettingSaysYes) {
  PutControl("c", "Probe");
  for (char const *value : {"yes", "Yes", ""}) {
    SCOPED_TRACE(value);
    setenv("Log", value, 1);
    ::testing::internal::CaptureStderr();
    Run({"MessageFile", "c"});
    std::string const log = ::testing::internal::GetCapturedStderr();
    if (std::string(value) == "yes")
      EXPECT_THAT(log, MatchesRegex("[0-9]{14}[-+][0-9]{4}:Probe:c\n"));
    else
      EXPECT_EQ(log, "");
  }
}

TEST_F(ModuleTest, InLineHandOverIsTracedAsTheSenders) {
  ProbeModule sender("Sender");
  SControl &control = sender.GetControl();
  control.PutFilename("c");
  control[kKeyFunction] = "Probe";
  probe.onMail = [this] {
    EXPECT_EQ(probe.IsInLine(), 1U);
    EXPECT_EQ(Str(probe.GetControl().GetModuleName()), "Probe");
    EXPECT_EQ(Strs(probe.GetControl().Get(kKeyTrace)), std::vector<std::string>{"Sender"});
    return 0U;
  };
  EXPECT_EQ(probe.IsInLine(), 0U);
  EXPECT_EQ(probe.ProcessMailControl(control), 0U);
  EXPECT_THAT(Files(), IsEmpty());  // neither written nor deferred
}

TEST_F(ModuleTest, WalkPassesOverWhatIsNoFileAndAnnouncesWhatIsNotItsOwn) {
  DispatcherEar ear;
  PutFile("deferred/Probe/mine-Control", ControlText("Probe"));
  PutFile("deferred/Probe/other-Control", ControlText("Other"));
  PutFile("deferred/Probe/h.example/deep-Control", ControlText("Probe"));
  std::filesystem::create_symlink(Path("deferred/Probe/mine-Control"), Path("deferred/Probe/link-Control"));
  probe.ProcessQueue();
  EXPECT_THAT(seen, ElementsAre("mine"));
  EXPECT_EQ(ear.Next(), "other\nkey\nOther\nMail\n1");
  EXPECT_EQ(ear.Next(), "");
  EXPECT_THAT(Files(), ElementsAre("control/mine-Control", "control/other-Control",
                                   "deferred/Probe/h.example/deep-Control", "deferred/Probe/link-Control"));
}

TEST_F(ModuleTest, WalkDropsTheDirectoryThatItEmptied) {
  PutFile("deferred/Probe/h/a-Control", ControlText("Probe"));
  probe.ProcessDeferredDir(SString(Path("deferred/Probe/h").c_str()));
  EXPECT_FALSE(Exists("deferred/Probe/h"));
  PutFile("deferred/Probe/h/a-Control", ControlText("Probe", "Host-To: h\r\n"));
  probe.onMail = [] { return 0U; };
  probe.ProcessDeferredDir(SString(Path("deferred/Probe/h").c_str()));
  EXPECT_TRUE(Exists("deferred/Probe/h/a-Control"));
}

TEST_F(ModuleTest, NamesAreUniqueAndCountedInLetters) {
  auto const letters = [this] {
    std::string const name = Str(probe.NewMessageID());
    size_t const dot = name.find('.');
    return name.substr(dot + 1, name.find_first_of("0123456789", dot) - dot - 1);
  };
  EXPECT_THAT(Str(probe.NewMessageID()),
              MatchesRegex("[0-9]{17}\\.AAA" + std::to_string(getpid()) + "@mail.example.org"));
  EXPECT_EQ(letters(), "AAB");
  for (int c = 2; c < 17575; ++c) (void)probe.NewMessageID();
  EXPECT_EQ(letters(), "ZZZ");
  EXPECT_EQ(letters(), "BAAA");
}

TEST_F(ModuleTest, DirectoriesHaveOneSlashAtTheirEnd) {
  for (char const *slash : {"", "/"}) {
    setenv("Brenthaven", (root + slash).c_str(), 1);
    setenv("MailboxDir", (root + "/mailboxes" + slash).c_str(), 1);
    ProbeModule module;
    EXPECT_EQ(Str(module.GetBrenthaven()), root + "/");
    EXPECT_EQ(Str(module.GetDeferredDir()), root + "/deferred/");
    EXPECT_EQ(Str(module.GetMailboxDir()), root + "/mailboxes/");
  }
}
