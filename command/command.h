// command/command.h - what the subcommands of `brenthaven` share.
#pragma once
#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <ctime>
#include <string>
#include <string_view>

#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// One run of the command: its global options and how it ends.
struct Command {
  std::string root;     // --root, else the environment's Brenthaven
  int code = 0;         // exit code, of sysexits.h
  bool failed = false;  // a line was printed on standard error; the first one decides the code
};

// A text for an error line, which repeats what a caller gave: control bytes become "?".
std::string OneLine(std::string text);

// Prints "brenthaven: TEXT" on standard error and sets the exit code, unless an earlier failure has set it.
void Fail(Command &command, int code, std::string const &text);

// Takes over the instance under the root: its environment and the running dispatcher's address. False, after a Fail,
// when there is no root, no instance in it, or when others than its user and group can write in it.
bool EnterInstance(Command &command);

// Where the executables of the modules lie, seen from this program.
std::string ModuleDirectory();

// Each adds its subcommand to the application. The command outlives it.
void AddInit(CLI::App &app, Command &command);
void AddConfig(CLI::App &app, Command &command);
void AddAccount(CLI::App &app, Command &command);
// Below "account".
void AddAccountCheck(CLI::App &account, Command &command);
void AddAccountPassword(CLI::App &account, Command &command);
void AddAccountSearch(CLI::App &account, Command &command);
void AddAlias(CLI::App &app, Command &command);
void AddSubmit(CLI::App &app, Command &command);
void AddQueue(CLI::App &app, Command &command);
void AddMailbox(CLI::App &app, Command &command);
void AddList(CLI::App &app, Command &command);
void AddTrace(CLI::App &app, Command &command);
void AddAsk(CLI::App &app, Command &command);
void AddDoctor(CLI::App &app, Command &command);
void AddRecover(CLI::App &app, Command &command);

// Prints the router's decision for each address, step by step: an exit code, EX_NOUSER when one would be refused.
int ExplainAddresses(Command &command, std::vector<std::string> const &addresses, std::string const &sender);

// The program under its other names, "sendmail", "mailq" and "newaliases": an exit code of sysexits.h.
int SendmailMain(int argc, char **argv);

// "2026-11-24 17:34:04", in local time, for a listing.
std::string LocalTimeText(time_t time);

// How far a long run has come, on standard error, and on a terminal only, so that a log has no half lines.
void ShowProgress(int done, int total);

// A list of SString from what the command line gave.
SStringList ToList(std::vector<std::string> const &words);
std::string ToStd(SString const &text);
