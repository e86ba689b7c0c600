#include "brenthaven/listmanager/listmanager.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "brenthaven/accounts/special.h"
#include "brenthaven/listmanager/runner.h"
#include "brenthaven/lists/slistactions.h"
#include "brenthaven/lists/sliststate.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/text/base.h"
#include "tests/mailbox/mail_fixture.h"

namespace {

constexpr char kManager[] = "news-Manager-Account";
constexpr char kJo[] = "jo@far.example";

// A mail to a list manager.
struct Mail {
  std::string from = kJo;
  std::string subject{};
  std::string body{};
  std::string to = kManager;  // the account
  std::string header{};       // further lines
  std::string sender = "*";   // of the envelope; "*": the author, "": the null sender
};

class ListManagerTest : public MailTest {
protected:
  ListManagerTest() {
    setenv("FormSigKey", "swordfish", 1);
    setenv("ModuleName", "List-Manager", 1);
    Config("MTA-Accounts", "", "LocalMailDomains", "example.org");
    Config("List-Manager", "Messages", "RequestAnswer", "Subject: Answer\r\n");
    Config("List-Manager", "Messages", "RequestAnswerEnd", "\r\nEnd.\r\n");
    CreateSpecialAccounts("example.org", "");
    AddAccount("ann", {{"Local-Delivery", {"Mailbox"}}, {"Password", {"sesame"}}});
    AddAccount("bob", {{"Local-Delivery", {"Mailbox"}}});
    MakeList("news", {{"List-Short-Info", {"What is new"}}, {"List-Long-Info", {"All that", "is new."}}});
  }

  static void MakeList(std::string const &name, Attributes attributes = {}) {
    AddAccount(name + "-Manager-Account", {{"Handler-Delivery", {"List-Manager"}}, {"Manager-List-Name", {name}}});
    SAccountDBMod store;
    SAccountMod manager;
    ASSERT_TRUE(store.ModifyAccount(Bytes(name + "-Manager-Account"), &manager) &&
                manager.Set("SMTP-Address", ListOf({name + "-request@example.org"})));
    attributes.insert(attributes.end(), {{"List-Name", {name}},
                                         {"List-Owners", {"ann"}},
                                         {"List-Moderation-Method", {"queue-notify"}},
                                         {"Linked-Manager-Account", {name + "-Manager-Account"}}});
    AddAccount(name, attributes);
  }

  // Puts a mail where the account handler puts it, and gives its name.
  std::string Put(Mail const &mail, Texts const &control = {}) {
    std::string const name = "m" + std::to_string(++_mails);
    std::string const sender = mail.sender == "*" ? " <" + mail.from + ">" : "<" + mail.sender + ">";
    Texts lines = {"User-From: SMTP" + sender, "Module-To: List-Manager " + mail.to};
    lines.insert(lines.end(), control.begin(), control.end());
    PutMessage(name, "List-Manager", lines,
               "From: " + mail.from + "\r\nSubject: " + mail.subject + "\r\nMessage-ID: <" + name +
                   "@far.example>\r\n" + mail.header,
               mail.body);
    return name;
  }
  static int Run(std::string const &name) {
    SListManagerModule module;
    EXPECT_EQ(module.LoadEnv(), 1u);
    return module.ProcessMessageName(Bytes(name));
  }

  // New mail in the spool, taken out of it: the headers and bodies of what is answered, and of all else.
  struct Sent {
    Texts answers, others;
    Texts answerHeaders, otherHeaders;
  };
  Sent TakeSent() {
    Sent sent;
    for (std::string const &file : Files("control")) {
      std::string const name = file.substr(0, file.rfind('-'));
      std::string const header = FileBytes("messages/" + name + "-Header"),
                        body = FileBytes("messages/" + name + "-Body");
      bool const isAnswer = header.find("Auto-Submitted: auto-replied\r\n") != std::string::npos;
      (isAnswer ? sent.answers : sent.others).push_back(body);
      (isAnswer ? sent.answerHeaders : sent.otherHeaders).push_back(header + FileBytes("control/" + file));
      for (std::string const &path : {"control/" + file, "messages/" + name + "-Header", "messages/" + name + "-Body"})
        std::filesystem::remove(Path(path));
    }
    return sent;
  }

