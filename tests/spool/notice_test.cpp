#include "brenthaven/spool/notice.h"

#include <gmock/gmock.h>
#include <sys/wait.h>

#include <functional>

#include "brenthaven/spool/keys.h"
#include "brenthaven/spool/request.h"
#include "tests/spool/spooltest.h"

using ::testing::IsEmpty;

namespace {

class NoticeTest : public SpoolTest {
protected:
  NoticeTest() {
    control.PutFilename("name@host");
    control[kKeyFunction] = kModuleAccountHandler;
    control[kKeyControlType] = kTypeMail;
    control[kKeyPriority] = kPriorityNew;
  }
  SControl control;
};

// A second process that hears the dispatcher's datagrams and answers the request, as a module would that the dispatcher
// has started. It ends with its work's result.
class Answerer {
public:
  Answerer(DispatcherEar const &ear, std::function<bool(std::string const &notice)> const &work) {
    _pid = fork();
    if (_pid == 0) _exit(work(ear.Next(10000)) ? 0 : 1);
  }
  bool Done() const {
    int status = 0;
    return waitpid(_pid, &status, 0) == _pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }

private:
  pid_t _pid;
};

std::string NameIn(std::string const &notice) { return notice.substr(0, notice.find('\n')); }

}  // namespace

TEST_F(NoticeTest, DatagramIsFiveFieldsWithoutAnEnd) {
  DispatcherEar ear;
  ASSERT_EQ(control.Notify(), 1);
  EXPECT_EQ(ear.Next(), "name@host\nkey\nAccount-Handler\nMail\n1");
  SControl bare("x");
  ASSERT_EQ(bare.Notify(), 1);
  EXPECT_EQ(ear.Next(), "x\nkey\n\n\n");
}

TEST_F(NoticeTest, NothingIsSentWithoutPortOrKey) {
  DispatcherEar ear;
  for (char const *port : {"", "0", "-1", "65537", "nan", "inf", "text"}) {
    SCOPED_TRACE(port);
    std::string const good = getenv("DispatchSocket");
    setenv("DispatchSocket", port, 1);
    EXPECT_EQ(control.Notify(), 0);
    setenv("DispatchSocket", good.c_str(), 1);
  }
  unsetenv("DispatchKey");
  EXPECT_EQ(control.Notify(), 0);
  EXPECT_EQ(ear.Next(), "");
}

// A line end in a field would move what stands behind it into the next one: another module, told of another file.
TEST_F(NoticeTest, FieldWithALineOfItsOwnIsNotSent) {
  DispatcherEar ear;
  SControl named("a\nkey\nEvil-Module\nMail\n1");
  EXPECT_EQ(named.Notify(), 0);
  for (char const *key : {kKeyFunction, kKeyControlType, kKeyPriority}) {
    SControl folded = control;
    folded[key] = "x\r\n y";
    EXPECT_EQ(folded.Notify(), 0) << key;
  }
  EXPECT_EQ(ear.Next(), "");
}

TEST_F(NoticeTest, PortsAreTruncatedBeforeTheirRangeIsTested) {
  struct Case {
    char const *text;
    int last, want;
  };
  Case const cases[] = {{"8080.7", 65535, 8080}, {"0.9", 65535, -1},      {"65535.9", 65535, 65535},
                        {"65536", 65535, -1},    {"65536", 65536, 65536}, {"65536.5", 65536, 65536},
                        {"65537", 65536, -1},    {" 12x", 65535, 12}};
  for (auto const &[text, last, want] : cases) EXPECT_EQ(PortNumber(text, last), want) << text << " " << last;
}

TEST_F(NoticeTest, AskBringsTheAnswersFieldsAndLeavesNoFile) {
  DispatcherEar ear;
  Answerer const answerer(ear, [](std::string const &notice) {
    setenv("ModuleName", "Oracle", 1);
    ProbeModule module("Oracle");
    module.onRequest = [](SRequest &request) {
      request["Address!"] = request.Get("Address:");
      request.Delete("Address:");
      if (request.Answer() != 1) _exit(2);
    };
    return notice.ends_with("\nkey\nOracle\nRequest\n3") &&
           module.ProcessMessageName(NameIn(notice).c_str()) == kModuleDone;
  });
  SRequest request;
  request["Address:"] = "a@example.org";
  EXPECT_EQ(request.Ask("Oracle", 10), 1);
  EXPECT_TRUE(request.IsAnswered());
  EXPECT_TRUE(answerer.Done());
  EXPECT_EQ(Str(request.Get("Address!").Get(0)), "a@example.org");
  EXPECT_FALSE(request.Get("Address:").Defined());
  EXPECT_EQ(Strs(request.Get(kKeyTrace)), (std::vector<std::string>{"", "Oracle"}));
  EXPECT_THAT(Files(), IsEmpty());
}

TEST_F(NoticeTest, AskEndsWithItsTimeOrAWrongAnswerAndLeavesNoFile) {
  SRequest request;
  request[kKeyPriority] = "2";
  EXPECT_EQ(request.Ask("Oracle", 10), 0);  // nobody to tell
  EXPECT_THAT(Files(), IsEmpty());
  DispatcherEar ear;
  EXPECT_EQ(request.Ask("Oracle", 0.01), 0);
  EXPECT_TRUE(ear.Next().ends_with("\nOracle\nRequest\n2"));
  Answerer const chatterbox(ear, [](std::string const &notice) {
    SControl seen(NameIn(notice).c_str());
    return seen.Read() && SendDatagram(PortNumber(seen.Get(kKeyReturnPath).Get(0), 65535), "00") == 1;
  });
  EXPECT_EQ(request.Ask("Oracle", 10), 0);
  EXPECT_TRUE(chatterbox.Done());
  EXPECT_THAT(Files(), IsEmpty());
  Answerer const forger(ear, [](std::string const &notice) {
    SControl seen(NameIn(notice).c_str());
    return seen.Read() && SendDatagram(PortNumber(seen.Get(kKeyReturnPath).Get(0), 65535), "0") == 1;
  });
  EXPECT_EQ(request.Ask("Oracle", 10), 1);
  EXPECT_TRUE(forger.Done());
  EXPECT_FALSE(request.IsAnswered()) << "no module has written the file";
}

TEST_F(NoticeTest, AnswerNobodyWaitsForIsRemoved) {
  for (char const *port : {"", "0", "65536", "x"}) {
    SCOPED_TRACE(port);
    PutControl("r", "Oracle", std::string("Return-Path: ") + port + "\r\n");
    SControl read("r");
    ASSERT_EQ(read.Read(), 1);
    SRequest request(read);
    EXPECT_EQ(request.Answer(), 0);
    EXPECT_THAT(Files(), IsEmpty());
  }
  SRequest neverRead(control);
  EXPECT_EQ(neverRead.Answer(), 0);
  EXPECT_THAT(Files(), IsEmpty());
}
