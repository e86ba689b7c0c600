// brenthaven submit: a message on standard input goes into the spool.
#include <unistd.h>

#include <cstdio>

#include "command/command.h"
#include "command/submission.h"

namespace {

struct SubmitOptions {
  Submission submission;
  std::string sender;
  bool printName = false;
};

void Submit(Command &command, SubmitOptions &options, bool senderGiven) {
  if (!EnterInstance(command)) return;
  options.submission.sender = senderGiven ? options.sender : OwnAddress();
  SubmissionResult const result = SubmitFrom(STDIN_FILENO, options.submission);
  if (result.code != 0) return Fail(command, result.code, result.text);
  if (options.printName) printf("%s\n", result.text.c_str());
}

}  // namespace

void AddSubmit(CLI::App &app, Command &command) {
  auto const options = std::make_shared<SubmitOptions>();
  CLI::App *const submit = app.add_subcommand("submit", "put a message from standard input into the spool");
  auto *const sender = submit->add_option("-f,--from", options->sender, "envelope sender, <> for none; you without it");
  submit->add_flag("--print-name", options->printName, "print the name that the message has in the spool");
  submit->add_option("RECIPIENT", options->submission.recipients, "addresses")->required();
  submit->callback([&command, options, sender] { Submit(command, *options, sender->count() > 0); });
}