  // The answer to a mail, without its frame; "" for none. The mail must be gone then.
  std::string Answer(Mail const &mail) {
    EXPECT_EQ(Run(Put(mail)), kModuleDone);
    _last = TakeSent();
    EXPECT_EQ(CountIn("messages") + CountIn("deferred"), 0);
    return _last.answers.empty() ? "" : Unframed(_last.answers[0]);
  }
  static std::string Unframed(std::string const &body) {
    std::string const end = "\r\nEnd.\r\n";
    bool const isHelp = body.find("Success: these are the commands") != std::string::npos;
    EXPECT_TRUE(body.starts_with("\r\n") && body.ends_with(end) != isHelp) << body;
    return body.substr(2, isHelp ? std::string::npos : body.size() - 2 - end.size());
  }
  // The words for the outcomes in an answer: "Success, NoSuchList".
  static std::string Words(std::string const &answer) {
    std::string words;
    std::string previous;
    std::istringstream lines("\r\n" + answer);
    for (std::string line; std::getline(lines, line); previous = line) {
      size_t const colon = line.find(": ");
      bool const opens = previous.starts_with("> ") || (previous == "\r" && !line.starts_with("> "));
      if (opens && colon != std::string::npos) words += (words.empty() ? "" : ", ") + line.substr(0, colon);
    }
    return words;
  }
  std::string Outcomes(Mail const &mail) { return Words(Answer(mail)); }

  static Texts Members(std::string const &list) {
    Texts members;
    SList found;
    EXPECT_TRUE(SListDB().GetByUID(Bytes(list), &found, 0));
    for (SString const &uid : found.GetSubscribers()) {
      SAccount member;
      EXPECT_TRUE(SListDB().GetAccountInfo(uid, &member));
      members.push_back(Text(BareAddress(S821Address(member.GetPrimaryAddress()))) +
                        (found.IsDigestSubscriber(member) ? " digest" : ""));
    }
    std::sort(members.begin(), members.end());
    return members;
  }
  static void Set(std::string const &uid, char const *attribute, std::string const &value) {
    SAccountDBMod store;
    SAccountMod account;
    ASSERT_TRUE(store.ModifyAccount(Bytes(uid), &account) && account.Set(attribute, ListOf({value})));
  }
  static void Subscribe(std::string const &list, std::string const &address) {
    SListActions actions(nullptr, Bytes(list), S821Address(Bytes(address)));
    ASSERT_EQ(actions.Subscribe(1), kListSuccess) << address;
  }
  // The line that a key mail asks to be sent back.
  std::string KeyLine() const {
    std::string const header = _last.otherHeaders.empty() ? "" : _last.otherHeaders[0];
    size_t const at = header.find("Subject: confirm ");
    return at == std::string::npos ? "" : header.substr(at + 9, header.find("\r\n", at) - at - 9);
  }

