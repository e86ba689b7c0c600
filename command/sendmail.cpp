// The command under the names "sendmail", "mailq" and "newaliases", with the options that programs pass to them.
#include <signal.h>
#include <string.h>
#include <sysexits.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "brenthaven/platform/files.h"
#include "brenthaven/spool/control.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/text/base.h"
#include "command/command.h"
#include "command/smtp.h"
#include "command/spoolfiles.h"
#include "command/submission.h"

namespace {

enum class Mode { kSubmit, kSmtp, kList, kNothing, kExplain, kRunQueue };

struct SendmailOptions {
  Mode mode = Mode::kSubmit;
  Submission submission;
  bool senderGiven = false;
};

// An instance where the packager put it, unless the environment names another.
constexpr char kDefaultRoot[] = "/var/lib/brenthaven";

int Usage(char const *text) {
  fprintf(stderr, "sendmail: %s\n", text);
  return EX_USAGE;
}

// -bX. 0, or an exit code.
int SetMode(SendmailOptions &options, char const *letter) {
  if (strcmp(letter, "m") == 0)
    options.mode = Mode::kSubmit;
  else if (strcmp(letter, "s") == 0)
    options.mode = Mode::kSmtp;
  else if (strcmp(letter, "p") == 0)
    options.mode = Mode::kList;
  else if (strcmp(letter, "i") == 0)
    options.mode = Mode::kNothing;
  else if (strcmp(letter, "v") == 0)
    options.mode = Mode::kExplain;
  else if (strcmp(letter, "d") == 0 || strcmp(letter, "D") == 0)
    return Usage("-bd: no daemon of its own; start the dispatcher (man Dispatcher)");
  else
    return Usage("-b takes m, s, p, i or v");
  return 0;
}

// 0, or an exit code. What only tunes another mailer is accepted and changes nothing.
int ParseOptions(int argc, char **argv, SendmailOptions &options) {
  options.submission.dotEnds = true;
  options.submission.complete = true;
  opterr = 0;
  for (int option; (option = getopt(argc, argv, "A:B:F:GL:N:O:R:UV:X:b:f:h:imno:p:q::r:tv")) != -1;) switch (option) {
      case 'b':
        if (int const code = SetMode(options, optarg); code != 0) return code;
        break;
      case 'f':
      case 'r':
        options.submission.sender = strcmp(optarg, "<>") == 0 ? "" : optarg;
        options.senderGiven = true;
        break;
      case 'F':
        options.submission.fullName = optarg;
        break;
      case 'i':
        options.submission.dotEnds = false;
        break;
      case 'o':
        if (strcmp(optarg, "i") == 0) options.submission.dotEnds = false;
        break;
      case 't':
        options.submission.readRecipients = true;
        break;
      case 'q':
        options.mode = Mode::kRunQueue;
        break;
      case '?':
        return Usage(
            (std::string("option -") + static_cast<char>(optopt) + " is not known or lacks its value").c_str());
      default:
        break;
    }
  for (int i = optind; i < argc; ++i) options.submission.recipients.emplace_back(argv[i]);
  return 0;
}

std::string Lines(SStringList const &recipients) {
  std::string text;
  for (SString const &recipient : recipients) {
    SString const address(recipient.View().substr(recipient.HasPrefix("SMTP ") ? 5 : 0));
    text += "                                         " + OneLine(ToStd(address)) + "\n";
  }
  return text;
}

// The listing that tools read: id, size, arrival and sender on one line, the recipients below.
int ListQueue(Command &command) {
  long long total = 0;
  int count = 0;
  for (SpoolFile const &file : FindSpoolFiles(command.root)) {
    SControl control((SString(file.path)));
    if (control.Read() == 0) continue;
    if (count++ == 0) puts("-Queue ID- --Size-- ----Arrival Time---- -Sender/Recipient-------");
    SString const body = SString(command.root) + "/messages/" + SString(file.name) + kBodySuffix;
    long const size = FileSize(body);
    total += size > 0 ? size : 0;
    char when[32] = "?";
    struct tm local;
    if (localtime_r(&file.since, &local) != nullptr) (void)strftime(when, sizeof when, "%a %b %e %H:%M:%S", &local);
    char const mark = file.place == kPlaceHeld || file.place == kPlaceFailed ? '!'
                      : file.place == kPlaceWaiting                          ? '*'
                                                                             : ' ';
    std::string sender = ToStd(control.Get(kKeyUserFrom).Get(0));
    if (sender.rfind("SMTP", 0) == 0) sender.erase(0, sender.find_first_not_of("SMTP "));
    printf("%s%c %7ld %s %s\n", file.name.c_str(), mark, size > 0 ? size : 0, when, OneLine(sender).c_str());
    for (char const *key : {kKeyError, kKeyDeferReason})
      if (SString const reason = control.Get(key).Get(0); reason.Length() > 0)
        printf("  (%s)\n", OneLine(ToStd(reason)).c_str());
    for (char const *key : {kKeyChannelTo, kKeyAccountTo, kKeyDeliverTo})
      fputs(Lines(control.Get(key)).c_str(), stdout);
    puts("");
  }
  if (count == 0)
    puts("Mail queue is empty");
  else
    printf("-- %lld Kbytes in %d Request%s.\n", (total + 1023) / 1024, count, count == 1 ? "" : "s");
  return EX_OK;
}

int RunQueues(Command &command) {
  for (SString const &path : ReadDir(SString(command.root) + "/deferred"))
    (void)RunModuleProgram(ToStd(BaseName(path)), "ProcessQueue");  // a module that is not installed has its own keeper
  return EX_OK;
}

int Submit(SendmailOptions &options) {
  if (!options.senderGiven) options.submission.sender = OwnAddress();
  SubmissionResult const result = SubmitFrom(STDIN_FILENO, options.submission);
  if (result.code != 0) fprintf(stderr, "sendmail: %s\n", OneLine(result.text).c_str());
  return result.code;
}

}  // namespace

int SendmailMain(int argc, char **argv) {
  SendmailOptions options;
  std::string const name = ToStd(BaseName(SString(argv[0])));
  if (int const code = ParseOptions(argc, argv, options); code != 0) return code;
  if (name == "mailq") options.mode = Mode::kList;
  if (name == "newaliases") options.mode = Mode::kNothing;
  if (options.mode == Mode::kNothing) return EX_OK;  // aliases are in force as soon as they are set

  Command command;
  char const *const root = getenv("Brenthaven");
  command.root = root != nullptr ? root : kDefaultRoot;
  if (!EnterInstance(command)) return command.code;
  if (signal(SIGPIPE, SIG_IGN) == SIG_ERR) return EX_OSERR;
  switch (options.mode) {
    case Mode::kSubmit:
      return Submit(options);
    case Mode::kSmtp:
      return RunSmtpSession(STDIN_FILENO, STDOUT_FILENO);
    case Mode::kList:
      return ListQueue(command);
    case Mode::kExplain:
      return ExplainAddresses(command, options.submission.recipients, "");
    case Mode::kRunQueue:
      return RunQueues(command);
    case Mode::kNothing:
      break;
  }
  return EX_OK;
}
