// A mailing list as its users know it: they join by mail, post, are moderated, bounce and leave. The modules are the
// real programs, run one after the other as the dispatcher would; each step's mail is compared with expected.txt.
#include <fcntl.h>
#include <sys/stat.h>

#include <map>
#include <regex>
#include <set>

#include "tests/road/road_fixture.h"

namespace {

class ListsScenarioTest : public RoadTest {
protected:
  ListsScenarioTest() {
    setenv("FormSigKey", "swordfish", 1);
    setenv("MaxBounceCount", "3", 1);
    for (std::string const uid : {"carl", "olga"}) Good({"account", "add", uid, "--address", uid + "@example.org"});
    Good({"config", "set", "MTA-Accounts//LocalMailDomains", "example.org", "bounces.example.org"});
    Good({"config", "set", "List-Exploder/Config/List-VERP", "yes"});
    Good({"config", "set", "List-Exploder/Config/List-VERP-Domain", "bounces.example.org"});
    Good({"account", "set", "Bounces", "SMTP-Address", "*@bounces.example.org"});
    Good({"account", "set", "Bounces", "Handler-Delivery", "List-Exploder"});
    std::ifstream file(EXPECTED);
    std::string title;
    for (std::string line; std::getline(file, line);) {
      if (line.starts_with("### "))
        title = line.substr(4);
      else
        _expected[title] += line + "\n";
    }
  }

  // A mail as it arrives from outside or from a user's program.
  void Send(std::string const &sender, std::string const &recipient, std::string const &subject,
            std::string const &body) {
    std::string const from = sender.empty() ? "MAILER-DAEMON@far.example" : sender;
    Good({"submit", "--from", sender.empty() ? "<>" : sender, recipient},
         "From: " + from + "\r\nTo: " + recipient + "\r\nSubject: " + subject + "\r\nMessage-ID: <" +
             std::to_string(++_sent) + "@sent.example>\r\n\r\n" + body);
    RunSpool();
  }

  // Has each module do its work, until only mail for other hosts is left.
  void RunSpool() const {
    for (bool isWorking = true; isWorking;) {
      isWorking = false;
      for (std::string const &file : NamesIn("control")) {
        std::string const text = FileBytes("control/" + file);
        std::string const function = text.substr(10, text.find('\r') - 10);
        if (function == "SMTP-Deliver") continue;
        isWorking = true;
        std::string const name = file.substr(0, file.rfind('-'));
        setenv("ModuleName", function.c_str(), 1);
        ProgramRun const run = RunProgram(MODULES "/" + function, {function, "MessageFile", name});
        ASSERT_EQ(run.code, 0) << function << ": " << run.err << text;
      }
    }
  }
  void WalkExploder() const {
    setenv("ModuleName", "List-Exploder", 1);
    ProgramRun const run = RunProgram(MODULES "/List-Exploder", {"List-Exploder", "ProcessQueue"});
    ASSERT_EQ(run.code, 0) << run.err;
    RunSpool();
  }

  // What has come since the last look, each mail under a line of its own.
  std::string Collect() {
    std::vector<std::string> mails;
    for (std::string const uid : {"ann", "bob", "carl", "olga", "Postmaster"})
      if (std::filesystem::is_directory(Path(InboxOf(uid))))
        for (std::string const &name : NamesIn(InboxOf(uid)))
          if (isdigit(static_cast<unsigned char>(name[0])) && _seen.insert(uid + name).second)
            mails.push_back("=== mailbox of " + uid + "\n" + FileBytes(InboxOf(uid) + "/" + name));
    for (std::string const &file : NamesIn("control")) {
      std::string const name = file.substr(0, file.rfind('-')), header = "messages/" + name + "-Header",
                        body = "messages/" + name + "-Body";
      mails.push_back("=== for another host\n" + FileBytes("control/" + file) + "---\n" + FileBytes(header) + "\n" +
                      FileBytes(body));
      for (std::string const &path : {"control/" + file, header, body}) std::filesystem::remove(Path(path));
    }
    for (std::string &mail : mails) mail = Masked(mail);
    std::sort(mails.begin(), mails.end());
    std::string all;
    for (std::string const &mail : mails) all += mail + (mail.ends_with("\n") ? "" : "\n");
    return all;
  }

  // Line ends become LF, and what differs from run to run becomes a word.
  static std::string Masked(std::string text) {
    std::erase(text, '\r');
    static std::pair<std::regex, char const *> const masks[] = {
        {std::regex("[0-9]{17}\\.[A-Z]+[0-9]+(\\.[0-9]+)?@mail\\.example\\.org"), "ID"},
        {std::regex("[A-Z][a-z]{2}, +[0-9]+ [A-Z][a-z]{2} [0-9]{4} [0-9:]{8} [-+][0-9]{4}"), "DATE"},
        {std::regex("[sdu][0-9]+-[0-9a-f]{24}"), "KEY"},
        {std::regex("[0-9a-f]{8}\\+news\\+"), "KEY+news+"},
        {std::regex("=+_ _= [0-9]+\\([0-9]+\\)"), "BOUNDARY"},
        {std::regex("(Host-From: |Submitted-Via: ).*"), "$1..."},
    };
    for (auto const &[pattern, word] : masks) text = std::regex_replace(text, pattern, word);
    return text;
  }

  // The step's mail is as expected.txt has it under this title.
  void Expect(std::string const &title) {
    std::string const got = Collect();
    EXPECT_EQ(got, _expected[title]) << "### " << title << "\n" << got;
    _titles.insert(title);
  }

