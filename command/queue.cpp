// brenthaven queue: what waits in the spool, why, since when and for whom.
#include <sysexits.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "brenthaven/platform/files.h"
#include "brenthaven/platform/sys.h"
#include "brenthaven/spool/control.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/spool/returned.h"
#include "brenthaven/text/base.h"
#include "command/command.h"
#include "command/spoolfiles.h"

namespace {

using Json = nlohmann::ordered_json;

struct QueueOptions {
  std::string name;
  std::string module;
  bool json = false;
};

constexpr char kTraceWord[] = "Queue";  // stands in Trace: for a control that this command has written
constexpr int kShownRecipients = 20;    // on one line of a listing; JSON has all

SStringList RecipientsOf(SControl const &control) {
  SStringList all;
  all.Define();
  for (char const *key : {kKeyChannelTo, kKeyAccountTo, kKeyDeliverTo, kKeyModuleTo, kKeyManagerTo}) {
    SStringList const values = control.Get(key);
    if (values.Defined()) all.Push(values);
  }
  return all;
}

// Why the message waits: the error it was filed for, with the first line of its text, what the last pass noted, or
// nothing.
SString ReasonOf(SControl const &control) {
  SString const error = control.Get(kKeyError).Get(0);
  if (error.Length() == 0) return control.Get(kKeyDeferReason).Get(0);
  SString const text = control.Get(kKeyErrorText).Get(0);
  return text.Length() > 0 ? error + ": " + text : error;
}

std::string Joined(SStringList const &list, int limit) {
  std::string text;
  int count = 0;
  for (SString const &item : list)
    if (count++ < limit) text += (text.empty() ? "" : ", ") + ToStd(item);
  return count > limit ? text + " and " + std::to_string(count - limit) + " more" : text;
}

// "NAME  PLACE  MODULE  SINCE  FROM -> TO, TO  (REASON)"
void PrintLine(SpoolFile const &file, SControl const &control, bool readable) {
  std::string const function = readable ? ToStd(control.Get(kKeyFunction).Get(0)) : "?";
  printf("%s  %s  %s  %s  ", file.name.c_str(), file.place.c_str(), function.c_str(),
         LocalTimeText(file.since).c_str());
  if (!readable) {
    puts("(cannot be read)");
    return;
  }
  std::string const reason = ToStd(ReasonOf(control));
  printf("%s -> %s%s\n", OneLine(ToStd(control.Get(kKeyUserFrom).Get(0))).c_str(),
         OneLine(Joined(RecipientsOf(control), kShownRecipients)).c_str(),
         reason.empty() ? "" : OneLine("  (" + reason + ")").c_str());
}

Json Describe(SpoolFile const &file, SControl const &control, bool readable) {
  Json entry = {{"name", file.name}, {"place", file.place}, {"path", file.path}, {"since", LocalTimeText(file.since)}};
  if (!readable) {
    entry["readable"] = false;
    return entry;
  }
  entry["module"] = ToStd(control.Get(kKeyFunction).Get(0));
  entry["from"] = ToStd(control.Get(kKeyUserFrom).Get(0));
  Json &to = entry["to"] = Json::array();
  for (SString const &recipient : RecipientsOf(control)) to.push_back(ToStd(recipient));
  entry["reason"] = ToStd(ReasonOf(control));
  return entry;
}

void ListQueue(Command &command, QueueOptions const &options) {
  if (!EnterInstance(command)) return;
  Json all = Json::array();
  for (SpoolFile const &file : FindSpoolFiles(command.root)) {
    SControl control((SString(file.path)));
    bool const readable = control.Read() != 0 && control.Get(kKeyFunction).Length() > 0;  // else torn
    if (!readable && !FileExists(SString(file.path))) continue;                           // went on its way meanwhile
    if (options.json)
      all.push_back(Describe(file, control, readable));
    else
      PrintLine(file, control, readable);
  }
  if (options.json) puts(all.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
}

// The file of a message, or a Fail.
bool FindMessage(Command &command, std::string const &name, SpoolFile &found) {
  for (SpoolFile const &file : FindSpoolFiles(command.root))
    if (file.name == name) {
      found = file;
      return true;
    }
  Fail(command, EX_NOINPUT, "no such message in the queue: " + name);
  return false;
}

void ShowMessage(Command &command, QueueOptions const &options) {
  SpoolFile file;
  if (!EnterInstance(command) || !FindMessage(command, options.name, file)) return;
  printf("%s\n\n", file.path.c_str());
  SString const header = SString(command.root) + "/messages/" + SString(options.name) + kHeaderSuffix;
  for (SString const &path : {SString(file.path), header}) {
    SString const text = MapFileRead(path);
    if (text.Defined())
      fwrite(text.View().data(), 1, text.View().size(), stdout);
    else
      printf("(%s is missing)\n", static_cast<char const *>(path));
    puts("");
  }
  long const size = FileSize(SString(command.root) + "/messages/" + SString(options.name) + kBodySuffix);
  if (size >= 0)
    printf("body: %ld bytes\n", size);
  else
    puts("(no body file)");
}

// Walks the deferred queue of one module, or of each that has one.
void RunQueue(Command &command, QueueOptions const &options) {
  if (!EnterInstance(command)) return;
  std::vector<std::string> modules;
  if (!options.module.empty())
    modules.push_back(options.module);
  else
    for (SString const &path : ReadDir(SString(command.root) + "/deferred"))
      if (std::string const name = ToStd(BaseName(path)); !IsHoldingPlace("deferred:" + name)) modules.push_back(name);
  for (std::string const &module : modules) {
    int const code = RunModuleProgram(module, "ProcessQueue");
    if (code < 0)
      Fail(command, EX_UNAVAILABLE, "no such module: " + module);
    else if (code != 0)
      Fail(command, EX_SOFTWARE, module + " ended with " + std::to_string(code));
  }
}

bool MoveControl(Command &command, SpoolFile const &file, std::string const &directory) {
  SString const target = SString(directory) + "/" + SString(file.name) + kControlSuffix;
  if (MakeDir(SString(directory), 0770) && !FileExists(target) && Rename(SString(file.path), target)) return true;
  Fail(command, EX_CANTCREAT, "cannot move " + file.path + " to " + directory + ": " + ToStd(GetErrorString(-1)));
  return false;
}

void Hold(Command &command, QueueOptions const &options) {
  SpoolFile file;
  if (!EnterInstance(command) || !FindMessage(command, options.name, file)) return;
  if (file.place == kPlaceHeld || IsHoldingPlace(file.place)) return;
  (void)MoveControl(command, file, command.root + "/control/held");
}

// Rewrites what a module held, where it lies, so that it goes on in place of being held again: mail for the module that
// failed on it; and what is no mail any more, an error record, with a Trace: that tells that a person let it go.
bool Approve(Command &command, SpoolFile const &file) {
  SControl control((SString(file.path)));
  if (control.Read() != 0) {
    control.SetModuleName(kTraceWord);
    (void)ResumeMessage(control);
    if (control.Write()) return true;
  }
  Fail(command, EX_CANTCREAT, "cannot rewrite " + file.path + ": " + ToStd(GetErrorString(-1)));
  return false;
}

void Release(Command &command, QueueOptions const &options) {
  SpoolFile file;
  if (!EnterInstance(command) || !FindMessage(command, options.name, file)) return;
  if (IsHoldingPlace(file.place) && !Approve(command, file)) return;
  if (file.place != kPlaceWaiting && !MoveControl(command, file, command.root + "/control")) return;
  SControl control((SString(file.name)));
  if (control.Read() == 0) return Fail(command, EX_DATAERR, "its control file cannot be read: " + options.name);
  if (!control.Notify()) fputs("brenthaven: no dispatcher runs; it will find the message when it starts\n", stderr);
}

void Remove(Command &command, QueueOptions const &options) {
  SpoolFile file;
  if (!EnterInstance(command) || !FindMessage(command, options.name, file)) return;
  if (!RemoveFile(SString(file.path)))
    return Fail(command, EX_CANTCREAT, "cannot remove " + file.path + ": " + ToStd(GetErrorString(-1)));
  for (char const *suffix : {kHeaderSuffix, kBodySuffix})
    (void)RemoveFile(SString(command.root) + "/messages/" + SString(file.name) +
                     suffix);  // an error record may have none
}

}  // namespace

void AddQueue(CLI::App &app, Command &command) {
  auto const options = std::make_shared<QueueOptions>();
  CLI::App *const queue = app.add_subcommand("queue", "messages that wait");
  queue->require_subcommand(1);
  auto const add = [&](char const *name, char const *help, auto run) {
    CLI::App *const sub = queue->add_subcommand(name, help);
    sub->callback([&command, options, run] { run(command, *options); });
    return sub;
  };
  auto const withName = [&](CLI::App *sub) { sub->add_option("NAME", options->name, "the message")->required(); };
  add("list", "what waits, where, for which module, since when, from whom, for whom and why", ListQueue)
      ->add_flag("--json", options->json, "print JSON");
  withName(add("show", "control file and header of a message", ShowMessage));
  add("run", "walk the deferred queue now", RunQueue)->add_option("MODULE", options->module, "all without it");
  withName(add("hold", "keep a message from being worked on", Hold));
  withName(add("release", "let a held, sidelined, failed or deferred message go on", Release));
  withName(add("remove", "delete a message and its files", Remove));
}
