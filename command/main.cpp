// brenthaven: the administrator's command. Under the names "sendmail", "mailq" and "newaliases" it is the program that
// others expect there.
#include <sysexits.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "brenthaven/accounts/account.h"
#include "brenthaven/platform/environment.h"
#include "command/command.h"

namespace {

bool IsSendmailName(char const *program) {
  char const *const slash = strrchr(program, '/');
  std::string_view const name = slash != nullptr ? slash + 1 : program;
  return name == "sendmail" || name == "mailq" || name == "newaliases";
}

int Run(int argc, char **argv) {
  GuardProcess();
  if (argc > 0 && IsSendmailName(argv[0])) return SendmailMain(argc, argv);

  Command command;
  CLI::App app("Administers one mail-server instance.", "brenthaven");
  app.require_subcommand(1);
  app.option_defaults()->always_capture_default(false);
  app.failure_message([](CLI::App const *, CLI::Error const &error) {
    return "brenthaven: " + std::string(error.what()) + "; see brenthaven --help\n";
  });
  if (char const *const root = getenv("Brenthaven")) command.root = root;
  app.add_option("--root", command.root, "directory of the instance (default: the environment's Brenthaven)");
  AddInit(app, command);
  AddConfig(app, command);
  AddAccount(app, command);
  AddAlias(app, command);
  AddSubmit(app, command);
  AddQueue(app, command);
  AddMailbox(app, command);
  AddList(app, command);
  AddTrace(app, command);
  AddAsk(app, command);
  AddDoctor(app, command);
  AddRecover(app, command);
  try {
    app.parse(argc, argv);
  } catch (CLI::ParseError const &error) {
    int const result = app.exit(error);
    return result == 0 ? 0 : EX_USAGE;  // 0: help was asked for
  }
  if (SAccountBase::WriteFailed()) Fail(command, EX_IOERR, "the account files could not be written");
  return command.code;
}

}  // namespace

int main(int argc, char **argv) {
  try {
    return Run(argc, argv);
  } catch (std::exception const &error) {  // the option parser's, or memory that ran out
    fprintf(stderr, "brenthaven: %s\n", error.what());
    return EX_SOFTWARE;
  }
}
