// Files that are missing, torn or damaged: the message stays, nobody is called unknown, and once the fault is mended
// the message arrives once.
#include "tests/road/road_fixture.h"

namespace {

TEST_F(RoadTest, FaultKeepsTheMessageUntilItIsMended) {
  std::string const control = "control/m-Control", account = "config/BTAccounts.a", index = "config/BTAccounts.i";
  std::string saved;  // what the fault took away
  auto const move = [&](std::string const &from, std::string const &to) {
    std::filesystem::rename(Path(from), Path(to));
  };
  auto const save = [&](std::string const &path) { return saved = FileBytes(path); };
  auto const garbage = [&](std::string const &path, size_t from) {
    std::string bytes = save(path);
    ASSERT_GT(bytes.size(), from);
    PutFile(path, bytes.substr(0, from) + std::string(bytes.size() - from, '\x5a'));
  };
  struct {
    char const *why;
    std::function<void()> plant, mend;
  } const rows[] = {
      {"a directory in place of the control file",
       [&] { move(control, "aside"), std::filesystem::create_directory(Path(control)); },
       [&] { std::filesystem::remove(Path(control)), move("aside", control); }},
      {"control file cut inside its first field", [&] { PutFile(control, save(control).substr(0, 15)); },
       [&] { PutFile(control, saved); }},
      {"control file cut behind its function", [&] { PutFile(control, save(control).substr(0, 40)); },
       [&] { PutFile(control, saved); }},
      {"empty control file", [&] { save(control), PutFile(control, ""); }, [&] { PutFile(control, saved); }},
      {"no header file", [&] { move("messages/m-Header", "aside"); }, [&] { move("aside", "messages/m-Header"); }},
      {"no body file", [&] { move("messages/m-Body", "aside"); }, [&] { move("aside", "messages/m-Body"); }},
      {"a file in place of the mailbox root",
       [&] { std::filesystem::remove_all(Path("mailboxes")), PutFile("mailboxes", ""); },
       [&] { std::filesystem::remove(Path("mailboxes")), std::filesystem::create_directory(Path("mailboxes")); }},
      {"a file in place of the mailbox folder", [&] { PutFile(InboxOf("ann"), ""); },
       [&] { std::filesystem::remove(Path(InboxOf("ann"))); }},
      {"first page of the accounts damaged", [&] { garbage(account, 0); }, [&] { PutFile(account, saved); }},
      {"later pages of the accounts damaged", [&] { garbage(account, 4096); }, [&] { PutFile(account, saved); }},
      {"first page of the index damaged", [&] { garbage(index, 0); }, [&] { PutFile(index, saved); }},
      {"later pages of the index damaged", [&] { garbage(index, 4096); }, [&] { PutFile(index, saved); }},
      {"settings damaged", [&] { garbage("config/registry.sqlite", 0); },
       [&] { PutFile("config/registry.sqlite", saved); }},
  };
  for (auto const &row : rows) {
    SCOPED_TRACE(row.why);
    PutMessage("control", "m", "<ann@example.org>", "body\r\n");
    row.plant();
    ProgramRun const run = RunRouter("m");
    EXPECT_LT(run.code, 128) << "ended by a signal\n" << run.err;
    EXPECT_NE(ControlOf("m"), "") << run.err;
    EXPECT_EQ(FileBytes(ControlOf("m")).find("Error-Handler"), std::string::npos) << FileBytes(ControlOf("m"));
    for (std::string const &name : NamesIn("control"))
      EXPECT_EQ(FileBytes("control/" + name).find("Unknown"), std::string::npos) << FileBytes("control/" + name);
    EXPECT_TRUE(StoredFor("ann").empty());

    row.mend();
    if (ControlOf("m") == control)
      EXPECT_EQ(RunRouter("m").code, 0);
    else
      EXPECT_EQ(Brenthaven({"queue", "run"}).code, 0);
    EXPECT_EQ(StoredFor("ann"), Words({"Return-Path: <sender@far.example>\r\nSubject: test\r\n\r\nbody\r\n"}));
    EXPECT_EQ(ControlOf("m"), "");
    std::filesystem::remove_all(Path(InboxOf("ann")));
    for (char const *directory : {"control", "messages", "deferred"}) {
      std::filesystem::remove_all(Path(directory));
      std::filesystem::create_directory(Path(directory));
    }
  }
}

}  // namespace
