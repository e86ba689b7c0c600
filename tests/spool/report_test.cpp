#include <gmock/gmock.h>

#include <cerrno>

#include "brenthaven/spool/errors.h"
#include "brenthaven/spool/keys.h"
#include "tests/spool/spooltest.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

namespace {

class ReportTest : public SpoolTest {
protected:
  ReportTest() : module("Account-Handler") {
    setenv("ModuleName", "EnvName", 1);
    errno = 0;
    SetSocketErrorNo(0);
  }
  // The one control file there is, without its trace, which names whoever wrote it; then it is removed.
  std::string TakeReport() const {
    std::vector<std::string> const files = Files();
    EXPECT_EQ(files.size(), 1U);
    if (files.size() != 1) return "";
    std::string const bytes = FileBytes(files[0]);
    std::filesystem::remove(Path(files[0]));
    return bytes.substr(0, bytes.rfind("Trace: "));
  }

  ProbeModule module;
  SStringList const text = {"line one", "line two"};
};

constexpr char kNewReport[] =
    "Control-Type: Error\r\nPriority: 1\r\nFunction: Error-Handler\r\nError: %s\r\n"
    "Error-Text: line one\r\nError-Text: line two\r\n";

std::string NewReport(std::string const &error) {
  std::string report = kNewReport;
  return report.replace(report.find("%s"), 2, error);
}

}  // namespace

TEST_F(ReportTest, MessageItselfIsRedirectedWithAllItsFields) {
  PutControl("c", "Account-Handler", "Account-To: nobody\r\n");
  SControl control("c");
  ASSERT_EQ(control.Read(), 1);
  EXPECT_EQ(module.ProcessError(control, "UnknownAccounts", "WriteUnknownAcct", text), 1U);
  EXPECT_EQ(TakeReport(),
            "Function: Error-Handler\r\nControl-Type: Mail\r\nPriority: 1\r\nAccount-To: nobody\r\n"
            "Error: Account-Handler:WriteUnknownAcct (UnknownAccounts)\r\n"
            "Error-Text: line one\r\nError-Text: line two\r\n");
}

TEST_F(ReportTest, OriginIsTheModulesOrTheEnvironments) {
  struct Case {
    char const *why, *location;
    bool free;
    char const *module, *want;
  };
  Case const cases[] = {
      {"a module puts its name in front", "Load", false, "", "Account-Handler:Load (Bad)"},
      {"a location with its own origin stands", "Router:Load", false, "", "Router:Load (Bad)"},
      {"free code has the environment's", "Load", true, "", "EnvName:Load (Bad)"},
      {"and puts it in front of any location", "Router:Load", true, "", "EnvName:Router:Load (Bad)"},
      {"unless it is told another", "Load", true, "Dispatch", "Dispatch:Load (Bad)"},
  };
  for (auto const &[why, location, free, name, want] : cases) {
    SCOPED_TRACE(why);
    errno = 0;
    EXPECT_EQ(free ? ::ProcessError("Bad", location, text, name) : module.ProcessError("Bad", location, text), 1U);
    EXPECT_EQ(TakeReport(), NewReport(want));
  }
}

TEST_F(ReportTest, ReportsOfOneMomentKeepOutOfEachOthersFiles) {
  constexpr int kReports = 300;  // more than one in a millisecond
  for (int i = 0; i < kReports; ++i) {
    EXPECT_EQ(module.ProcessError("Bad", "Load", text), 1U);
    EXPECT_EQ(::ProcessError("Bad", "Load", text, "Dispatch"), 1U);
  }
  EXPECT_EQ(Files().size(), 2U * kReports);
}

TEST_F(ReportTest, NumbersAreThoseOfTheCall) {
  errno = ENOSPC;
  SetSocketErrorNo(ECONNREFUSED);
  EXPECT_EQ(module.ProcessSysError("Bad", "Load", text), 1U);
  std::string const numbers =
      "Error-Number: " + std::to_string(ENOSPC) + "\r\nWSAError-Number: " + std::to_string(ECONNREFUSED) + "\r\n";
  EXPECT_EQ(TakeReport(),
            NewReport("Account-Handler:Load (Bad)") + "Error-Text: " + strerror(ENOSPC) + "\r\n" + numbers);
  SControl control("c");
  errno = EACCES;
  EXPECT_EQ(module.ProcessSysError(control, "Bad", "Load", text), 1U);
  EXPECT_THAT(TakeReport(), HasSubstr("Error-Number: " + std::to_string(EACCES) + "\r\n"));
}

TEST_F(ReportTest, NumbersOfAnEarlierMessageAreForgotten) {
  PutControl("c", "Account-Handler");
  module.onMail = [this] { return module.ProcessError("Bad", "Load", text); };
  errno = ENOSPC;
  SetSocketErrorNo(ECONNREFUSED);
  EXPECT_EQ(module.ProcessMessageName("c"), kModuleDone);
  std::filesystem::remove(Path("control/c-Control"));
  EXPECT_EQ(TakeReport(), NewReport("Account-Handler:Load (Bad)"));
}

TEST_F(ReportTest, TwoReportsHaveTwoNames) {
  EXPECT_EQ(module.ProcessError("Bad", "Load", text), 1U);
  EXPECT_EQ(module.ProcessError("Bad", "Load", text), 1U);
  std::string const pid = std::to_string(getpid());
  EXPECT_THAT(Files(), ElementsAre(MatchesRegex("control/[0-9]{17}\\." + pid + "\\.1-Control"),
                                   MatchesRegex("control/[0-9]{17}\\." + pid + "\\.2-Control")));
}

TEST_F(ReportTest, ReportOnTheErrorHandlersOwnMessageIsALogLine) {
  SControl control("c");
  control[kKeyTrace] = "Account-Handler";
  control[kKeyTrace].Push(kModuleErrorHandler);
  ::testing::internal::CaptureStderr();
  module.ProcessNotifyError(control, "Bad", "Load", text);
  ::ProcessNotifyError(control, "Bad", "Load", text);
  std::string const line = "[0-9]{14}[-+][0-9]{4}:ProcessNotifyError:line oneline two\n";
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), MatchesRegex(line + line));
  EXPECT_THAT(Files(), IsEmpty());

  control.Delete(kKeyTrace);
  module.ProcessNotifyError(control, "Bad", "Load", text);
  EXPECT_EQ(TakeReport(), NewReport("Account-Handler:Load (Bad)"));
  ::ProcessNotifyError(control, "Bad", "Load", text);
  EXPECT_EQ(TakeReport(), NewReport("EnvName:Load (Bad)"));
}

TEST_F(ReportTest, ReportThatCanNotBeWrittenIsToldAndNotifyFormsLogIt) {
  std::filesystem::remove(Path("control"));
  SControl control("c");
  EXPECT_EQ(module.ProcessError(control, "Bad", "Load", text), 0U);
  EXPECT_EQ(::ProcessError("Bad", "Load", text, ""), 0U);
  ::testing::internal::CaptureStderr();
  errno = 0;
  module.ProcessNotifyError(SControl(), "Bad", "Load", text);
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), HasSubstr("Error: Account-Handler:Load (Bad)\r\n"));
}
