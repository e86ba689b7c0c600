// brenthaven recover: puts the spool in order after a crash, when no dispatcher runs.
#include <sysexits.h>

#include <cstdio>
#include <cstring>
#include <memory>

#include "brenthaven/platform/descriptor.h"
#include "brenthaven/platform/sys.h"
#include "brenthaven/recovery/recovery.h"
#include "command/command.h"

namespace {

struct Options {
  bool quiet = false;
  long quietSeconds = 0;
};

void Recover(Command &command, Options const &options) {
  if (!EnterInstance(command)) return;
  // The dispatcher's own lock, so that none starts meanwhile.
  std::string const path = command.root + "/run/dispatcher.lock";
  SDescriptor const lock(sys::Open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW, 0660));
  if (!lock.IsOpen()) return Fail(command, EX_OSERR, "cannot open " + path + ": " + strerror(errno));
  if (sys::Lock(lock.Get(), F_WRLCK, 0, 1, false) != 0)
    return Fail(command, EX_TEMPFAIL, "a dispatcher runs; it does this by itself");

  SRecoveryScope scope;
  scope.quietSeconds = options.quietSeconds;
  if (!options.quiet) scope.log = [](std::string const &line) { puts(OneLine(line).c_str()); };
  SRecoveryReport const report = RecoverSpool(scope);
  printf("%d requeued, %d reported, %d lost, %d orphans, %d removed, %d returned, %d repaired\n", report.requeued,
         report.reported, report.lost, report.orphans, report.removed, report.returned, report.repaired);
  if (report.accountsFailed) Fail(command, EX_IOERR, "the accounts cannot be read; see: brenthaven account check");
  if (report.failed > 0) Fail(command, EX_IOERR, std::to_string(report.failed) + " things could not be done");
}

}  // namespace

void AddRecover(CLI::App &app, Command &command) {
  auto const options = std::make_shared<Options>();
  CLI::App *const recover = app.add_subcommand("recover", "put the spool in order after a crash");
  recover->add_flag("-q,--quiet", options->quiet, "print the counts alone");
  recover
      ->add_option("--older-than", options->quietSeconds,
                   "touch only what has not changed for so many seconds, where modules may still run (default: 0)")
      ->check(CLI::NonNegativeNumber);
  recover->callback([&command, options] { Recover(command, *options); });
}
