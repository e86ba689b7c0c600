// The routing table in memory and its compiled form.
#include "brenthaven/router/routetable.h"

#include <cerrno>
#include <cstring>
#include <deque>
#include <random>

#include "brenthaven/platform/sys.h"

#include "tests/router/router_fixture.h"

namespace {

// The lines as expressions, tried one after another, with no short cut.
class PlainTable {
public:
  explicit PlainTable(Texts const &lines) : _lines(lines) {
    for (std::string const &line : lines) {
      SString expression("^");
      for (char const c : line.substr(0, line.rfind(':')))
        expression += c == '.' ? SString("\\.") : c == '*' ? SString(".*") : SString(std::string_view(&c, 1));
      _expressions.emplace_back(expression + "$", "i");
    }
  }
  std::string Find(std::string const &host) const {
    for (size_t i = 0; i < _lines.size(); ++i)
      if (Bytes(host).HasMatch(_expressions[i])) return _lines[i];
    return "";
  }

private:
  Texts _lines;
  std::deque<SPerlRegex> _expressions;
};

TEST(RouteTableTest, ShortCutsFindTheLineThatExpressionsFind) {
  std::mt19937 random(7);
  auto const text = [&random](char const *alphabet, size_t length) {
    std::string made;
    for (size_t i = 0; i < length; ++i) made += alphabet[random() % strlen(alphabet)];
    return made;
  };
  testing::internal::CaptureStderr();  // of expressions that do not compile
  for (int round = 0; round < 1000; ++round) {
    Texts lines;
    for (int i = 0; i < 8; ++i)
      lines.push_back(text(round % 2 != 0 ? "ab.*" : "aB.*|()[]+", 1 + random() % 6) + ":t" + std::to_string(i));
    SRouteTable const table(ListOf(lines));
    PlainTable const plain(lines);
    for (int i = 0; i < 40; ++i) {
      std::string const host = text("abA.", random() % 6);
      SRouteLine const *const line = table.Find(Bytes(host));
      ASSERT_EQ(line != nullptr ? Text(line->Text()) : "", plain.Find(host)) << host << " in " << Joined(lines);
    }
  }
  (void)testing::internal::GetCapturedStderr();
}

TEST(RouteTableTest, HostileHostsAndLinesTakeBoundedTime) {
  Texts lines;
  for (int i = 0; i < 200; ++i) lines.push_back("*a*a*a*a*a*a*a*b" + std::to_string(i) + "*:t");
  lines.push_back("*" + std::string(300, 'a') + ":t");
  SRouteTable const table(ListOf(lines));
  EXPECT_EQ(table.Find(SString('a', 250)), nullptr);
  EXPECT_NE(table.Find(SString('a', 1 << 20)), nullptr);
}

class CompiledTableTest : public RouterTest {
protected:
  CompiledTableTest() {
    setenv("FastMRT", Path("config/routes").c_str(), 1);
    Setting("SMTP-Router", "/", "RoutingTable", {"a.example:b", "A.example:c", "a.example:d"});
  }
  static void Compile(int result = kModuleDone) {
    char const *verify[] = {"SMTP-Router", "VerifyEnvironment", nullptr};
    EXPECT_EQ(SSMTPRouterModule().Main(verify), result);
  }
  static std::string Routed(char const *host) {
    SSMTPRouterModule router;
    EXPECT_EQ(router.LoadEnv(), 1u);
    return Text(router.RewriteSMTPAddrs(host));
  }
};

TEST_F(CompiledTableTest, FirstOfEqualPatternsCounts) {
  Compile();
  EXPECT_EQ(Routed("a.example"), "b");
}

TEST_F(CompiledTableTest, RunningModuleSeesTheTableThatWasSwappedIn) {
  Compile();
  SSMTPRouterModule running;
  ASSERT_EQ(running.LoadEnv(), 1u);
  EXPECT_EQ(running.RewriteSMTPAddrs("a.example"), "b");
  Setting("SMTP-Router", "/", "RoutingTable", {"a.example:new"});
  Compile();
  EXPECT_EQ(running.RewriteSMTPAddrs("a.example"), "new");
}

TEST_F(CompiledTableTest, LinkAtTheTemporaryNameIsNotFollowed) {
  PutFile("precious", "as it was");
  std::string const temporary = "config/routes." + std::to_string(getpid());
  std::filesystem::create_symlink(Path("precious"), Path(temporary));
  Compile();
  EXPECT_EQ(FileBytes("precious"), "as it was");
  EXPECT_EQ(Routed("a.example"), "b");
  EXPECT_FALSE(Exists(temporary));
}

TEST_F(CompiledTableTest, LinkAsTheTableIsReadAndThenReplaced) {
  Compile();
  std::filesystem::rename(Path("config/routes"), Path("elsewhere"));
  std::filesystem::create_symlink(Path("elsewhere"), Path("config/routes"));
  EXPECT_EQ(Routed("a.example"), "b");
  Setting("SMTP-Router", "/", "RoutingTable", {"a.example:new"});
  Compile();
  EXPECT_EQ(Routed("a.example"), "new");
  EXPECT_FALSE(std::filesystem::is_symlink(Path("config/routes")));
}

TEST_F(CompiledTableTest, RefusedSwapKeepsTheOldTableAndLeavesNothing) {
  Compile();
  Setting("SMTP-Router", "/", "RoutingTable", {"a.example:new"});
  sys::SetHook(
      [](sys::CallInfo const &call, void *) {
        return strcmp(call.name, "rename") == 0 && strstr(call.path, "routes") != nullptr ? EACCES : 0;
      },
      nullptr);
  testing::internal::CaptureStderr();
  Compile(kModuleNoEnvironment);
  sys::SetHook(nullptr, nullptr);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Routing table not written"), std::string::npos);
  EXPECT_EQ(Routed("a.example"), "b");
  EXPECT_EQ(CountIn("config"), 2) << "settings and table";
}

// Mail goes on, to the host as it stands, and does not wait for a table that somebody has to mend.
TEST_F(CompiledTableTest, DamagedTableLeavesHostsAsTheyAreWithALine) {
  Compile();
  std::string const whole = FileBytes("config/routes");
  std::string torn = whole;
  torn.replace(4096, torn.size() - 4096, std::string(torn.size() - 4096, '\x5a'));
  struct {
    char const *why;
    std::string bytes;
  } const cases[] = {
      {"missing", ""},
      {"no store", "a.example:b\n"},
      {"cut off", whole.substr(0, whole.size() / 2)},
      {"pages overwritten", torn},
      {"all of one byte", std::string(whole.size(), '\x5a')},
  };
  for (auto const &c : cases) {
    PutFile("config/routes", c.bytes);
    if (c.bytes.empty()) std::filesystem::remove(Path("config/routes"));
    testing::internal::CaptureStderr();
    EXPECT_EQ(Route({"SMTP <x@a.example>", "SMTP <x@far.example>"}),
              "host a.example: <x@a.example> | host far.example: <x@far.example>")
        << c.why;
    std::string const log = testing::internal::GetCapturedStderr();
    size_t const line = log.find(":SMTP-Router:Compiled routing table ");
    EXPECT_NE(line, std::string::npos) << c.why;
    EXPECT_EQ(log.find("Compiled", line + 40), std::string::npos) << c.why << ": once a module";
  }
  PutFile("config/routes", whole);
  EXPECT_EQ(Routed("a.example"), "b");
}

// Longer than any other setting may be.
TEST_F(CompiledTableTest, FiftyThousandLinesCompile) {
  Texts lines;
  for (int i = 0; i < 50000; ++i) lines.push_back("h" + std::to_string(i) + ".customer.example:hub.example");
  Setting("SMTP-Router", "/", "RoutingTable", lines);
  Compile();
  EXPECT_EQ(Routed("h49999.customer.example"), "hub.example");
  EXPECT_EQ(Routed("h50000.customer.example"), "h50000.customer.example");
}

}  // namespace