  Sent _last;
  int _mails = 0;
};

TEST_F(ListManagerTest, KeyMailIsAnsweredAndAddressIsOnTheList) {
  std::string answer = Answer({.body = "subscribe digest\r\n\r\nThanks\r\nend\r\n"});
  EXPECT_EQ(answer,
            "> subscribe digest\r\n"
            "AuthenticationRequired: a mail with a key went to jo@far.example. Nothing is changed\r\n"
            "until somebody replies to it.\r\n"
            "\r\n> Thanks\r\n"
            "UnknownCommand: this is no command.\r\n");
  ASSERT_EQ(_last.answerHeaders.size(), 1u);
  for (char const *line :
       {"From: news-request@example.org\r\n", "To: jo@far.example\r\n", "Subject: Answer\r\n", "Precedence: bulk\r\n",
        "In-Reply-To: <m1@far.example>\r\n", "User-From: SMTP<>\r\n", "Channel-To: SMTP <jo@far.example>\r\n"})
    EXPECT_NE(_last.answerHeaders[0].find(line), std::string::npos) << line << _last.answerHeaders[0];
  EXPECT_TRUE(Members("news").empty());

  std::string const key = KeyLine();
  ASSERT_NE(key, "");
  EXPECT_EQ(Answer({.subject = "RE: " + key, .body = "Yes!\r\n\r\nOn Tuesday you wrote:\r\n> " + key + "\r\n"}),
            "> " + key + "\r\nSuccess: jo@far.example is now on the mailing list news.\r\n");
  EXPECT_EQ(Members("news"), Texts{"jo@far.example digest"});
  EXPECT_EQ(Outcomes({.subject = key}), "AlreadySubscribed");
  EXPECT_EQ(Outcomes({.from = "eve@far.example", .body = key + "\r\nconfirm s20000-0123456789abcdef01234567\r\n"}),
            "AlreadySubscribed, BadAuthKey");
}

TEST_F(ListManagerTest, AddressOfListUnsubscribeTakesOneMailWhereThePolicyAllows) {
  Set("news", "List-Verify-Unsubscriptions", "no");
  Subscribe("news", kJo);
  EXPECT_EQ(Outcomes({.subject = "unsubscribe", .body = "This mail was sent by a mail program.\r\n"}), "Success");
  EXPECT_TRUE(Members("news").empty());
  EXPECT_EQ(Outcomes({.subject = "unsubscribe"}), "NotSubscribed");
}

TEST_F(ListManagerTest, EachCommandHasItsOutcome) {
  MakeList("closed", {{"List-Remote-Subscriber-Policy", {"closed"}}, {"List-Verify-Subscriptions", {"no"}}});
  MakeList("locked", {{"List-Locked", {"yes"}}});
  Subscribe("news", kJo);
  Subscribe("news", "bob@example.org");
  struct {
    std::string from, to, command, want;
  } const cases[] = {
      {kJo, "List-Manager", "subscribe", "BadSyntax"},  // which list?
      {kJo, "List-Manager", "subscribe NEWS", "AuthenticationRequired"},
      {kJo, "List-Manager", "unsubscribe nowhere", "NoSuchList"},
      {kJo, kManager, "subscribe closed", "RequestDenied"},
      {"bob@example.org", kManager, "subscribe closed", "Success"},
      {kJo, kManager, "subscribe locked", "Locked"},
      {kJo, kManager, "subscribe nobody@example.org", "NoLocalAccount"},
      {kJo, kManager, "subscribe <jo@@far.example>", "InvalidAddress"},
      {kJo, kManager, "unsubscribe eve@far.example", "NotSubscribed"},
      {kJo, kManager, "confirm 01234567 unsubscribe", "BadAuthKey"},
      {kJo, kManager, "approve wrong subscribe eve@far.example", "BadPassword"},
      {kJo, kManager, "approve sesame subscribe eve@far.example", "Success"},
      {kJo, kManager, "approve sesame accept nothing", "MsgNotFound"},
      {kJo, kManager, "approve wrong reject nothing", "BadPassword"},
      {kJo, kManager, "approve sesame accept it locked", "Locked"},
      {kJo, kManager, "who", "RequestDenied"},
      {"ann@example.org", kManager, "who", "Success"},
      {kJo, kManager, "approve sesame who", "Success"},
      {kJo, kManager, "who nowhere", "NoSuchList"},
      {kJo, kManager, "subscribe a b", "BadSyntax"},
  };
  for (auto const &c : cases) {
    EXPECT_EQ(Outcomes({.from = c.from, .body = c.command, .to = c.to}), c.want) << c.command;
    std::filesystem::remove(Path("List-Manager/keymails"));
  }
  EXPECT_EQ(Members("news"), (Texts{"bob@example.org", "eve@far.example", "jo@far.example"}));
}

TEST_F(ListManagerTest, QuestionsAreAnswered) {
  MakeList("closed", {{"List-Remote-Subscriber-Policy", {"closed"}}});
  Subscribe("news", kJo);
  struct {
    std::string command, want;
  } const cases[] = {
      {"which", "Success: jo@far.example is on these mailing lists:\r\nnews\r\n"},
      {"lists", "Success: you may join these mailing lists:\r\nnews: What is new\r\n"},
      {"info", "Success: about the mailing list news (news@example.org):\r\nAll that\r\nis new.\r\n"},
      {"info closed", "Success: about the mailing list closed (closed@example.org):\r\n(none)\r\n"},
      {"approve sesame who", "Success: on the mailing list news are:\r\njo@far.example\r\n"},
  };
  for (auto const &c : cases) {
    std::string const answer = Answer({.body = c.command});
    EXPECT_EQ(answer.substr(answer.find("\r\n", 2) + 2), c.want) << c.command;
  }
  EXPECT_EQ(Answer({.from = "eve@far.example", .body = "which"}).substr(9),
            "Success: eve@far.example is on these mailing lists:\r\n(none)\r\n");
  std::string const help = Answer({.body = "<p>which", .header = "MIME-Version: 1.0\r\nContent-Type: text/html\r\n"});
  EXPECT_TRUE(help.starts_with("Success: these are the commands")) << help;
}

TEST_F(ListManagerTest, ProgramsAndListsGetNoAnswerAndNoEffect) {
  Set("news", "List-Verify-Subscriptions", "no");
  Mail const cases[] = {
      {.sender = ""},
      {.sender = "mailer-daemon@far.example"},
      {.from = "other-request@far.example"},
      {.from = "owner-other@far.example"},
      {.header = "Precedence: BULK\r\n"},
      {.header = "Auto-Submitted: auto-replied\r\n"},
      {.header = "Auto-Forwarded: yes\r\n"},
      {.from = "news@example.org"},
      {.from = "News-request@example.org"},
      {.from = "list.manager@example.org"},
      {.from = "", .sender = ""},
      {.to = "gone-Manager-Account"},
  };
  for (Mail mail : cases) {
    mail.subject = "subscribe news";
    EXPECT_EQ(Answer(mail), "") << mail.from << mail.header << mail.sender;
    EXPECT_TRUE(_last.others.empty());
  }
  EXPECT_TRUE(Members("news").empty());
  EXPECT_EQ(Outcomes({.subject = "subscribe news", .header = "Auto-Submitted: no\r\n"}), "Success");
}

TEST_F(ListManagerTest, ReadingStopsAtNonsenseAndAtTooManyCommands) {
  std::string nonsense, many;
  for (int i = 0; i < 8; ++i) nonsense += "nonsense " + std::to_string(i) + "\r\n";
  for (int i = 0; i < 60; ++i) many += "info list" + std::to_string(i) + "\r\n";
  EXPECT_EQ(Outcomes({.body = nonsense + "lists\r\n"}),
            "UnknownCommand, UnknownCommand, UnknownCommand, UnknownCommand, UnknownCommand, TooManyCommands");
  std::string const answer = Answer({.body = many});
  EXPECT_NE(answer.find("> info list49\r\n"), std::string::npos);
  EXPECT_EQ(answer.find("> info list50\r\n"), std::string::npos);
  EXPECT_TRUE(answer.ends_with("\r\nTooManyCommands: the rest of the mail was not read.\r\n"));
}

TEST_F(ListManagerTest, NothingOfTheSenderIsTakenForOurs) {
  EXPECT_EQ(Answer({.body = "subscribe <+++OwnerAddress+++>\r\nsub\x1b[2Jscribe\r\napprove sesam subscribe\r\n"}),
            "> subscribe <+++OwnerAddress+++>\r\n"
            "NoSuchList: there is no mailing list <+++OwnerAddress+++> here.\r\n"
            "\r\n> sub?[2Jscribe\r\n"
            "UnknownCommand: this is no command.\r\n"
            "\r\n> approve ****** subscribe\r\n"
            "BadPassword: that is not the password of an owner of news.\r\n");
}

TEST_F(ListManagerTest, FloodInSomeonesNameIsNotAnsweredForLong) {
  size_t answers = 0, keys = 0;
  for (int i = 0; i < 14; ++i) {
    (void)Answer({.body = "subscribe"});
    answers += _last.answers.size();
    keys += _last.others.size();
  }
  EXPECT_EQ(answers, 10u);
  EXPECT_EQ(keys, 10u);
  EXPECT_EQ(Outcomes({.body = "approve sesame subscribe"}), "Success");  // whoever has the password is no forger
}

TEST_F(ListManagerTest, OwnersDecideByMail) {
  Set("news", "List-Remote-Subscriber-Policy", "moderated");
  Set("news", "List-Verify-Subscriptions", "no");
  EXPECT_EQ(Outcomes({.body = "subscribe digest"}), "ApprovalRequired");
  EXPECT_EQ(Outcomes({.from = "eve@far.example", .body = "subscribe"}), "ApprovalRequired");
  EXPECT_EQ(Outcomes({.body = "approve sesame accept Jo@far.example\r\napprove sesame reject eve@far.example\r\n"
                              "approve sesame reject eve@far.example\r\n"
                              "approve sesame accept jo@far.example news\r\n"}),
            "Success, Success, MsgNotFound");
  EXPECT_EQ(Members("news"), Texts{"jo@far.example digest"});

  SListManagerModule module;
  for (std::string const id : {"p1@x", "p2"}) {
    PutMessage(id, "List-Exploder", {}, "Subject: held\r\n", "Hello\r\n");
    SControl control(Bytes(id));
    ASSERT_TRUE(control.Read());
    ASSERT_EQ(SListActions(&module, "news", S821Address()).Hold(Bytes(id), control), kListSuccess);
  }
  EXPECT_EQ(Run(Put({.body = "approve sesame accept p1@x\r\napprove sesame reject p2\r\n"})), kModuleDone);
  EXPECT_EQ(Field("control/p1@x-Control", "Approved:"), Texts{"yes"});
  EXPECT_FALSE(Exists("messages/p2-Body"));
  EXPECT_EQ(Words(Unframed(TakeSent().answers.at(0))), "Success, Success");
}

TEST_F(ListManagerTest, CommandThatFailsForNowWaitsAndTheOthersAreNotRepeated) {
  MakeList("torn");
  PutFile("listdata/torn", "123");
  std::string const name = Put(
      {.body = "approve sesame subscribe news\r\napprove sesame subscribe torn\r\nunsubscribe eve@far.example\r\n"});
  EXPECT_EQ(Run(name), kModuleDone);
  std::string const deferred = "deferred/List-Manager/" + name + "-Control";
  ASSERT_TRUE(Exists(deferred));
  EXPECT_EQ(Field(deferred, "List-Outcome!"), (Texts{"0 1", "2 9"}));
  EXPECT_TRUE(TakeSent().answers.empty());
  EXPECT_EQ(Members("news"), Texts{kJo});

  std::filesystem::remove(Path("listdata/torn"));
  SListManagerModule walker;
  walker.ProcessQueue();
  EXPECT_EQ(Words(Unframed(TakeSent().answers.at(0))), "Success, Success, NotSubscribed");
  EXPECT_EQ(Members("torn"), Texts{kJo});
  EXPECT_EQ(CountIn("messages"), 0);

  PutFile("listdata/torn", "123");
  std::string const old = Put({.body = "approve sesame unsubscribe torn\r\n"});
  timespec const times[2] = {{1000000000, 0}, {1000000000, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, Path("messages/" + old + "-Header").c_str(), times, 0), 0);
  EXPECT_EQ(Run(old), kModuleDone);
  EXPECT_EQ(Words(Unframed(TakeSent().answers.at(0))), "TempFail");
}

TEST_F(ListManagerTest, NothingIsAnsweredFromAccountsThatCannotBeRead) {
  SListManagerModule module;
  SListCommandRunner runner(module, S821Address(kJo), "news");
  struct {
    char const *line, *file;  // the file that the answer comes from
  } const rows[] = {
      {"which", "config/BTAccounts.i"},
      {"lists", "config/BTAccounts.i"},
      {"info news", "config/BTAccounts.a"},
      {"approve sesame who news", "config/BTAccounts.i"},
      {"approve sesame accept p1 news", "config/BTAccounts.a"},
  };
  for (auto const &row : rows) {
    SListCommand command;
    SListOutcome outcome;
    ASSERT_EQ(ParseListCommand(row.line, command), SListParse::kCommand) << row.line;
    SAccountBase::ClearReadFailed();
    EXPECT_NE(runner.Run(command, outcome), kListTempFail) << row.line;
    std::string const sound = FileBytes(row.file);
    PutFile(row.file, std::string(sound.size(), 'x'));
    EXPECT_EQ(runner.Run(command, outcome), kListTempFail) << row.line;
    EXPECT_EQ(Text(outcome.key), "TempFail") << row.line;
    PutFile(row.file, sound);
  }
}

TEST_F(ListManagerTest, AnswerThatCannotBeWrittenLeavesTheRequestAndItsOutcome) {
  std::string const name = Put({.body = "approve sesame subscribe\r\n"});
  setenv("HostName", "no/such/host", 1);  // no file can have the answer's name
  EXPECT_EQ(Run(name), kModuleDone);
  setenv("HostName", "mail.example.org", 1);
  EXPECT_EQ(Members("news"), Texts{kJo});
  ASSERT_TRUE(Exists("deferred/List-Manager/" + name + "-Control"));
  SListManagerModule walker;
  walker.ProcessQueue();
  EXPECT_EQ(Words(Unframed(TakeSent().answers.at(0))), "Success");
}

TEST_F(ListManagerTest, PassRepeatedAfterACrashChangesNothingMore) {
  for (int i = 0; i < 2; ++i) {  // the second time as if the first had died before it dropped the mail
    std::string const answer = Answer({.body = "approve sesame subscribe eve@far.example\r\n"});
    EXPECT_EQ(Words(answer), i == 0 ? "Success" : "AlreadySubscribed");
  }
  EXPECT_EQ(Members("news"), Texts{"eve@far.example"});
}

TEST_F(ListManagerTest, MailThatOthersWantTooGoesBackToTheHandler) {
  struct {
    char const *what;
    Texts control;
    bool goesOn;
    Texts modules, channels;
  } const cases[] = {
      {"another module",
       {"Module-To: List-Exploder news"},
       true,
       {"List-Manager news-Manager-Account", "List-Exploder news"},
       {}},
      {"an address", {"Channel-To: SMTP <x@far.example>"}, true, {}, {"SMTP <x@far.example>"}},
      {"an address that had it", {"Channel-To: SMTP <x@y.example>", "Channel-To! SMTP <x@y.example>"}, false, {}, {}},
      {"a second account of ours", {"Module-To: List-Manager List-Manager"}, false, {}, {}},
  };
  for (auto const &c : cases) {
    std::string const name = Put({.body = "which\r\n"}, c.control);
    EXPECT_EQ(Run(name), kModuleDone) << c.what;
    std::string const path = "control/" + name + "-Control";
    ASSERT_EQ(Exists(path), c.goesOn) << c.what;
    if (c.goesOn) {
      EXPECT_EQ(Field(path, "Function:"), Texts{"Account-Handler"}) << c.what;
      EXPECT_EQ(Field(path, "Module-To:"), c.modules) << c.what;
      EXPECT_EQ(Field(path, "Module-To!"), Texts{"List-Manager news-Manager-Account"}) << c.what;
      EXPECT_EQ(Field(path, "Channel-To:"), c.channels) << c.what;
    }
    (void)TakeSent();
  }
}

TEST_F(ListManagerTest, RefusesToStartWithoutASecret) {
  unsetenv("FormSigKey");
  char const *const words[] = {"List-Manager", "VerifyEnvironment", nullptr};
  EXPECT_EQ(SListManagerModule().Main(words), kModuleNoEnvironment);
}

}  // namespace
