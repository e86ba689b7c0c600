// brenthaven doctor: faults are planted, told, mended with --fix where that loses nothing, and gone then.
#include <sys/stat.h>

#include <functional>

#include "tests/command/command_fixture.h"

namespace {

class DoctorTest : public CommandTest {
protected:
  DoctorTest() {
    Init();
    PutFile("messages/kept-Header", "A: b\r\n");  // younger than a day: may be in the making
  }
  void Age(std::string const &relative, int hours) const {
    std::filesystem::last_write_time(Path(relative),
                                     std::filesystem::file_time_type::clock::now() - std::chrono::hours(hours));
  }
};

TEST_F(DoctorTest, PlantedFaultTable) {
  std::string settings;
  std::string const control = "Function: SMTP-Router\r\nControl-Type: Mail\r\nUser-From: SMTP<>\r\n";
  struct {
    std::string fault;  // a part of its line
    bool mends;
    std::function<void()> plant, cure;  // the cure is the administrator's, where --fix has none
  } const rows[] = {
      {"/deferred is missing", true, [&] { std::filesystem::remove(Path("deferred")); }, nullptr},
      {"/config/registry.sqlite is open to others", true, [&] { chmod(Path("config/registry.sqlite").c_str(), 0666); },
       nullptr},
      {"/config/environment is open to others", true, [&] { chmod(Path("config/environment").c_str(), 0664); },
       nullptr},
      {"/config/registry.sqlite: ", false,
       [&] {
         settings = FileBytes("config/registry.sqlite");
         PutFile("config/registry.sqlite", std::string(settings).replace(4096, 4096, 4096, '\0'));
       },
       [&] { PutFile("config/registry.sqlite", settings); }},
      {"/control is open to others", true, [&] { chmod(Path("control").c_str(), 0777); }, nullptr},
      {"/control/m1-Control.temp was left half written", true,
       [&] { PutFile("control/m1-Control.temp", "half"), Age("control/m1-Control.temp", 1); }, nullptr},
      {"/messages/m2-Body belongs to no control file", true,
       [&] { PutFile("messages/m2-Body", "body"), Age("messages/m2-Body", 25); }, nullptr},
      {"/control/m3-Control cannot be read as a control file", false,
       [&] { PutFile("control/m3-Control", "no field"), Age("control/m3-Control", 1); },
       [&] { std::filesystem::remove(Path("control/m3-Control")); }},
      {"/messages/m4-Body is missing", false,
       [&] {
         PutFile("control/m4-Control", control), Age("control/m4-Control", 1);
         PutFile("messages/m4-Header", "A: b\r\n");
       },
       [&] { PutFile("messages/m4-Body", ""); }},
      {"m5 failed too often", false,
       [&] {
         PutFile("control/failed/m5-Control", control), Age("control/failed/m5-Control", 1);
         PutFile("messages/m5-Header", "A: b\r\n"), PutFile("messages/m5-Body", "");
       },
       [&] {
         Good({"queue", "remove", "m5"});
       }},
      {"config/environment is missing", false, [&] { std::filesystem::rename(Path("config/environment"), Path("e")); },
       [&] { std::filesystem::rename(Path("e"), Path("config/environment")); }},
      {"there is no account Postmaster", false,
       [&] {
         Good({"account", "delete", "Postmaster"});
       },
       [&] { Init(); }},
      {"RoutingTable: no line is not of the form pattern:target", false,
       [&] {
         Good({"config", "set", "SMTP-Router//RoutingTable", "a.example:b", "no line"});
       },
       [&] {
         Good({"config", "unset", "SMTP-Router//RoutingTable"});
       }},
      {"RoutingTable: ((:b has a pattern that does not compile", false,
       [&] {
         Good({"config", "set", "SMTP-Router//RoutingTable", "((:b"});
       },
       [&] {
         Good({"config", "unset", "SMTP-Router//RoutingTable"});
       }},
      {"Archive-Rule: <*><*><vault> not of the form", false,
       [&] {
         Good({"config", "set", "SMTP-Router/Config/Archive-Rule", "<*><*><vault><>", "<*><*><vault>"});
       },
       [&] {
         Good({"config", "unset", "SMTP-Router/Config/Archive-Rule"});
       }},
      {"SideLineDetailFilters: Subject spam and is no filter line", false,
       [&] {
         Good({"config", "set", "SMTP-Router/Config/SideLineDetailFilters", "Subject spam and"});
       },
       [&] {
         Good({"config", "unset", "SMTP-Router/Config/SideLineDetailFilters"});
       }},
      {"Archive-Rule of the account ann names no host: a/b", false,
       [&] {
         Good({"account", "set", "ann", "Archive-Rule", "a/b"});
         Good({"config", "set", "Account-Handler/Config/Archive-Enabled", "yes"});
       },
       [&] {
         Good({"account", "delete", "ann"});
       }},
      {"account files", false, [&] { PutFile("config/BTAccounts.a", std::string(65536, '\x5a')); }, nullptr},
  };
  EXPECT_EQ(Good({"doctor"}), "all well\n");
  for (auto const &row : rows) {
    row.plant();
    ProgramRun run = Brenthaven({"doctor"});
    EXPECT_EQ(run.code, EX_DATAERR) << row.fault;
    EXPECT_NE(run.out.find(row.fault), std::string::npos) << row.fault << "\n" << run.out;
    run = Brenthaven({"doctor", "--fix"});
    EXPECT_EQ(run.code, row.mends ? 0 : EX_DATAERR) << row.fault << "\n" << run.out;
    if (!row.mends && row.cure == nullptr) break;
    if (row.cure != nullptr) row.cure();
    EXPECT_EQ(Good({"doctor"}), "all well\n") << row.fault;
  }
  EXPECT_EQ(FileBytes("lost/m2-Body"), "body") << "moved, not deleted";
  EXPECT_TRUE(Exists("messages/kept-Header"));
}

}  // namespace
