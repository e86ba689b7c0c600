// brenthaven account check: whether the account files can be read and agree; --repair writes them anew.
#include <sysexits.h>

#include <cstdio>
#include <memory>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/accounts/check.h"
#include "brenthaven/accounts/repair.h"
#include "command/command.h"

namespace {

void Repair(Command &command) {
  SAccountRepair const repair = RepairAccountFiles();
  if (!repair.done) return Fail(command, EX_IOERR, "cannot write the account files anew; nothing was changed");
  printf("%ld accounts with %ld attributes written anew, %ld records dropped%s; the old files end in .damaged\n",
         repair.accounts, repair.records, repair.dropped, repair.salvaged ? ", from a file with damaged pages" : "");
}

void Check(Command &command, bool repair) {
  if (!EnterInstance(command)) return;
  { SAccountDBMod const section; }  // finishes what a writer who died had decided
  SAccountBase::ClearReadFailed();
  SAccountBase::ClearWriteFailed();
  SAccountCheck const check = CheckAccountFiles([](SString const &fault) { puts(OneLine(ToStd(fault)).c_str()); });
  bool const isReadable = !check.readFailed && SAccountBase::ReadFailed() == 0;
  printf("%ld attributes, %ld index entries, %ld faults\n", check.attributes, check.entries, check.faults);
  if (isReadable && check.faults == 0) return;
  if (repair) return Repair(command);
  if (!isReadable) return Fail(command, EX_IOERR, "the account files cannot be read; see: account check --repair");
  Fail(command, EX_DATAERR, "the account files disagree; see: account check --repair");
}

}  // namespace

void AddAccountCheck(CLI::App &account, Command &command) {
  auto const repair = std::make_shared<bool>(false);
  CLI::App *const check = account.add_subcommand("check", "check both account files against each other");
  check->add_flag("--repair", *repair, "write them anew from what can be read; the old ones stay beside them");
  check->callback([&command, repair] { Check(command, *repair); });
}