  // The line of a mail that begins with a text, and what is behind it there.
  static std::string Behind(std::string const &mail, std::string const &text) {
    size_t const at = ("\n" + mail).find("\n" + text);
    if (at == std::string::npos) return "";
    size_t const begin = at + text.size();
    return mail.substr(begin, mail.find_first_of("\r\n", begin) - begin);
  }
  // Replies to the last key mail, as a mail program does.
  void Confirm(std::string const &who, std::string const &keyMail) {
    std::string const subject = Behind(keyMail, "Subject: ");
    EXPECT_TRUE(subject.starts_with("confirm ")) << keyMail;
    Send(who, Behind(keyMail, "Reply-To: "), "Re: " + subject, "I do.\r\n\r\n> " + subject + "\r\n");
  }
  // The newest stored mail that has a text in it.
  std::string LastStored(std::string const &uid, std::string const &text) const {
    std::string last;
    for (std::string const &mail : StoredFor(uid))
      if (mail.find(text) != std::string::npos) last = mail;
    return last;
  }
  std::string SortedMembers() const {
    Words lines;
    std::istringstream text(Good({"list", "members", "news"}));
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    std::sort(lines.begin(), lines.end());
    std::string all;
    for (std::string const &line : lines) all += line + "; ";
    return all;
  }

  std::map<std::string, std::string> _expected;
  std::set<std::string> _titles;
  std::set<std::string> _seen;
  int _sent = 0;
};

TEST_F(ListsScenarioTest, ListLives) {
  Good({"list", "create", "news", "--owner", "olga", "--info", "What is new"});
  Good({"list", "set", "news", "List-Nonsubscriber-Posting-Policy", "moderated"});
  Good({"list", "set", "news", "List-Verify-Unsubscriptions", "no"});
  Good({"list", "set", "news", "List-Welcome-Info", "Be kind."});
  Good({"list", "set", "news", "List-Epilogue", "--", "news mailing list"});

  Send("ann@example.org", "news-request@example.org", "subscribe", "");
  Expect("ann asks to join");
  Confirm("ann@example.org", LastStored("ann", "Subject: confirm "));
  Expect("ann confirms");
  for (std::string const who : {"bob", "carl"}) {
    Send(who + "@example.org", "list.manager@example.org", "please",
         who == "bob" ? "subscribe news digest" : "subscribe news");
    Confirm(who + "@example.org", LastStored(who, "Subject: confirm "));
  }
  Expect("bob joins for digests, and carl");
  for (std::string const who : {"jo@far.example", "eve@away.example"}) {
    Send(who, "news-request@example.org", "subscribe", "");
    Words keys;
    for (std::string const &file : NamesIn("messages"))
      if (file.ends_with("-Header") && FileBytes("messages/" + file).find("Subject: confirm ") != std::string::npos)
        keys.push_back(FileBytes("messages/" + file));
    ASSERT_EQ(keys.size(), 1u);
    Expect(who + " asks to join");
    Confirm(who, keys[0]);
    Expect(who + " confirms");
  }
  EXPECT_EQ(SortedMembers(),
            "ann@example.org  immediate; bob@example.org  digest; carl@example.org  immediate; "
            "eve@away.example  immediate; jo@far.example  immediate; ");

  Send("jo@far.example", "news@example.org", "Hello", "Hello all.\r\n");
  Expect("jo posts");

  Send("sam@else.example", "news@example.org", "Buy", "Buy it.\r\n");
  Expect("a stranger posts and is held");
  std::string const held = Good({"list", "held", "news"});
  Good({"list", "approve", "news", held.substr(0, held.find("  "))});
  RunSpool();
  Expect("olga lets the stranger's posting through");

  for (auto const &entry : std::filesystem::directory_iterator(Path("List-Exploder/digest/news"))) {
    timespec const longAgo[] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, entry.path().c_str(), longAgo, 0), 0);
  }
  WalkExploder();
  Expect("bob gets the digest");

  for (int i = 1; i <= 3; ++i) {
    Send("ann@example.org", "news@example.org", "Number " + std::to_string(i), "Text.\r\n");
    std::string eves;
    for (std::string const &file : NamesIn("control"))
      if (FileBytes("control/" + file).find("<eve@away.example>") != std::string::npos)
        eves = Behind(FileBytes("control/" + file), "User-From: SMTP<");
    Expect("ann posts number " + std::to_string(i));
    ASSERT_NE(eves.find("@bounces.example.org"), std::string::npos) << eves;
    EXPECT_NE(SortedMembers().find("eve@away.example"), std::string::npos) << i;
    Send("", eves.substr(0, eves.size() - 1), "Undeliverable", "No such user.\r\n");
    Expect("eve's mail comes back " + std::to_string(i));
  }
  EXPECT_EQ(SortedMembers().find("eve@away.example"), std::string::npos);

  std::string const leave = Behind(LastStored("ann", "Subject: Number 3"), "List-Unsubscribe: <mailto:");
  size_t const question = leave.find("?subject=");
  ASSERT_NE(question, std::string::npos) << leave;
  std::string subject = leave.substr(question + 9, leave.find('>') - question - 9);
  if (size_t const blank = subject.find("%20"); blank != std::string::npos) subject.replace(blank, 3, " ");
  Send("jo@far.example", leave.substr(0, question), subject, "");
  Expect("jo leaves by the address of List-Unsubscribe");
  Send("ann@example.org", "news@example.org", "Who is left?", "Nobody elsewhere.\r\n");
  Expect("ann posts to those who are left");
  EXPECT_EQ(SortedMembers(), "ann@example.org  immediate; bob@example.org  digest; carl@example.org  immediate; ");
  EXPECT_EQ(NamesIn("control"), Words{});
  EXPECT_EQ(NamesIn("messages"), Words{});
  for (auto const &[title, text] : _expected) EXPECT_TRUE(_titles.contains(title)) << title << " is no step";
}

}  // namespace
