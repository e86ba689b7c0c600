// tests/command/command_fixture.h - the real command, called on a scratch instance.
#pragma once
#include <sysexits.h>
#include <unistd.h>

#include <algorithm>

#include "tests/support/program.h"
#include "tests/support/scratch.h"

using Words = std::vector<std::string>;

class CommandTest : public ScratchSpool {
protected:
  CommandTest() {
    setenv("TZ", "UTC", 1);
    for (char const *name : {"LD_PRELOAD", "ASAN_OPTIONS"}) unsetenv(name);
  }
  ProgramRun Brenthaven(Words args, std::string const &input = "") const {
    args.insert(args.begin(), "brenthaven");
    return RunProgram(COMMAND_PROGRAM, args, input);
  }
  ProgramRun Sendmail(Words args, std::string const &input = "", char const *name = "sendmail") const {
    args.insert(args.begin(), name);
    return RunProgram(COMMAND_PROGRAM, args, input);
  }
  void Init() const {
    for (char const *name : {"messages", "control", "deferred", "mailboxes", "run", "config"}) {
      std::error_code kept;  // what is not empty belongs to an instance that was made before
      std::filesystem::remove(Path(name), kept);
    }
    ProgramRun const run = Brenthaven({"init", "--domain", "example.org", "--host", "mail.example.org"});
    ASSERT_EQ(run.code, 0) << run.err;
  }
  // Runs a call that must succeed, and gives what it printed.
  std::string Good(Words const &args, std::string const &input = "") const {
    ProgramRun const run = Brenthaven(args, input);
    EXPECT_EQ(run.code, 0) << args[0] << ": " << run.err;
    EXPECT_EQ(run.err, "");
    return run.out;
  }
  // Names of the files of a directory, in order.
  Words NamesIn(std::string const &relative) const {
    Words names;
    for (auto const &entry : std::filesystem::directory_iterator(Path(relative)))
      if (entry.is_regular_file()) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }
  // The one message that waits: its header and body, after taking it out of the spool.
  struct Waiting {
    std::string control, header, body;
  };
  Waiting TakeWaiting() const {
    Words const controls = NamesIn("control");
    EXPECT_EQ(controls.size(), 1u);
    if (controls.size() != 1) return {};
    std::string const name = controls[0].substr(0, controls[0].rfind('-'));
    Waiting const waiting = {FileBytes("control/" + controls[0]), FileBytes("messages/" + name + "-Header"),
                             FileBytes("messages/" + name + "-Body")};
    for (std::string const &path :
         {"control/" + controls[0], "messages/" + name + "-Header", "messages/" + name + "-Body"})
      std::filesystem::remove(Path(path));
    return waiting;
  }
  bool SpoolIsEmpty() const { return NamesIn("control").empty() && NamesIn("messages").empty(); }
};

// Whether a text has a line like that.
inline bool HasLine(std::string const &text, std::string const &line) {
  return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
}
